// A stream behind a link of limited bandwidth.
#include <Reticor/SimulatorStream.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <new>

#include <Infra/Log.h>
#include <Infra/Time.h>
#include <Reticor/SockStream.h>

namespace Orvex::Reticor {

namespace {

constexpr uint64_t WINDOW_MS = 1000;

}  // namespace

struct CSimulatorStream::Record {
    unsigned m_bytes_per_window = 0;
    uint64_t m_sent = 0;  // in the present window
    uint64_t m_window_start_ms = Infra::CTime::getCurrentMilliSecond();
    CSockStream* m_real = nullptr;  // not owned
};

CSimulatorStream::CSimulatorStream() : CSock(-1, SOCK_TYPE_SIMULATOR), m_record(new (std::nothrow) Record()) {
    if (!m_record) {
        INFRA_LOG(2, "no memory for a socket!\n");
    }
}

CSimulatorStream::~CSimulatorStream() {
    m_handle = -1;  // It is the real socket's, which closes it.
}

void CSimulatorStream::SetRealSocket(CSockStream* real) {
    if (!m_record) {
        return;
    }
    m_record->m_real = real;
    m_handle = real != nullptr ? real->GetHandle() : -1;
}

int CSimulatorStream::SetBandWidth(unsigned mbit) {
    if (m_record) {
        m_record->m_bytes_per_window = mbit * 1024 * 1024 / 8;
    }
    return 0;
}

int CSimulatorStream::Send(const char* data, unsigned len) {
    if (!m_record) {
        return 0;
    }
    Record& record = *m_record;
    const uint64_t now_ms = Infra::CTime::getCurrentMilliSecond();
    if (now_ms - record.m_window_start_ms > WINDOW_MS) {
        record.m_window_start_ms = now_ms;
        record.m_sent = 0;
    }
    if (record.m_sent >= record.m_bytes_per_window) {
        return 0;
    }
    const uint64_t left = record.m_bytes_per_window - record.m_sent;
    if (len > left) {
        len = static_cast<unsigned>(left);
    }
    // A window is below half of what an int holds, so the length fits.
    const int sent = record.m_real != nullptr ? record.m_real->Send(data, len) : static_cast<int>(len);
    if (sent >= 1) {
        record.m_sent += static_cast<uint64_t>(sent);
    }
    return sent;
}

int CSimulatorStream::WriteV(const struct iovec* vec, int count) {
    if (vec == nullptr) {
        return -1;
    }
    int total = 0;
    for (int i = 0; i < count; ++i) {
        const struct iovec& piece = vec[i];
        if (piece.iov_base == nullptr && piece.iov_len == 0) {
            continue;  // Nothing to send is not an error, but a null address would be one to Send.
        }
        const auto length = static_cast<unsigned>(std::min<size_t>(piece.iov_len, UINT_MAX));
        const int sent = Send(static_cast<const char*>(piece.iov_base), length);
        // An error hides the bytes that went before it: a connection that failed has lost them anyway.
        total = sent < 0 ? sent : total + sent;
        if (sent < 0 || static_cast<size_t>(sent) < piece.iov_len) {
            break;
        }
    }
    return total;
}

}  // namespace Orvex::Reticor
