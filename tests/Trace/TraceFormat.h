// TraceFormat: the published rules of Chrome's trace event format (JSON object form), event by event.
#pragma once

#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

namespace Orvex::Testing {

// What a file breaks, one text for each; a viewer drops such events or draws them wrong.
class TraceFormat {
public:
    static std::vector<std::string> faultsOf(const nlohmann::json& whole) {
        TraceFormat check;
        check.take_all(whole);
        return std::move(check.m_faults);
    }

private:
    using Json = nlohmann::json;
    // Spans and flows belong together by category, name and id.
    using Key = std::tuple<std::string, std::string, std::string>;

    void fault(const Json& event, const std::string& what) { m_faults.push_back(what + ": " + event.dump()); }

    static bool has(const Json& event, const char* name, bool (Json::*is)() const noexcept) {
        const auto found = event.find(name);
        return found != event.end() && ((*found).*is)();
    }

    void take_all(const Json& whole) {
        if (!whole.is_object() || !has(whole, "traceEvents", &Json::is_array)) {
            m_faults.emplace_back("no list of events");
            return;
        }
        if (whole.contains("displayTimeUnit") && whole["displayTimeUnit"] != "ms" &&
            whole["displayTimeUnit"] != "ns") {
            m_faults.emplace_back("the unit is ms or ns");
        }
        for (const Json& event : whole["traceEvents"]) {
            take(event);
        }
        for (const auto& [thread, open] : m_open) {
            if (!open.empty()) {
                m_faults.push_back("B without E: " + open.back());
            }
        }
        for (const auto& [key, begun] : m_begun) {
            m_faults.push_back("b without e: " + std::get<1>(key));
        }
        for (const auto& [key, from] : m_flows) {
            m_faults.push_back("s without f: " + std::get<1>(key));
        }
    }

    // What every event has.
    bool is_event(const Json& event) {
        if (!event.is_object() || !has(event, "ph", &Json::is_string) ||
            event["ph"].get<std::string>().size() != 1) {
            fault(event, "no phase of one letter");
            return false;
        }
        if (!has(event, "name", &Json::is_string)) {
            fault(event, "no name");
            return false;
        }
        if (!has(event, "pid", &Json::is_number_integer) || !has(event, "tid", &Json::is_number_integer)) {
            fault(event, "pid and tid are whole numbers");
            return false;
        }
        if (!has(event, "ts", &Json::is_number) || event["ts"].get<double>() < 0) {
            fault(event, "no time in microseconds");
            return false;
        }
        if (event.contains("cat") && !event["cat"].is_string()) {
            fault(event, "a category is a text");
        }
        if (event.contains("args") && !event["args"].is_object()) {
            fault(event, "arguments are an object");
        }
        return true;
    }

    void take(const Json& event) {
        if (!is_event(event)) {
            return;
        }
        switch (event["ph"].get<std::string>()[0]) {
            case 'X':
                if (!has(event, "dur", &Json::is_number) || event["dur"].get<double>() < 0) {
                    fault(event, "X has a duration");
                }
                break;
            case 'B':
            case 'E':
                take_edge(event);
                break;
            case 'b':
            case 'e':
                take_span(event);
                break;
            case 's':
            case 'f':
                take_flow(event);
                break;
            case 'i':
                if (event.value("s", "t") != "t" && event.value("s", "t") != "p" &&
                    event.value("s", "t") != "g") {
                    fault(event, "the scope of i is t, p or g");
                }
                break;
            case 'M':
                take_metadata(event);
                break;
            default:
                fault(event, "a phase that is not known");
        }
    }

    // B and E of a thread come in the order of their times, the last one begun ends first.
    void take_edge(const Json& event) {
        const auto thread = std::make_pair(event["pid"].get<int64_t>(), event["tid"].get<int64_t>());
        std::vector<std::string>& open = m_open[thread];
        const double ts = event["ts"];
        if (const auto last = m_last.find(thread); last != m_last.end() && ts < last->second) {
            fault(event, "the time of B and E goes back");
        }
        m_last[thread] = ts;
        if (event["ph"] == "B") {
            open.push_back(event["name"]);
        } else if (open.empty() || open.back() != event["name"]) {
            fault(event, "E does not end what began last");
        } else {
            open.pop_back();
        }
    }

    bool key_of(const Json& event, Key& key) {
        if (!has(event, "cat", &Json::is_string) || !event.contains("id") ||
            !(event["id"].is_string() || event["id"].is_number_integer())) {
            fault(event, "spans and flows have a category and an id");
            return false;
        }
        key = {event["cat"], event["name"], event["id"].dump()};
        return true;
    }

    void take_span(const Json& event) {
        Key key;
        if (!key_of(event, key)) {
            return;
        }
        const double ts = event["ts"];
        if (event["ph"] == "b") {
            if (!m_begun.emplace(key, ts).second) {
                fault(event, "b with the id of a span that is open");
            }
        } else if (const auto begun = m_begun.find(key); begun == m_begun.end()) {
            fault(event, "e without b");
        } else {
            if (ts < begun->second) {
                fault(event, "e before its b");
            }
            m_begun.erase(begun);
        }
    }

    void take_flow(const Json& event) {
        Key key;
        if (!key_of(event, key)) {
            return;
        }
        const double ts = event["ts"];
        if (event["ph"] == "s") {
            if (event.contains("bp")) {
                fault(event, "bp belongs to f");
            }
            if (!m_flow_ids.insert(key).second) {
                fault(event, "s with an id that was there");
            }
            m_flows.emplace(key, ts);
        } else if (const auto from = m_flows.find(key); from == m_flows.end()) {
            fault(event, "f without s");
        } else {
            if (ts < from->second) {
                fault(event, "f before its s");
            }
            if (event.contains("bp") && event["bp"] != "e") {
                fault(event, "bp is e");
            }
            m_flows.erase(from);
        }
    }

    void take_metadata(const Json& event) {
        static const std::set<std::string> KNOWN{"process_name", "process_labels", "process_sort_index",
                                                 "thread_name", "thread_sort_index"};
        if (KNOWN.count(event["name"]) == 0) {
            fault(event, "M of a name that is not known");
        } else if (event["name"] == "process_name" || event["name"] == "thread_name") {
            if (!event.contains("args") || !has(event["args"], "name", &Json::is_string)) {
                fault(event, "M has its name in the arguments");
            }
        }
    }

    std::vector<std::string> m_faults;
    std::map<std::pair<int64_t, int64_t>, std::vector<std::string>> m_open;
    std::map<std::pair<int64_t, int64_t>, double> m_last;
    std::map<Key, double> m_begun;
    std::map<Key, double> m_flows;
    std::set<Key> m_flow_ids;
};

}  // namespace Orvex::Testing
