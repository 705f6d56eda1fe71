// Histogram: latencies counted in buckets that are 3 % wide.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace LoadKit {

class Histogram {
public:
    void add(uint64_t ns) {
        ++m_counts[bucket(ns)];
        ++m_total;
        m_max = std::max(m_max, ns);
    }
    /// The latency below which `part` of all lie, in us.
    double percentile(double part) const {
        const auto wanted = static_cast<uint64_t>(part * static_cast<double>(m_total));
        uint64_t seen = 0;
        for (size_t i = 0; i < m_counts.size(); ++i) {
            seen += m_counts[i];
            if (seen > wanted) {
                return static_cast<double>(std::min(upperEnd(i), m_max)) / 1000;
            }
        }
        return max();
    }
    double max() const { return static_cast<double>(m_max) / 1000; }
    uint64_t total() const { return m_total; }

private:
    static constexpr unsigned kSteps = 32;  // per doubling

    static size_t bucket(uint64_t ns) {
        if (ns < kSteps) {
            return ns;
        }
        const auto exponent = static_cast<unsigned>(63 - __builtin_clzll(ns)) - 5;
        return kSteps * exponent + (ns >> exponent);
    }
    static uint64_t upperEnd(size_t index) {
        if (index < kSteps) {
            return index;
        }
        const size_t exponent = index / kSteps - 1;
        return (static_cast<uint64_t>(index - kSteps * exponent) + 1) << exponent;
    }

    std::array<uint64_t, kSteps * 61> m_counts{};
    uint64_t m_total = 0;
    uint64_t m_max = 0;
};

}  // namespace LoadKit
