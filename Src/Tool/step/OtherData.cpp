// OtherData: one buffer, filled at its end and emptied at its beginning.
#include "Tool/step/OtherData.h"

#include <cstring>
#include <new>

namespace Orvex::Reticor {

bool OtherData::add(const char* data, int len) {
    if (data == nullptr || len < 1) {
        return true;
    }
    Infra::CGuard guard(m_mutex);
    if (int64_t{m_length} + len > SIZE) {
        return true;
    }
    if (!m_bytes) {
        m_bytes.reset(new (std::nothrow) char[SIZE]);
    }
    if (!m_bytes) {
        return false;
    }
    std::memcpy(m_bytes.get() + m_length, data, static_cast<size_t>(len));
    Infra::relaxedStore(m_length, m_length + len);
    return true;
}

OtherData::Sent OtherData::send(const SocketWriter& writer) {
    Infra::CGuard guard(m_mutex);
    const int written = writer.send(m_bytes.get(), static_cast<unsigned>(m_length));
    if (written > 0) {
        const int left = m_length - written;
        std::memmove(m_bytes.get(), m_bytes.get() + written, static_cast<size_t>(left));
        Infra::relaxedStore(m_length, left);
    }
    return {written, m_length};
}

}  // namespace Orvex::Reticor
