// SpreadTally: how long something took, counted by powers of two.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Core/count/Tally.h"

namespace Orvex::Reticor {

/// Places of a spread. What took less than 2^i ns, and was not counted in an earlier place, is counted in
/// place i; the last place takes the rest, from about nine minutes on.
constexpr size_t SPREAD_PLACES = 40;

/// The values of a spread at one moment.
struct SpreadValues {
    uint64_t count[SPREAD_PLACES] = {};
    uint64_t sum_ns = 0;
    uint64_t max_ns = 0;
};

/// Written by one thread, read by any.
class SpreadTally {
public:
    void Add(uint64_t ns) {
        m_count[place_of(ns)].Increment();
        m_sum_ns.Add(ns);
        m_max_ns.RaiseTo(ns);
    }

    /// Adds what is counted here to `values`.
    void AddTo(SpreadValues& values) const {
        for (size_t i = 0; i < SPREAD_PLACES; ++i) {
            values.count[i] += m_count[i].Get();
        }
        values.sum_ns += m_sum_ns.Get();
        values.max_ns = m_max_ns.Get() > values.max_ns ? m_max_ns.Get() : values.max_ns;
    }

    /// Adds what is counted in `other`, whose thread has ended.
    void Fold(const SpreadTally& other) {
        for (size_t i = 0; i < SPREAD_PLACES; ++i) {
            m_count[i].Add(other.m_count[i].Get());
        }
        m_sum_ns.Add(other.m_sum_ns.Get());
        m_max_ns.RaiseTo(other.m_max_ns.Get());
    }

    static size_t place_of(uint64_t ns) {
        const size_t bits = ns == 0 ? 0 : 64 - static_cast<size_t>(__builtin_clzll(ns));
        return bits < SPREAD_PLACES ? bits : SPREAD_PLACES - 1;
    }

private:
    Tally m_count[SPREAD_PLACES];
    Tally m_sum_ns;
    Tally m_max_ns;
};

}  // namespace Orvex::Reticor
