// SenderComing: comes and moves where no other buffer is locked.
#include "Tool/media/SenderComing.h"

#include <Reticor/MediaStreamSender.h>

#include <utility>

namespace Orvex::Reticor {

bool SenderComing::note(const std::shared_ptr<MediaCore>& core) {
    Note before;  // Outlives the lock.
    Infra::CGuard guard(m_mutex);
    if (m_note.target == core) {
        return false;
    }
    leave_line();
    before = std::exchange(m_note, Note{core, nullptr, false, false});
    ++m_notes;
    wait_as_guest();
    return true;
}

void SenderComing::note_move(const std::shared_ptr<MediaCore>& from, const std::shared_ptr<MediaCore>& to,
                             bool left, bool at_key) {
    Note before;
    Infra::CGuard guard(m_mutex);
    leave_line();
    before = m_note;
    if (before.target == from && before.from == to && !before.left) {
        m_note = Note();  // There and back, and not yet gone.
        return;
    }
    if (before.target == from) {
        m_note = {to, before.from != nullptr ? before.from : from, before.from == nullptr || before.left,
                  at_key};
    } else {
        m_note = {to, from, left, at_key};
    }
    if (!at_key) {
        wait_as_guest();
        return;
    }
    enter_line();
}

// One that was taken out of another line a moment ago, and is about to be called, comes to this one then.
void SenderComing::enter_line() {
    if (!std::exchange(m_in_line, true)) {
        m_sender.sender().AddRef();
        m_note.target->m_moves.add(*this);
    }
}

void SenderComing::wait_as_guest() {
    if (!std::exchange(m_waits, true)) {
        m_sender.sender().AddRef();
        TargetStepMark::await(*this);
    }
}

// Inside the step of a buffer, where the last reference must not be dropped: as a guest it has another one,
// and the guest's cannot be dropped before the mutex is left.
void SenderComing::take_line_reference() {
    m_in_line = false;
    wait_as_guest();
    m_sender.sender().DecRef();
}

// It can be out of it already, and is called then.
void SenderComing::leave_line() {
    if (m_in_line && m_note.target != nullptr && m_note.target->m_moves.remove(*this)) {
        take_line_reference();
    }
}

bool SenderComing::take_back(const MediaCore& core) {
    Note before;  // Outlives the lock.
    Infra::CGuard guard(m_mutex);
    return take_note(core, before);
}

bool SenderComing::take_note(const MediaCore& core, Note& before) {
    if (m_note.target.get() != &core && m_note.from.get() != &core) {
        return false;
    }
    leave_line();
    before = std::exchange(m_note, Note());
    return true;
}

uint64_t SenderComing::notes() const {
    Infra::CGuard guard(m_mutex);
    return m_notes;
}

bool SenderComing::has_come_after(uint64_t notes) const {
    Infra::CGuard guard(m_mutex);
    return m_arrived > notes;
}

bool SenderComing::arrive_at(const MediaCore& core) {
    Note before;  // Outlives the lock.
    Infra::CGuard guard(m_mutex);
    if (!take_note(core, before)) {
        return false;
    }
    m_arrived = m_notes;
    return true;
}

void SenderComing::called(const MediaCore& core, bool gone) {
    Note before;  // Outlives the lock.
    Infra::CGuard guard(m_mutex);
    if (m_note.target.get() == &core) {
        m_note.at_key = false;
        if (gone) {
            before = std::exchange(m_note, Note());
        }
    }
    take_line_reference();
}

// The note stands until the sender is on the list, so that whoever takes it off meanwhile finds it in one
// place.
void SenderComing::come() {
    for (;;) {
        Note note;
        {
            Infra::CGuard guard(m_mutex);
            note = m_note;
            if (!note.target || note.at_key) {
                m_waits = false;
                if (note.at_key) {
                    enter_line();
                }
                break;
            }
        }
        if (note.from == nullptr || note.left || leave(note)) {
            arrive(note);
        }
    }
    m_sender.sender().DecRef();
}

// Off the list from which it moves; under no other lock than that one's. False if it is not on it, and then
// there is nothing to move.
bool SenderComing::leave(const Note& note) {
    const MediaStep step(note.from);
    bool moves = false;
    {
        Infra::CGuard guard(m_mutex);
        moves = m_note.target == note.target && m_note.from == note.from && !m_note.left;
        m_note.left = moves || m_note.left;
    }
    if (moves && (note.from->m_end == nullptr || !note.from->m_end->go(m_sender.sender()))) {
        take_back(*note.target);
        return false;
    }
    return moves;
}

void SenderComing::arrive(const Note& note) {
    m_sender.move_to(note.target);
    const CoreGuard guard(*note.target);
    if (m_sender.core() == note.target && arrive_at(*note.target) && note.target->m_end != nullptr) {
        if (note.from != nullptr) {
            m_sender.begin_anew();
        }
        note.target->m_end->come(m_sender.sender());
    }
}

}  // namespace Orvex::Reticor
