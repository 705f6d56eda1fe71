// Report: JSON out.
#include "top/Report.h"

#include <nlohmann/json.hpp>

namespace top {

std::string reportJson(const Model& model, const Contact& contact, const std::string& answer) {
    using nlohmann::json;
    json pools = json::array();
    for (const PoolRow& row : model.now().pools) {
        PoolRate rate;
        if (model.rateOfPool(row.pool, Model::WINDOWS_s[0], rate)) {
            pools.push_back({{"pool", row.pool},
                             {"seconds", rate.seconds},
                             {"utilisation", rate.utilisation},
                             {"calls", rate.calls},
                             {"socket_events", rate.events},
                             {"messages", rate.messages},
                             {"timers", rate.timers},
                             {"passes", rate.passes},
                             {"reports", rate.reports}});
        }
    }
    json classes = json::array();
    for (const ClassRow& row : model.now().classes) {
        ClassRate rate;
        if (model.rateOfClass(row.name, Model::WINDOWS_s[0], rate)) {
            classes.push_back({{"class", row.name}, {"calls", rate.calls}, {"busy", rate.busy}});
        }
    }
    json alarms = json::array();
    for (const Alarm& alarm : model.alarms()) {
        alarms.push_back({{"bad", alarm.is_bad}, {"text", alarm.text}});
    }
    const json all{{"target", contact.target}, {"pid", model.process()},
                   {"pool_rates", pools},      {"class_rates", classes},
                   {"alarms", alarms},         {"stats", json::parse(answer, nullptr, false)}};
    return all.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace top
