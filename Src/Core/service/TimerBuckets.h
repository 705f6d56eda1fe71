// TimerBuckets: the timers that are not due for a while, put aside by time and not sorted.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace Orvex::Reticor {

/// What the heap and the buckets keep of an armed timer. It may be armed no more: whoever reads an entry
/// asks.
struct TimerEntry {
    uint64_t expire;  ///< Absolute, microseconds.
    int64_t id;
};

/// Entries by time, a bucket for each 134 seconds of the next 38 hours. Putting one aside costs the same with
/// ten and with a million others, and most timers that wait for long are cancelled before anybody has to
/// look at them again.
///
/// Thread safety: none; TimerHeap's mutex guards it.
class TimerBuckets {
public:
    static constexpr unsigned SPAN_SHIFT = 27;
    static constexpr uint64_t SPAN_US = uint64_t{1} << SPAN_SHIFT;
    static constexpr size_t COUNT = 1024;

    TimerBuckets() = default;
    ~TimerBuckets();

    TimerBuckets(const TimerBuckets&) = delete;
    TimerBuckets& operator=(const TimerBuckets&) = delete;

    size_t Size() const { return m_size; }

    /// The beginning of the first bucket. Everything here expires then or later.
    uint64_t Begin() const { return m_first << SPAN_SHIFT; }

    /// Whether an expiry has a bucket: it is not before Begin() and not beyond the last one.
    bool Covers(uint64_t expire) const { return (expire >> SPAN_SHIFT) - m_first < COUNT; }

    /// Lets the first bucket be the one of `time`. Only while there is no entry.
    void StartAt(uint64_t time) { m_first = time >> SPAN_SHIFT; }

    /// Adds an entry whose expiry is covered. False without memory.
    bool Put(const TimerEntry& entry) { return append(place_of(entry.expire), entry); }

    /// Has the processor fetch what Put of that expiry will write.
    void Prefetch(uint64_t expire) const {
        const Bucket& bucket = m_bucket[place_of(expire)];
        __builtin_prefetch(bucket.first == nullptr ? nullptr : &bucket.first->entry[bucket.used], 1);
    }

    /// Lets the first bucket be the one after `time`, and hands out the entries of all earlier ones.
    template <class Take>
    void AdvanceBehind(uint64_t time, Take take) {
        const uint64_t first = (time >> SPAN_SHIFT) + 1;
        for (uint64_t bucket = next_filled(m_first); m_size > 0 && bucket < first;
             bucket = next_filled(bucket)) {
            drain(bucket % COUNT, take);
        }
        m_first = first > m_first ? first : m_first;
    }

    /// The soonest expiry of an entry for which `keep` holds, or 0. Drops those on the way for which it does
    /// not; without memory for that it gives the beginning of the first bucket that is not empty.
    template <class Keep>
    uint64_t Soonest(Keep keep) {
        while (m_size > 0) {
            if (!have_spare()) {
                return next_filled(m_first) << SPAN_SHIFT;
            }
            const size_t place = next_filled(m_first) % COUNT;
            if (const uint64_t soonest = keep_only(place, keep)) {
                return soonest;
            }
        }
        return 0;
    }

    /// Drops every entry for which `keep` does not hold; without memory for that, those of some buckets.
    template <class Keep>
    void KeepOnly(Keep keep) {
        for (size_t place = 0; place < COUNT && m_size > 0; ++place) {
            if (m_bucket[place].first != nullptr && have_spare()) {
                keep_only(place, keep);
            }
        }
    }

private:
    static constexpr size_t CACHE_LINE = 64;

    /// Entries of one bucket, as many as fill four cache lines together with the link.
    static constexpr size_t CHUNK = 15;
    struct alignas(CACHE_LINE) Chunk {
        TimerEntry entry[CHUNK];
        Chunk* next;
    };
    /// A list of chunks, the last one first. All but the first chunk are full.
    struct Bucket {
        Chunk* first;
        size_t used;  ///< Entries in the first chunk. Here, so that adding an entry touches nothing else.
    };
    static constexpr size_t SPARE_LIMIT = 4096;
    static constexpr size_t WORD_BITS = 64;

    static size_t place_of(uint64_t expire) { return (expire >> SPAN_SHIFT) % COUNT; }
    uint64_t next_filled(uint64_t bucket) const;
    bool have_spare();
    bool add_chunk(size_t place);
    void put_chunk(Chunk* chunk);
    Bucket take_bucket(size_t place);

    bool append(size_t place, const TimerEntry& entry) {
        Bucket& bucket = m_bucket[place];
        if ((bucket.first == nullptr || bucket.used == CHUNK) && !add_chunk(place)) {
            return false;
        }
        bucket.first->entry[bucket.used++] = entry;
        ++m_size;
        return true;
    }

    template <class Take>
    void drain(size_t place, Take take) {
        Bucket bucket = take_bucket(place);
        while (bucket.first != nullptr) {
            for (size_t i = 0; i < bucket.used; ++i) {
                take(bucket.first->entry[i]);
            }
            m_size -= bucket.used;
            Chunk* done = bucket.first;
            bucket = {done->next, CHUNK};
            put_chunk(done);
        }
    }

    /// Result: the soonest expiry that is left in the bucket, or 0. One spare chunk is all that it needs:
    /// what is put back never runs ahead of what was taken out.
    template <class Keep>
    uint64_t keep_only(size_t place, Keep keep) {
        uint64_t soonest = 0;
        drain(place, [&](const TimerEntry& entry) {
            if (keep(entry)) {
                append(place, entry);
                soonest = soonest == 0 || entry.expire < soonest ? entry.expire : soonest;
            }
        });
        return soonest;
    }

    uint64_t m_first = 0;  ///< Number of the first bucket; number n starts at n * SPAN_US.
    size_t m_size = 0;     ///< Entries.
    size_t m_spares = 0;
    Chunk* m_spare = nullptr;                            ///< Chunks that rest.
    std::array<Bucket, COUNT> m_bucket{};                ///< By number modulo COUNT.
    std::array<uint64_t, COUNT / WORD_BITS> m_filled{};  ///< A bit for each bucket that is not empty.
};

}  // namespace Orvex::Reticor
