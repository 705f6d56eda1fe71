// SocketWriter: the operations of each kind of socket.
#include "Socket/socket/SocketWriter.h"

#include <cassert>

#include <Reticor/SimulatorStream.h>
#include <Reticor/SockDgram.h>
#include <Reticor/SockStream.h>
#include <Reticor/SslStream.h>

namespace Orvex::Reticor {

int SocketWriter::send(const char* data, unsigned len) const {
    switch (m_type) {
        case SOCK_TYPE_STREAM:
            return static_cast<CSockStream&>(m_sock).Send(data, len);
        case SOCK_TYPE_DGRAM:
            return static_cast<CSockDgram&>(m_sock).Send(data, len, nullptr);
        case SOCK_TYPE_SSL_STREAM:
            return static_cast<CSslStream&>(m_sock).Send(data, len);
        case SOCK_TYPE_SIMULATOR:
            return static_cast<CSimulatorStream&>(m_sock).Send(data, len);
        default:
            assert(0);
            return -1;
    }
}

int SocketWriter::write_v(const iovec* vector, int count) const {
    switch (m_type) {
        case SOCK_TYPE_STREAM:
            return static_cast<CSockStream&>(m_sock).WriteV(vector, count);
        case SOCK_TYPE_DGRAM:
            return static_cast<CSockDgram&>(m_sock).WriteV(vector, count);
        case SOCK_TYPE_SSL_STREAM:
            return static_cast<CSslStream&>(m_sock).WriteV(vector, count);
        case SOCK_TYPE_SIMULATOR:
            return static_cast<CSimulatorStream&>(m_sock).WriteV(vector, count);
        default:
            assert(0);
            return -1;
    }
}

}  // namespace Orvex::Reticor
