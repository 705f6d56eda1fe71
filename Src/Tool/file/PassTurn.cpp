// PassTurn: who may make a pass over a file, and what is left to a pass that runs.
#include "Tool/file/PassTurn.h"

namespace Orvex::Reticor {

namespace {

/// A pass that is asked to go on and on gives the others of the queue a turn after that many rounds.
constexpr int MOST_ROUNDS = 16;

}  // namespace

bool PassTurn::want_write() {
    Infra::CGuard guard(m_write_mutex);
    m_again = m_again || m_writing;
    return !m_writing;
}

bool PassTurn::want_flush() {
    Infra::CGuard guard(m_write_mutex);
    if (m_flush_tasks > 0) {
        return false;
    }
    if (m_writing) {
        m_flush_wanted = true;
        return false;
    }
    ++m_flush_tasks;
    return true;
}

void PassTurn::flush_not_posted() {
    Infra::CGuard guard(m_write_mutex);
    --m_flush_tasks;
    m_flush_wanted = true;
}

bool PassTurn::want_load() {
    Infra::CGuard guard(m_write_mutex);
    m_load_wanted = m_load_wanted || m_writing;
    return !m_writing;
}

void PassTurn::forget_load() {
    Infra::CGuard guard(m_write_mutex);
    m_load_wanted = false;
}

PassTurn::Begin PassTurn::begin_write(long long arg) {
    Infra::CGuard guard(m_write_mutex);
    if (m_writing) {
        m_again = m_again || arg != 1;
        return Begin::refused;
    }
    m_writing = true;
    m_again = false;
    if (arg != 1 || m_flush_tasks == 0) {
        return Begin::uncounted;
    }
    --m_flush_tasks;
    return Begin::counted;
}

bool PassTurn::begin_read() {
    Infra::CGuard guard(m_write_mutex);
    m_load_wanted = true;
    if (m_writing) {
        return false;
    }
    m_writing = true;
    m_again = false;
    return true;
}

PassTurn::Next PassTurn::next_round(Wanted& wanted, int round) {
    Infra::CGuard guard(m_write_mutex);
    const bool more = m_again || m_load_wanted || m_flush_wanted;
    if (more && round < MOST_ROUNDS) {
        wanted = {m_load_wanted, m_flush_wanted};
        m_again = false;
        m_load_wanted = false;
        m_flush_wanted = false;
        return Next::round;
    }
    m_writing = false;
    // What is wanted stays noted for the task that goes on.
    return more ? Next::task : Next::over;
}

bool PassTurn::end(const Wanted& left) {
    Infra::CGuard guard(m_write_mutex);
    m_load_wanted = m_load_wanted || left.load;
    const bool waiting = m_load_wanted || m_flush_wanted || left.flush || m_again;
    m_flush_wanted = false;
    m_again = false;
    m_writing = false;
    return waiting;
}

void PassTurn::count_again(Begin begun) {
    Infra::CGuard guard(m_write_mutex);
    m_flush_tasks += begun == Begin::counted ? 1 : 0;
}

}  // namespace Orvex::Reticor
