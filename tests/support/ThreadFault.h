// ThreadFault: while one lives, the system gives no more threads, as at its limit: pthread_create fails with
// EAGAIN.
//
//     ThreadFault fault(2);   // the next two creations succeed, all after them fail
//
// One at a time. It works for every thread of the test program, by a definition of pthread_create that comes
// before the C library's.
#pragma once

namespace Orvex::Testing {

class ThreadFault {
public:
    explicit ThreadFault(int successes_before = 0);
    ~ThreadFault();
    ThreadFault(const ThreadFault&) = delete;
    ThreadFault& operator=(const ThreadFault&) = delete;

    // Creations that were refused so far.
    int refused() const;
};

}  // namespace Orvex::Testing
