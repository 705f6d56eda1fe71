// TraceReader: Chrome trace JSON as a test reads it, with the rules that every such file has to keep.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Trace/TraceFormat.h"
#include "trace/ChromeTrace.h"

namespace Orvex::Testing {

struct DrawnSlice {
    std::string name;
    std::string category;
    int64_t from_ns;
    int64_t to_ns;
    nlohmann::json args;
};

struct DrawnArrow {
    std::string name;
    int64_t from_thread = 0;
    int64_t to_thread = 0;
    int64_t from_ns = -1;
    int64_t to_ns = -1;
};

class TraceReader {
public:
    // `by_rules`: whether the published rules are gone through as well, which takes as long as reading it.
    explicit TraceReader(const std::string& text, bool by_rules = true) {
        const nlohmann::json whole = nlohmann::json::parse(text);
        if (by_rules) {
            EXPECT_EQ(std::vector<std::string>{}, TraceFormat::faultsOf(whole));
        }
        for (const nlohmann::json& entry : whole.at("traceEvents")) {
            take(entry);
        }
    }

    // Slices of a thread lie one in the other or one after the other; spans end after they began; arrows have
    // both ends, go forward in time, and each end is in a slice of its thread.
    void expectInOrder() const {
        for (const auto& [thread, slices] : m_slices) {
            expectNested(slices);
        }
        for (const auto& [id, span] : spans) {
            EXPECT_GE(span.from_ns, 0) << span.name << " begins nowhere";
            EXPECT_GE(span.to_ns, span.from_ns) << span.name;
        }
        for (const auto& [id, arrow] : arrows) {
            ASSERT_GE(arrow.from_ns, 0) << id;
            EXPECT_GE(arrow.to_ns, arrow.from_ns) << id;
            EXPECT_TRUE(isInSlice(arrow.from_thread, arrow.from_ns)) << id << " " << arrow.name;
            EXPECT_TRUE(isInSlice(arrow.to_thread, arrow.to_ns)) << id << " " << arrow.name;
        }
    }

    std::vector<DrawnSlice> slices(const std::string& name_part) const {
        std::vector<DrawnSlice> found;
        for (const auto& [thread, slices] : m_slices) {
            for (const DrawnSlice& slice : slices) {
                if (slice.name.find(name_part) != std::string::npos) {
                    found.push_back(slice);
                }
            }
        }
        return found;
    }
    size_t arrowsNamed(const std::string& name) const {
        size_t found = 0;
        for (const auto& [id, arrow] : arrows) {
            found += arrow.name == name ? 1 : 0;
        }
        return found;
    }
    size_t spansNamed(const std::string& name_part) const {
        size_t found = 0;
        for (const auto& [id, span] : spans) {
            found += span.name.find(name_part) != std::string::npos ? 1 : 0;
        }
        return found;
    }

    std::map<std::string, DrawnArrow> arrows;  // by id
    std::map<std::string, DrawnSlice> spans;   // by id
    std::vector<nlohmann::json> instants;
    std::map<int64_t, std::string> threads;
    std::string process;

private:
    static int64_t ns(const nlohmann::json& us) {
        return static_cast<int64_t>(us.get<double>() * 1000 + 0.5);
    }

    void take(const nlohmann::json& entry) {
        const std::string phase = entry.at("ph");
        const int64_t thread = entry.at("tid");
        const int64_t at_ns = ns(entry.at("ts"));
        const std::string name = entry.at("name");
        if (phase == "X") {
            m_slices[thread].push_back({name, entry.at("cat"), at_ns, at_ns + ns(entry.at("dur")),
                                        entry.value("args", nlohmann::json::object())});
        } else if (phase == "M") {
            (name == "process_name" ? process : threads[thread]) = entry.at("args").at("name");
        } else if (phase == "i") {
            instants.push_back(entry);
        } else if (phase == "b") {
            spans[entry.at("id")] = {name, entry.at("cat"), at_ns, -1, {}};
        } else if (phase == "e") {
            spans[entry.at("id")].to_ns = at_ns;
        } else if (phase == "s") {
            arrows[entry.at("id")] = {name, thread, 0, at_ns, -1};
        } else {
            ASSERT_EQ("f", phase);
            EXPECT_EQ("e", entry.at("bp"));
            DrawnArrow& arrow = arrows[entry.at("id")];
            arrow.to_thread = thread;
            arrow.to_ns = at_ns;
        }
    }

    static void expectNested(std::vector<DrawnSlice> slices) {
        std::stable_sort(slices.begin(), slices.end(), [](const DrawnSlice& a, const DrawnSlice& b) {
            return a.from_ns != b.from_ns ? a.from_ns < b.from_ns : a.to_ns > b.to_ns;
        });
        std::vector<const DrawnSlice*> open;
        for (const DrawnSlice& slice : slices) {
            while (!open.empty() && open.back()->to_ns <= slice.from_ns) {
                open.pop_back();
            }
            EXPECT_TRUE(open.empty() || slice.to_ns <= open.back()->to_ns)
                << slice.name << " reaches out of " << open.back()->name;
            open.push_back(&slice);
        }
    }

    bool isInSlice(int64_t thread, int64_t at_ns) const {
        const auto found = m_slices.find(thread);
        if (found == m_slices.end()) {
            return false;
        }
        for (const DrawnSlice& slice : found->second) {
            if (slice.from_ns <= at_ns && at_ns <= slice.to_ns) {
                return true;
            }
        }
        return false;
    }

    std::map<int64_t, std::vector<DrawnSlice>> m_slices;  // by thread
};

inline TraceReader drawn(const trace::Dump& dump, bool by_rules = true) {
    std::ostringstream out;
    trace::write_chrome_trace(dump, out);
    return TraceReader(out.str(), by_rules);
}

}  // namespace Orvex::Testing
