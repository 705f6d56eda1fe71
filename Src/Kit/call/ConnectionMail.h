// ConnectionMail: calls that were posted to a connection, and those that wait for their time.
#pragma once

#include <cstdint>
#include <vector>

#include <Reticor/kit/Connection.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

/// Thread safety: the owner's lock guards it. Its calls are never destroyed here but with it, since that may
/// run code of the user's.
class ConnectionMail {
public:
    using Call = Connection::Event;

    /// A call with the timer of the pool for which it waits.
    struct Delayed {
        long timer = -1;
        uint64_t due_us = 0;
        Call call;
    };

    /// False without memory; `call` is left then.
    bool put(Call& call);
    /// What was put, in that order, into `served`, which has none.
    void take(std::vector<Call>& served) { m_letters.swap(served); }

    /// Has room for one more delayed call. False without memory.
    bool reserve_delayed();
    /// After reserve_delayed. `timer` runs.
    void put_delayed(long timer, uint64_t due_us, Call& call);

    /// What came of a timer that has run out.
    struct RanOut {
        int64_t again = -1;     ///< The time after which it is to come again, in microseconds; -1: it ends.
        bool has_mail = false;  ///< Its call was put.
    };
    /// Timers that are longer than those of the pool are made of several. One of no call here ends. Without
    /// memory it comes again soon.
    RanOut run_out(long timer, uint64_t now_us);

    /// All delayed calls; their timers may still run.
    std::vector<Delayed> take_delayed();

private:
    std::vector<Call> m_letters;
    std::vector<Delayed> m_delayed;
};

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
