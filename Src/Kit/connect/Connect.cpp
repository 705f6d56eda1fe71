// connect: the face of Connector.
#include <Reticor/kit/Connect.h>

#include <new>
#include <string>
#include <utility>

#include "Kit/PoolState.h"
#include "Kit/connect/Connector.h"

namespace Orvex::Reticor::Kit {
inline namespace v1 {

const char* toText(ConnectResult result) noexcept {
    switch (result) {
        case ConnectResult::CONNECTED:
            return "CONNECTED";
        case ConnectResult::NOT_FOUND:
            return "NOT_FOUND";
        case ConnectResult::REFUSED:
            return "REFUSED";
        case ConnectResult::TIMED_OUT:
            return "TIMED_OUT";
        case ConnectResult::CANCELLED:
            return "CANCELLED";
    }
    return "?";
}

bool connect(Pool& pool, std::string_view host, unsigned short port, const ConnectOptions& options,
             Connected done) {
    PoolState* const state = PoolState::of(pool);
    if (state == nullptr || !done) {
        return false;
    }
    std::string name;
    try {
        name.assign(host);
    } catch (const std::bad_alloc&) {
        return false;
    }
    Connector* const connector = state->make<Connector>(options, std::move(done));
    if (connector == nullptr) {
        return false;
    }
    connector->start(std::move(name), port);
    connector->DecRef();
    return true;
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
