// PassTurn: who may make a pass over a file, and what is left to a pass that runs.
#pragma once

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

namespace Orvex::Reticor {

/// A file has one pass at a time. Whatever is asked for while one runs is noted here, and the pass looks
/// again before it ends; what it could not serve is the business of a task that is posted then.
///
/// Thread safety: every operation on any thread; those that say "the pass" only by the pass that runs.
class PassTurn {
public:
    /// What a round of a pass is asked for besides writing.
    struct Wanted {
        bool load = false;
        bool flush = false;  ///< Somebody waits for message 6.
    };
    enum class Begin { refused, uncounted, counted };
    enum class Next { over, round, task };

    PassTurn() = default;
    PassTurn(const PassTurn&) = delete;
    PassTurn& operator=(const PassTurn&) = delete;

    // ---- the caller's side

    /// A block was submitted. True if a write task is to be posted for it, false if a running pass does it:
    /// waking a worker for a task that it would refuse is the dearest part of a call.
    bool want_write();

    /// Everything that was submitted is to be written, however often it is tried, and message 6 to be paid.
    /// True if a write task with argument 1 is to be posted; false if there is one, or a running pass does
    /// it.
    bool want_flush();
    /// There was no memory for the task that `want_flush` asked for. The next pass does it.
    void flush_not_posted();

    /// Something is to be read ahead. True if a read task is to be posted for it, false if a running pass
    /// does it.
    bool want_load();

    /// Nothing is left to be loaded.
    void forget_load();

    // ---- the pass

    /// A write task wants to begin. Refused while another pass runs, which looks once more if the task will
    /// not come again (`arg` is not 1). Otherwise whether the task was one of those that `want_flush` counts.
    Begin begin_write(long long arg);

    /// A read task wants to begin. False while another pass runs, which loads before it ends.
    bool begin_read();

    /// What the pass is to do next. `task`: the pass is over, since it has had its rounds, and a read task is
    /// to be posted that goes on.
    Next next_round(Wanted& wanted, int round);

    /// The pass ends although it was not done: `left` is what it owes. True if somebody waits, be it that his
    /// task met this pass and is gone, for what only a task that is tried again will bring.
    bool end(const Wanted& left);

    /// The task of that pass is put back, and will come again.
    void count_again(Begin begun);

private:
    Infra::CMutex m_write_mutex{Infra::LockClass::FILE_WRITE};
    bool m_writing INFRA_GUARDED_BY(m_write_mutex) = false;       ///< A pass runs.
    bool m_again INFRA_GUARDED_BY(m_write_mutex) = false;         ///< It is to look for writes once more.
    bool m_load_wanted INFRA_GUARDED_BY(m_write_mutex) = false;   ///< It, or the next one, is to load.
    bool m_flush_wanted INFRA_GUARDED_BY(m_write_mutex) = false;  ///< It is to look again and pay message 6.
    /// Write tasks with argument 1 that are queued and have not begun: a further one would do nothing that
    /// these do not.
    int m_flush_tasks INFRA_GUARDED_BY(m_write_mutex) = 0;
};

}  // namespace Orvex::Reticor
