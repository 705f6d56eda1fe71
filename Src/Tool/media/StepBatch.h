// StepBatch: the writes of a step that are certain, handed to the kernel together.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "Tool/batch/BatchWriter.h"
#include "Tool/media/SenderRecord.h"

namespace Orvex::Reticor {

/// Goes ahead of the walk over the senders. Those that will write the frame on offer from its beginning,
/// whatever the turns before theirs do, have it written here, up to MOST at a time; in the walk each of them
/// takes its result where it would have called the socket. So the order in which senders are credited, fail
/// and are told of stays that of the list.
///
/// A sender with a procedure or a filter ends a batch: what those call may take senders off that come after,
/// and nothing must be written to them then. It and those after it are looked at when the walk is there.
///
/// Thread safety: none of its own; guarded by the mutex of the buffer.
class StepBatch {
public:
    static constexpr size_t MOST = 256;

    /// What a batch needs, of its own so that a buffer without one is not larger by it.
    struct Room {
        explicit Room(std::unique_ptr<BatchWriter_IF> writer) : m_writer(std::move(writer)) {}

        const std::unique_ptr<BatchWriter_IF> m_writer;
        std::array<SenderRecord*, MOST> m_records = {};
        std::array<BatchedWrite, MOST> m_writes = {};
    };

    /// From `least` certain writes on; without a room never. What was there before is in `room` then, so that
    /// it ends after the mutex. Inside a step too.
    void set(std::unique_ptr<Room>& room, size_t least) INFRA_REQUIRES(CORE_MUTEX);
    bool on() const { return m_room != nullptr; }

    /// The walk begins at `first`, with that frame on offer.
    void begin(SenderRecord* first, CFrame* offered) INFRA_REQUIRES(CORE_MUTEX);
    /// The walk is at this sender. True if the frame on offer was written to it; `answer` is then what the
    /// socket's own operation would have given.
    bool take(SenderRecord& record, int& answer) INFRA_REQUIRES(CORE_MUTEX) {
        return m_scan == &record || m_taken != m_count ? find(record, answer) : false;
    }
    /// Writes that were made so, since the start.
    uint64_t writes() const { return m_writes; }

private:
    bool find(SenderRecord& record, int& answer) INFRA_REQUIRES(CORE_MUTEX);
    void collect() INFRA_REQUIRES(CORE_MUTEX);
    void write() INFRA_REQUIRES(CORE_MUTEX);
    static bool calls_back(const SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX);
    bool is_certain(SenderRecord& record) const INFRA_REQUIRES(CORE_MUTEX);

    std::unique_ptr<Room> m_room;
    size_t m_least = 0;
    SenderRecord* m_scan = nullptr;  ///< The first one that was not looked at; null after the last one.
    CFrame* m_offered = nullptr;
    size_t m_count = 0;
    size_t m_taken = 0;
    uint64_t m_writes = 0;
};

}  // namespace Orvex::Reticor
