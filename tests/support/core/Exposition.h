// Exposition: reads the exposition format of metrics, as strictly as a stranger's reader would.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <regex>
#include <sstream>
#include <string>

namespace Orvex::Testing {

// The series of an exposition, by name and labels. Refuses a series that is there twice, one without a type
// before it, a family that comes twice, and histograms that fall or whose count is another one.
class Exposition {
public:
    explicit Exposition(const std::string& text) {
        std::istringstream lines(text);
        EXPECT_EQ('\n', text.back());
        for (std::string line; std::getline(lines, line);) {
            line.rfind("# ", 0) == 0 ? comment(line) : sample(line);
        }
        for (const auto& [name, type] : m_types) {
            if (type == "histogram") {
                check_histogram(name);
            }
        }
    }

    double at(const std::string& series) const {
        const auto found = m_series.find(series);
        EXPECT_NE(m_series.end(), found) << series;
        return found != m_series.end() ? found->second : -1;
    }
    const std::map<std::string, double>& series() const { return m_series; }

    // Series that are counters.
    bool is_counter(const std::string& series) const {
        const std::string family = family_of(series.substr(0, series.find('{')));
        const std::string& type = m_types.at(family);
        return type == "counter" || type == "histogram";
    }

private:
    void comment(const std::string& line) {
        static const std::regex FORM("# (HELP|TYPE) ([a-zA-Z_:][a-zA-Z0-9_:]*) (.+)");
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, FORM)) << line;
        if (parts[1] == "TYPE") {
            EXPECT_TRUE(m_types.emplace(parts[2], parts[3]).second) << "twice: " << line;
            EXPECT_TRUE(parts[3] == "counter" || parts[3] == "gauge" || parts[3] == "histogram") << line;
            m_present = parts[2];
            // Endings by which readers know what a series is.
            static const std::regex OF_HISTOGRAM(".*_(count|sum|bucket)");
            static const std::regex OF_COUNTER(".*_total");
            EXPECT_FALSE(std::regex_match(m_present, OF_HISTOGRAM)) << line;
            EXPECT_EQ(parts[3] == "counter", std::regex_match(m_present, OF_COUNTER)) << line;
        }
    }

    void sample(const std::string& line) {
        static const std::regex FORM(R"(([a-zA-Z_:][a-zA-Z0-9_:]*)(\{[a-z]+="(?:[^"\\]|\\.)*")"
                                     R"((?:,[a-z]+="(?:[^"\\]|\\.)*")*\})? (\S+))");
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, FORM)) << line;
        EXPECT_EQ(m_present, family_of(parts[1])) << "not under its own type: " << line;
        char* end = nullptr;
        const std::string number = parts[3];
        const double value = std::strtod(number.c_str(), &end);
        EXPECT_EQ('\0', *end) << line;
        EXPECT_TRUE(m_series.emplace(parts[1].str() + parts[2].str(), value).second) << "twice: " << line;
    }

    std::string family_of(const std::string& name) const {
        for (const char* ending : {"_bucket", "_sum", "_count"}) {
            const size_t size = std::string(ending).size();
            if (name.size() > size && name.compare(name.size() - size, size, ending) == 0) {
                const std::string family = name.substr(0, name.size() - size);
                const auto found = m_types.find(family);
                if (found != m_types.end() && found->second == "histogram") {
                    return family;
                }
            }
        }
        return name;
    }

    void check_histogram(const std::string& name) const {
        static const std::regex EDGE("(.*?),?le=\"([^\"]+)\"\\}");
        std::map<std::string, std::map<double, double>> buckets;  // by the other labels
        for (const auto& [series, value] : m_series) {
            std::smatch parts;
            if (series.rfind(name + "_bucket", 0) == 0 && std::regex_match(series, parts, EDGE)) {
                buckets[parts[1]][parts[2] == "+Inf" ? 1e300 : std::atof(parts[2].str().c_str())] = value;
            }
        }
        for (const auto& [labels, edges] : buckets) {
            double below = 0;
            for (const auto& [edge, value] : edges) {
                EXPECT_GE(value, below) << labels << " at " << edge;
                below = value;
            }
            const std::string rest = labels.substr((name + "_bucket").size());
            EXPECT_EQ(edges.rbegin()->second, at(name + "_count" + (rest == "{" ? "" : rest + "}")));
        }
    }

    std::map<std::string, std::string> m_types;
    std::map<std::string, double> m_series;
    std::string m_present;
};

}  // namespace Orvex::Testing
