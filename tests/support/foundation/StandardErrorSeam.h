// StandardErrorSeam: what the calls come to by which a thread writes to standard error without waiting. This
// program defines pwritev2 and poll itself, and passes on what no test has decided.
#pragma once

#include <sys/types.h>

#include <deque>

namespace Orvex::Testing {

// One call of pwritev2 on standard error.
struct WriteOutcome {
    ssize_t taken = 0;  // as many bytes go out; ALL for the whole
    int error = 0;      // not 0: nothing goes out

    static constexpr ssize_t ALL = -2;
};

// Of the calling thread, while it lives; calls after the last outcome go through. One at a time.
class StandardErrorSeam {
public:
    explicit StandardErrorSeam(std::deque<WriteOutcome> outcomes);
    ~StandardErrorSeam();
    StandardErrorSeam(const StandardErrorSeam&) = delete;
    StandardErrorSeam& operator=(const StandardErrorSeam&) = delete;

    void then(WriteOutcome outcome);
    // Whether a question for room, by poll, is answered with yes (the default) or no.
    void setRoom(bool room);

    // Outcomes that no call has asked for yet.
    size_t left() const;
    // Questions for room so far.
    int roomAsked() const;
};

}  // namespace Orvex::Testing
