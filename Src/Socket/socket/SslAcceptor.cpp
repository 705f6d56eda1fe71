// Acceptors of secure streams in a configuration without TLS: each operation says so.
#include <Reticor/SslAcceptor.h>

#include <Infra/Log.h>

namespace Orvex::Reticor {

// A macro, since each line names the place that logs it.
#define LOG_NO_TLS() INFRA_LOG(3, "The Reticor version is not support ssl!\n")

CSslAcceptor::CSslAcceptor() : CSock(-1, SOCK_TYPE_ACCEPTOR) {
    LOG_NO_TLS();
}

CSslAcceptor::~CSslAcceptor() = default;

int CSslAcceptor::Open(const CSockAddr&) {
    LOG_NO_TLS();
    return -1;
}

CSslStream* CSslAcceptor::Accept(CSockAddr*) {
    LOG_NO_TLS();
    return nullptr;
}

int CSslAcceptor::Accept(CSslStream&, CSockAddr*) {
    LOG_NO_TLS();
    return -1;
}

int CSslAcceptor::SetPemPath(const char*) {
    LOG_NO_TLS();
    return -1;
}

}  // namespace Orvex::Reticor
