// TimerBuckets.
#include "Core/service/TimerBuckets.h"

#include <new>
#include <utility>

namespace Orvex::Reticor {

TimerBuckets::~TimerBuckets() {
    for (const Bucket& bucket : m_bucket) {
        for (Chunk* chunk = bucket.first; chunk != nullptr;) {
            delete std::exchange(chunk, chunk->next);
        }
    }
    while (m_spare != nullptr) {
        delete std::exchange(m_spare, m_spare->next);
    }
}

/// The number of the first bucket from `bucket` on that holds something. Only while there is an entry.
uint64_t TimerBuckets::next_filled(uint64_t bucket) const {
    const size_t place = bucket % COUNT;
    size_t word = place / WORD_BITS;
    uint64_t bits = m_filled[word] & (~uint64_t{0} << place % WORD_BITS);
    while (bits == 0 && m_size > 0) {
        word = (word + 1) % m_filled.size();
        bits = m_filled[word];
    }
    if (bits == 0) {
        return bucket;
    }
    const size_t found = word * WORD_BITS + static_cast<size_t>(__builtin_ctzll(bits));
    return bucket + (found + COUNT - place) % COUNT;
}

bool TimerBuckets::have_spare() {
    if (m_spare == nullptr) {
        if (Chunk* chunk = new (std::nothrow) Chunk) {
            put_chunk(chunk);
        }
    }
    return m_spare != nullptr;
}

bool TimerBuckets::add_chunk(size_t place) {
    if (!have_spare()) {
        return false;
    }
    Chunk* chunk = m_spare;
    m_spare = chunk->next;
    --m_spares;
    Bucket& bucket = m_bucket[place];
    chunk->next = bucket.first;
    bucket = {chunk, 0};
    m_filled[place / WORD_BITS] |= uint64_t{1} << place % WORD_BITS;
    return true;
}

void TimerBuckets::put_chunk(Chunk* chunk) {
    if (m_spares == SPARE_LIMIT) {
        delete chunk;
        return;
    }
    chunk->next = m_spare;
    m_spare = chunk;
    ++m_spares;
}

TimerBuckets::Bucket TimerBuckets::take_bucket(size_t place) {
    m_filled[place / WORD_BITS] &= ~(uint64_t{1} << place % WORD_BITS);
    return std::exchange(m_bucket[place], Bucket{nullptr, 0});
}

}  // namespace Orvex::Reticor
