// MediaCore, MediaStep: the lock of a media buffer, and the frame of an operation under it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Infra/Time.h>

#include "Tool/frame/ChannelBook.h"
#include "Tool/frame/LevelRing.h"
#include "Tool/step/MoveLine.h"
#include "Tool/step/RoomMarks.h"

namespace Orvex::Reticor {

class CMediaStreamSender;
class CNetHandler;

/// What annotations call the mutex of the core at hand. Parts of a buffer and its senders know the one core
/// by different names, and the analysis cannot tell that they are the same; this name stands for all of them,
/// and only MediaStep and CoreGuard, which enter the mutex, give it.
struct INFRA_CAPABILITY("mutex") CoreMutex {};
inline constexpr CoreMutex CORE_MUTEX{};

/// The buffer, as far as the end of an operation needs it.
class StepEnd_IF {
public:
    /// Takes the senders off that call-backs have taken off.
    virtual void drop_leaving() INFRA_REQUIRES(CORE_MUTEX) = 0;
    /// Puts a sender on the list that a call-back has added. The sender's core is this one.
    virtual void come(CMediaStreamSender& sender) INFRA_REQUIRES(CORE_MUTEX) = 0;
    /// Takes a sender off that moves to another buffer. False if it is not on the list.
    virtual bool go(CMediaStreamSender& sender) INFRA_REQUIRES(CORE_MUTEX) = 0;
    /// Lets a sender go on whose socket has room, if it is on the list.
    virtual void go_on(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX) = 0;
    /// A sender of the list does not want to wait for room any more.
    virtual void stop_waiting(SenderRecord& record) INFRA_REQUIRES(CORE_MUTEX) = 0;

    /// A sender that somebody looks at leaves the list.
    virtual void look_last(SenderRecord& /*record*/) INFRA_REQUIRES(CORE_MUTEX) {}

protected:
    ~StepEnd_IF() = default;
};

/// A sender's reference of a list, and the link by which it waits to be dropped. Each sender on a list brings
/// one along, so that it can be taken off without memory.
struct GoneSender {
    CNetHandler* sender;
    GoneSender* next = nullptr;
};

/// The part of a buffer's state that its senders share, so that a sender can look after its own cursor when
/// the buffer has gone. All fields are guarded by m_mutex, and so is what the senders' cursors touch. Nobody
/// but its own operations writes them.
struct MediaCore : std::enable_shared_from_this<MediaCore> {
    /// Before it comes the list's lock of the shared timer, after it the senders' m_other_mutex.
    Infra::CMutex m_mutex{Infra::LockClass::MEDIA_CORE};
    /// An operation that runs call-backs is in progress, on the thread that holds the mutex.
    bool m_stepping INFRA_GUARDED_BY(CORE_MUTEX) = false;
    /// Call-backs have taken senders off.
    bool m_some_leave INFRA_GUARDED_BY(CORE_MUTEX) = false;
    /// The buffer; null when it has gone.
    StepEnd_IF* m_end INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    /// Senders that were taken off the list; their references are still to be dropped.
    GoneSender* m_gone INFRA_GUARDED_BY(CORE_MUTEX) = nullptr;
    GoneSender** m_gone_end INFRA_GUARDED_BY(CORE_MUTEX) = &m_gone;  ///< Where the next one is linked.
    /// The stream position of the end of the newest frame. FrameLine has it moved.
    uint64_t m_byte_total INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    /// What senders that keep frames need to know of the channels. FrameLine writes it, while there are such.
    ChannelBook m_channels INFRA_GUARDED_BY(CORE_MUTEX);
    /// Whoever has frames kept: senders on the list, and the start cache.
    uint32_t m_keepers INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    /// Frames that were ever kept, their bytes, and what those were when the stream began anew last.
    uint64_t m_kept_number INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    uint64_t m_kept_total INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    uint64_t m_kept_at_begin INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    /// Senders that move to this buffer at its next key frame.
    MoveLine m_moves;
    /// The buffer has a start cache, to which such senders come. No lock.
    std::atomic<bool> m_has_starts{false};
    /// This step's reading of the clock; 0: not read yet.
    uint64_t m_now_us INFRA_GUARDED_BY(CORE_MUTEX) = 0;
    /// Senders that have room and were not served yet: whoever leaves the mutex looks here. No lock.
    RoomMarks m_marks;
    RoomMark* m_served INFRA_GUARDED_BY(CORE_MUTEX) =
        nullptr;  ///< In this step; their references still stand.
    /// A sender that waits for room stands at no frame any more, or waits no more.
    bool m_some_idle INFRA_GUARDED_BY(CORE_MUTEX) = false;
    /// What gaps are made of. FrameLine writes it.
    LevelRing m_levels INFRA_GUARDED_BY(CORE_MUTEX);

    /// The buffer is there, and senders come to it.
    void open(StepEnd_IF& end) INFRA_REQUIRES(CORE_MUTEX) { m_end = &end; }
    /// It goes. The core stays for as long as a sender knows it.
    void close() INFRA_REQUIRES(CORE_MUTEX) { m_end = nullptr; }

    /// An operation that runs call-backs begins. False if one is in progress, of which it is a part then.
    bool begin_step() INFRA_REQUIRES(CORE_MUTEX) {
        if (m_stepping) {
            return false;
        }
        m_stepping = true;
        m_now_us = 0;
        return true;
    }
    /// The outermost operation ends: takes off what call-backs have taken off. Gives the senders that have
    /// gone; their references are to be dropped when the mutex was left.
    GoneSender* end_step() INFRA_REQUIRES(CORE_MUTEX) {
        serve_marks();
        // Taking one off can run call-backs that take off others.
        while (std::exchange(m_some_leave, false) && m_end != nullptr) {
            m_end->drop_leaving();
        }
        m_stepping = false;
        m_gone_end = &m_gone;
        return std::exchange(m_gone, nullptr);
    }
    /// Serves the senders that have room; their marks are kept for after the mutex.
    void serve_marks() INFRA_REQUIRES(CORE_MUTEX) {
        for (RoomMark* mark = m_marks.take(); mark != nullptr;) {
            RoomMark* const next = mark->m_next;
            mark->m_seen = mark->m_times.load(std::memory_order_acquire);
            if (m_end != nullptr) {
                m_end->go_on(mark->m_record);
            }
            mark->m_next = std::exchange(m_served, mark);
            mark = next;
        }
    }
    void note_idle() INFRA_REQUIRES(CORE_MUTEX) { m_some_idle = true; }
    /// A call-back has taken a sender off: the end of the operation looks for it.
    void note_leaving() INFRA_REQUIRES(CORE_MUTEX) { m_some_leave = true; }
    /// Takes over the list's reference on a sender that is off it. Inside a step.
    void let_go(GoneSender* gone) INFRA_REQUIRES(CORE_MUTEX) {
        *m_gone_end = gone;
        m_gone_end = &gone->next;
    }

    void add_keeper() INFRA_REQUIRES(CORE_MUTEX) { ++m_keepers; }
    void drop_keeper() INFRA_REQUIRES(CORE_MUTEX) { --m_keepers; }

    void add_bytes(int64_t bytes) INFRA_REQUIRES(CORE_MUTEX) { m_byte_total += static_cast<uint64_t>(bytes); }
    /// The stream begins anew, with these bytes.
    void begin_stream(int64_t bytes) INFRA_REQUIRES(CORE_MUTEX) {
        m_byte_total = static_cast<uint64_t>(bytes);
        m_kept_at_begin = m_kept_total;
    }
    /// Another frame is kept.
    void add_kept(int64_t bytes) INFRA_REQUIRES(CORE_MUTEX) {
        ++m_kept_number;
        m_kept_total += static_cast<uint64_t>(bytes);
    }

    uint64_t now() INFRA_REQUIRES(CORE_MUTEX) {
        if (m_now_us == 0) {
            m_now_us = Infra::CTime::getCurrentMicroSecond();
        }
        return m_now_us;
    }

    /// The calling thread is inside a call-back of an operation on this core.
    bool steps_on_this_thread() const INFRA_NO_THREAD_SAFETY_ANALYSIS {  // the holder alone reads m_stepping
        return m_mutex.heldByThisThread() && m_stepping;
    }
};

/// Holds a core's mutex for a scope in which no call-back runs.
class INFRA_SCOPED_CAPABILITY CoreGuard {
public:
    explicit CoreGuard(MediaCore& core) INFRA_ACQUIRE(CORE_MUTEX) INFRA_NO_THREAD_SAFETY_ANALYSIS
        : m_core(core) {
        m_core.m_mutex.enter();
    }
    ~CoreGuard() INFRA_RELEASE();
    CoreGuard(const CoreGuard&) = delete;
    CoreGuard& operator=(const CoreGuard&) = delete;

private:
    MediaCore& m_core;
};

/// One operation under a core's mutex that may run call-backs. The outermost one on a core takes off, on its
/// way out, what the call-backs have taken off; references are let go when the mutex is left. The outermost
/// one of the thread then lets the senders come that call-backs have added: that needs the mutex of the
/// buffer on which a sender was before, and a thread that holds one such mutex must not wait for another.
class INFRA_SCOPED_CAPABILITY MediaStep {
public:
    explicit MediaStep(std::shared_ptr<MediaCore> core) INFRA_ACQUIRE(CORE_MUTEX);
    /// The mutex was entered already, and is left here.
    enum Entered { ENTERED };
    MediaStep(std::shared_ptr<MediaCore> core, Entered) INFRA_ACQUIRE(CORE_MUTEX);
    ~MediaStep() INFRA_RELEASE();
    MediaStep(const MediaStep&) = delete;
    MediaStep& operator=(const MediaStep&) = delete;

    /// Inside a call-back of an operation on the same buffer.
    bool nested() const { return !m_outermost; }

    /// With the mutex left: serves the senders that have room, unless another thread has it, which will.
    static void serve_marks(MediaCore& core);

private:
    static bool begin(MediaCore& core);
    static void end(MediaCore& core, bool outermost);

    const std::shared_ptr<MediaCore> m_core;
    const bool m_outermost;
};

}  // namespace Orvex::Reticor
