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

MailboxBody::~MailboxBody() {
    while (Letter* const letter = m_spare) {
        m_spare = letter->next;
        delete letter;
    }
}

bool MailboxBody::post(Way way, UniqueFunction<void()>& call) {
    {
        CGuard guard(m_mutex);
        if (m_sealed) {
            return false;
        }
        Letter* letter = m_spare;
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
    switch (way) {
        case SERIAL:
            NotifySerial(GetID(), SERIAL, 0, 0);
            break;
        case IO:
            NotifyIO(GetID(), IO, 0);
            break;
        default:
            Notify(GetID(), PLAIN, 0);
    }
    return true;
}

int MailboxBody::handle_message(long, unsigned int msg, long) {
    if (msg < WAYS) {
        run_one(static_cast<Way>(msg));
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
        if (m_spare_count == MOST_SPARE) {
            delete letter;
            return;
        }
        letter->next = m_spare;
        m_spare = letter;
        ++m_spare_count;
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
    Notify(GetID(), END, 0);
}

bool MailboxBody::cut() {
    CGuard guard(m_mutex);
    m_sealed = true;
    m_cut = true;
    Notify(GetID(), END, 0);
    return false;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
