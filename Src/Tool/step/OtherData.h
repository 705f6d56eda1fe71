// OtherData: bytes of the application that go out between two frames.
#pragma once

#include <cstdint>
#include <memory>

#include <Infra/Atomic.h>
#include <Infra/Mutex.h>

#include "Socket/socket/SocketWriter.h"

namespace Orvex::Reticor {

/// Thread safety: any thread. The mutex is the owner's, and entered here; it is held over a write.
class OtherData {
public:
    static constexpr int32_t SIZE = 4096;

    /// What came of a write: its result, and the bytes that still wait.
    struct Sent {
        int written;
        int left;
    };

    /// `length`, the number of bytes that wait, lies where its owner looks at it most often.
    OtherData(Infra::CMutex& mutex, int32_t& length) : m_mutex(mutex), m_length(length) {}

    /// Without the lock; bytes that arrive just now are seen the next time.
    bool waits() const { return Infra::relaxedLoad(m_length) >= 1; }

    /// Keeps the bytes, all of them or none. False if there is no memory.
    bool add(const char* data, int len);

    /// Writes as much as the socket takes.
    Sent send(const SocketWriter& writer);

private:
    Infra::CMutex& m_mutex;
    int32_t& m_length;
    std::unique_ptr<char[]> m_bytes INFRA_GUARDED_BY(m_mutex);  ///< SIZE of them, from the first use on.
};

}  // namespace Orvex::Reticor
