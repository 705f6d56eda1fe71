// MediaTrace: the debug output of media buffers, their frames and their senders.
#pragma once

#include <atomic>
#include <cstdint>

namespace Orvex::Reticor {

/// One function for each line, which tells whose it is by an address. They print whatever the switch says:
/// ask on() first, so that what is off costs one look.
///
/// Thread safety: any thread.
class MediaTrace {
public:
    /// Switched by the command "MediaBufferPrt".
    static bool on() { return sm_print.load(std::memory_order_relaxed) != 0; }

    /// A buffer's do_send.
    static void do_send(const void* buffer);
    /// A buffer takes a packet.
    static void packet_taken(const void* buffer, const void* packet, int len, int mark, int level);
    /// The walk over the senders of a buffer begins, with what positions are let go before.
    static void walk_begins(const void* buffer, uint64_t should_discard, uint64_t min_discard);
    static void sender_begins(const void* buffer, const void* sender, const void* frame);
    static void sender_ends(const void* buffer, const void* sender, long long total);
    /// A sender is dropped. The line names the one after it.
    static void sender_failed(const void* buffer, const void* next);
    static void walk_ends(const void* buffer, uint64_t should_discard, uint64_t byte_discard);
    static void frame_passed(const void* buffer, const void* frame, int64_t length);
    static void frame_expired(const void* buffer, const void* frame, int64_t length, uint64_t byte_discard);
    static void valid_frames(const void* buffer, uint32_t valid, uint32_t invalid);

    static void turn_begins(const void* sender, const void* frame);

    static void frame_put(const void* frame, const void* packet, int len, int mark, int level);
    static void frame_grew(const void* frame, int64_t length, uint32_t packets);

    static std::atomic<int32_t> sm_print;
};

}  // namespace Orvex::Reticor
