// Secure streams of a configuration without TLS: each operation says so.
#include <Reticor/SslStream.h>

#include <Infra/Log.h>

namespace Orvex::Reticor {

// A macro, since each line names the place that logs it.
#define LOG_NO_TLS() INFRA_LOG(3, "The Reticor version is not support ssl!\n")

CSslStream::CSslStream() : CSock(-1, SOCK_TYPE_SSL_STREAM) {
    LOG_NO_TLS();
}

CSslStream::~CSslStream() = default;

int CSslStream::Connect(const CSockAddr&, CSockAddr*) {
    LOG_NO_TLS();
    return -1;
}

int CSslStream::Connect(CSockStream*) {
    LOG_NO_TLS();
    return -1;
}

int CSslStream::Send(const char*, unsigned) {
    LOG_NO_TLS();
    return -1;
}

int CSslStream::Recv(char*, unsigned) {
    LOG_NO_TLS();
    return -1;
}

int CSslStream::WriteV(const struct iovec*, int) {
    LOG_NO_TLS();
    return -1;
}

int CSslStream::Send_n(const char*, unsigned, int) {
    LOG_NO_TLS();
    return -1;
}

int CSslStream::Recv_n(char*, unsigned, int) {
    LOG_NO_TLS();
    return -1;
}

int CSslStream::SetPemPath(const char*) {
    LOG_NO_TLS();
    return -1;
}

}  // namespace Orvex::Reticor
