// MailboxBody: calls that were posted to a pool of the kit.
#include "Kit/MailboxBody.h"

#include <new>
#include <utility>

#include "Kit/call/UserCall.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

using Infra::CGuard;

void MailboxBody::Line::append(Letter* letter) {
    letter->next = nullptr;
    (head == nullptr ? head : tail->next) = letter;
    tail = letter;
}

MailboxBody::Letter* MailboxBody::Line::take() {
    Letter* const first = head;
    if (first != nullptr) {
        head = first->next;
    }
    return first;
}

bool MailboxBody::Line::remove(const Letter* letter) {
    Letter* before = nullptr;
    for (Letter* each = head; each != nullptr; before = each, each = each->next) {
        if (each == letter) {
            (before == nullptr ? head : before->next) = each->next;
            tail = each == tail ? before : tail;
            return true;
        }
    }
    return false;
}

MailboxBody::~MailboxBody() {
    while (Letter* const letter = m_spare) {
        m_spare = letter->next;
        delete letter;
    }
}

bool MailboxBody::post(Way way, UniqueFunction<void()>& call) {
    Letter* letter = nullptr;
    {
        CGuard guard(m_mutex);
        if (m_sealed) {
            return false;
        }
        letter = m_spare;
        if (letter != nullptr) {
            m_spare = letter->next;
            --m_spare_count;
        } else {
            letter = new (std::nothrow) Letter;
        }
        if (letter == nullptr) {
            return false;
        }
        letter->call = std::move(call);
        m_lines[way].append(letter);
    }
    return ring(way) || !take_back(way, letter, call);
}

// False without memory.
bool MailboxBody::ring(Way way) {
    return way == SERIAL ? CMessage::NotifySerial(GetID(), GetID(), way, 0, 0)
                         : CMessage::Notify(GetID(), GetID(), way, 0, way == IO);
}

// There is no memory for the doorbell of the letter. False if somebody else's has taken it; that one's letter
// is then left without.
bool MailboxBody::take_back(Way way, Letter* letter, UniqueFunction<void()>& call) {
    {
        CGuard guard(m_mutex);
        if (m_lines[way].remove(letter)) {
            call = std::move(letter->call);
            keep_spare(letter);
            return true;
        }
    }
    tell_self(AGAIN + way);
    return false;
}

void MailboxBody::keep_spare(Letter* letter) {
    if (m_spare_count == MOST_SPARE) {
        delete letter;
        return;
    }
    letter->next = m_spare;
    m_spare = letter;
    ++m_spare_count;
}

int MailboxBody::handle_message(long, unsigned int msg, long) {
    if (msg < WAYS) {
        run_one(static_cast<Way>(msg));
    } else if (msg >= AGAIN && !ring(static_cast<Way>(msg - AGAIN))) {
        tell_self(msg);
    }
    end_if_done();
    return 0;
}

void MailboxBody::run_one(Way way) {
    Letter* letter = nullptr;
    {
        CGuard guard(m_mutex);
        letter = m_cut ? nullptr : m_lines[way].take();
        m_running += letter != nullptr ? 1 : 0;
    }
    if (letter == nullptr) {
        return;
    }
    const auto put_back = [this, letter] {
        letter->call = nullptr;
        CGuard guard(m_mutex);
        --m_running;
        keep_spare(letter);
    };
    UserCall::run(this, kind(), letter->call, put_back);
    put_back();
}

bool MailboxBody::is_done() const {
    bool empty = true;
    for (const Line& line : m_lines) {
        empty = empty && line.head == nullptr;
    }
    return m_sealed && m_running == 0 && (empty || m_cut);
}

void MailboxBody::end_if_done() {
    Line rest;
    {
        CGuard guard(m_mutex);
        if (m_over || !is_done()) {
            return;
        }
        m_over = true;
        for (Line& line : m_lines) {
            while (Letter* const letter = line.take()) {
                rest.append(letter);
            }
        }
    }
    while (Letter* const letter = rest.take()) {
        delete letter;
    }
    leave();
    Close();
}

// The end comes about on a worker, also if nothing is left to do.
void MailboxBody::drain() {
    CGuard guard(m_mutex);
    m_sealed = true;
    tell_self(END);
}

bool MailboxBody::cut() {
    CGuard guard(m_mutex);
    m_sealed = true;
    m_cut = true;
    tell_self(END);
    return false;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
