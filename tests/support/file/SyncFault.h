// SyncFault: stands before fdatasync, and counts its calls or lets them fail.
#pragma once

namespace Orvex::Testing {

// While it lives, fdatasync fails with `error`, or does its work if that is 0. One at a time.
class SyncFault {
public:
    explicit SyncFault(int error = 0);
    ~SyncFault();
    SyncFault(const SyncFault&) = delete;
    SyncFault& operator=(const SyncFault&) = delete;

    // Calls on any thread since it was made.
    int calls() const;
};

}  // namespace Orvex::Testing
