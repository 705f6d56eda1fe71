// BatchWriter_IF: several writes to several sockets, handed over together.
#pragma once

#include <sys/socket.h>

#include <climits>
#include <cstddef>

namespace Orvex::Reticor {

/// One write of a batch. The gather list stays its owner's until the batch is done.
struct BatchedWrite {
    static constexpr int NOT_TRIED = INT_MIN;

    int fd = -1;
    msghdr message = {};
    /// Bytes that the socket took, or the error, negative; NOT_TRIED if the write was not made.
    int result = NOT_TRIED;
};

class BatchWriter_IF {
public:
    virtual ~BatchWriter_IF() = default;

    /// Makes the writes, in their order, each as sendmsg with MSG_NOSIGNAL and MSG_DONTWAIT would. Never
    /// waits. Not for two threads at a time.
    virtual void write(BatchedWrite* writes, size_t count) = 0;
};

}  // namespace Orvex::Reticor
