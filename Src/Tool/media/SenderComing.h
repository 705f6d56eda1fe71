// SenderComing: the way of a sender to a buffer's list.
#pragma once

#include <cstdint>
#include <memory>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

#include "Tool/step/MediaStep.h"
#include "Tool/step/MoveLine.h"
#include "Tool/step/TargetStepMark.h"

namespace Orvex::Reticor {

class CMediaStreamSender;

/// What comes and moves.
class ComingSender_IF {
public:
    virtual CMediaStreamSender& sender() = 0;
    /// The buffer whose list it is on or was on last.
    virtual std::shared_ptr<MediaCore> core() = 0;
    /// It is a sender of `core` from now on. Enters the lock of the buffer before.
    virtual void move_to(const std::shared_ptr<MediaCore>& core) = 0;
    /// It has come from another buffer, and has no place in this one's stream yet.
    virtual void begin_anew() INFRA_REQUIRES(CORE_MUTEX) = 0;

protected:
    ~ComingSender_IF() = default;
};

/// The way to a buffer's list for a sender that was added, or is to move, inside a call-back.
/// It has a reference on the sender for as long as a thread has it as its guest, and another one for the
/// time in a line of movers.
class SenderComing : public StepGuest_IF, public MoveGuest_IF {
public:
    explicit SenderComing(ComingSender_IF& sender) : m_sender(sender) {}

    /// The sender comes to the list of `core` when the thread is out of all call-backs. False if that was
    /// noted already.
    bool note(const std::shared_ptr<MediaCore>& core);
    /// The sender moves from the list of `from` to that of `to` when the thread is out of all call-backs,
    /// or at the next key frame there. `left`: it will be off its list by then. One that is on its way to
    /// `from` goes to `to` instead.
    void note_move(const std::shared_ptr<MediaCore>& from, const std::shared_ptr<MediaCore>& to, bool left,
                   bool at_key);
    /// Takes back that it comes to `core`, or that it moves from there; true if that was noted. Inside a
    /// step.
    bool take_back(const MediaCore& core);
    /// How often it was noted that it comes.
    uint64_t notes() const;
    /// Whether it has come by a note that is newer than those.
    bool has_come_after(uint64_t notes) const;
    void come() override;
    void called(const MediaCore& core, bool gone) override;

private:
    /// What is noted.
    struct Note {
        std::shared_ptr<MediaCore> target;  ///< Null: it comes to none.
        std::shared_ptr<MediaCore> from;    ///< Of a move; null without.
        bool left = false;                  ///< It is off the list of `from`, or will be.
        bool at_key = false;                ///< It waits in the target's line.
    };

    void wait_as_guest() INFRA_REQUIRES(m_mutex);
    void take_line_reference() INFRA_REQUIRES(m_mutex);
    void enter_line() INFRA_REQUIRES(m_mutex);
    void leave_line() INFRA_REQUIRES(m_mutex);
    /// Gives the note to be dropped outside the lock.
    bool take_note(const MediaCore& core, Note& before) INFRA_REQUIRES(m_mutex);
    bool leave(const Note& note);
    void arrive(const Note& note);
    bool arrive_at(const MediaCore& core);

    ComingSender_IF& m_sender;
    mutable Infra::CMutex m_mutex{Infra::LockClass::MEDIA_COMING};  ///< Comes after the core's.
    Note m_note INFRA_GUARDED_BY(m_mutex);
    bool m_waits INFRA_GUARDED_BY(m_mutex) = false;  ///< A thread has it as its guest.
    /// Until whoever has taken it out calls it.
    bool m_in_line INFRA_GUARDED_BY(m_mutex) = false;
    uint64_t m_notes INFRA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_arrived INFRA_GUARDED_BY(m_mutex) = 0;  ///< The notes there were when it came last.
};

}  // namespace Orvex::Reticor
