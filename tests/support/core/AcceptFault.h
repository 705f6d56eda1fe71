// AcceptFault: accept4(2) of this test program fails, and its calls are counted.
#pragma once

namespace Orvex::Testing {

/// While it lives every accept4 fails with `error`, on all threads. One at a time.
class AcceptFault {
public:
    explicit AcceptFault(int error);
    ~AcceptFault();
    AcceptFault(const AcceptFault&) = delete;
    AcceptFault& operator=(const AcceptFault&) = delete;

    /// Calls that have failed.
    int calls() const;
};

}  // namespace Orvex::Testing
