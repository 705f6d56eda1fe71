// LaneInbox: the frames that wait for a lane.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

#include "Tool/lane/LanePacket.h"

namespace Orvex::Reticor {

/// Whole frames in their order, and the ticks between them. The producer puts, and the lane takes; neither
/// waits for the other longer than a few loads and stores.
///
/// It has bounds. Beyond them the oldest one of the least important frames is lost, be it the one that comes:
/// whole, so that no client sees a part of it. In its place stays what the lane has to know of it: to clients
/// it is a frame that was gone when its turn came. If the lane stands still for so long that there is no
/// place for that either, the oldest ones are lost, important or not, and only sums are left of them.
///
/// Thread safety: any thread. Runs no code of the product's: whoever calls lets frames go that it gives back.
class LaneInbox {
public:
    static constexpr uint32_t MOST_FRAMES = 1024;
    static constexpr uint64_t MOST_BYTES = 64 * 1024 * 1024;
    static constexpr size_t CHANNELS = 8;
    /// More ticks at one place do not make anything older: a frame has gone by then.
    static constexpr uint32_t MOST_TICKS = 128;

    /// Lost frames of one channel of which no more is known.
    struct Sum {
        uint64_t frames = 0;
        uint64_t bytes = 0;
        int level = 0;  ///< Of the most important one.
    };
    struct Entry {
        LanePacket* frame = nullptr;  ///< Null: it was lost.
        int level_word = 0;
        uint64_t bytes = 0;
        uint32_t ticks = 0;  ///< After it.
    };
    /// What the lane takes: what there was before the oldest entry, and that one.
    struct Taken {
        bool any_sums = false;
        std::array<Sum, CHANNELS> sums{};  ///< Lost, by channel; only if there are any.
        uint32_t ticks = 0;
        bool has_entry = false;
        Entry entry;
    };
    struct Stats {
        uint32_t frames = 0;  ///< That wait.
        uint64_t bytes = 0;
        uint64_t lost_frames = 0;  ///< So far.
        uint64_t lost_bytes = 0;
    };

    LaneInbox() = default;
    LaneInbox(const LaneInbox&) = delete;
    LaneInbox& operator=(const LaneInbox&) = delete;

    /// Takes the memory that it needs for good. False if there is none.
    bool open();
    /// Frames, up to MOST_FRAMES, and bytes; both at least 1. One frame is taken however long it is.
    void set_bounds(uint32_t frames, uint64_t bytes);

    /// Puts a frame. Null when it is in; otherwise a frame that was lost for it, which the caller lets go
    /// before it comes again. If that is the same one, it is not to come again.
    LanePacket* put(LanePacket& frame);
    /// A frame that was lost on its way.
    void put_lost(int level_word, uint64_t bytes);
    void put_tick();
    /// Whether the lane is to be called: it is not on its way, and there is something to take. It is on its
    /// way from now on.
    bool ring();
    /// It could not be called.
    void ring_failed();

    /// Takes the oldest entry and what there was before it. False if there is nothing, and the lane is not on
    /// its way any more.
    bool take(Taken& taken);
    /// Takes a frame out, to be let go; null if there is none. Nothing is known of those that were lost then.
    LanePacket* empty();

    Stats stats() const;
    /// The same without waiting for anybody: each figure is true, but they may be of different moments.
    Stats glance() const;

private:
    static constexpr uint32_t PLACES = 4 * MOST_FRAMES;
    static constexpr int LEVELS = 11;
    static constexpr uint32_t NONE = ~uint32_t{0};

    struct Place {
        Entry entry;
        uint32_t next = NONE;  ///< The next frame of the level.
    };
    /// The frames of one level, which are not lost.
    struct Line {
        uint32_t first = NONE;
        uint32_t last = NONE;
    };

    static int line_of(int level_word);
    uint32_t place(uint32_t number) const INFRA_REQUIRES(m_mutex) { return (m_first + number) % PLACES; }
    void append(const Entry& entry) INFRA_REQUIRES(m_mutex);
    LanePacket* lose_first(Line& line) INFRA_REQUIRES(m_mutex);
    void leave_line(Line& line) INFRA_REQUIRES(m_mutex);
    void lose(int level_word, uint64_t bytes) INFRA_REQUIRES(m_mutex);
    LanePacket* fold_first() INFRA_REQUIRES(m_mutex);
    void drop_first() INFRA_REQUIRES(m_mutex);
    void add_to_sums(int level_word, uint64_t bytes) INFRA_REQUIRES(m_mutex);
    void count_lost(uint64_t bytes) INFRA_REQUIRES(m_mutex);

    mutable Infra::CMutex m_mutex{Infra::LockClass::MEDIA_INBOX};
    std::unique_ptr<Place[]> m_places INFRA_GUARDED_BY(m_mutex);  ///< A ring.
    uint32_t m_first INFRA_GUARDED_BY(m_mutex) = 0;
    uint32_t m_count INFRA_GUARDED_BY(m_mutex) = 0;  ///< Of entries, the lost ones included.
    std::array<Line, LEVELS> m_lines INFRA_GUARDED_BY(m_mutex);
    bool m_any_sums INFRA_GUARDED_BY(m_mutex) = false;
    std::array<Sum, CHANNELS> m_sums INFRA_GUARDED_BY(m_mutex){};
    uint32_t m_ticks INFRA_GUARDED_BY(m_mutex) = 0;  ///< Before the first entry.
    // Written with the lock held, and read without it for a glance.
    uint32_t m_frames INFRA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_bytes INFRA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_lost_frames INFRA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_lost_bytes INFRA_GUARDED_BY(m_mutex) = 0;
    uint32_t m_most_frames INFRA_GUARDED_BY(m_mutex) = MOST_FRAMES;
    uint64_t m_most_bytes INFRA_GUARDED_BY(m_mutex) = MOST_BYTES;
    bool m_rung INFRA_GUARDED_BY(m_mutex) = false;
};

}  // namespace Orvex::Reticor
