// UserCall: what is said of a lambda that has thrown.
#include "Kit/call/UserCall.h"

#include <exception>

#include <Infra/Log.h>

namespace Orvex::Reticor::Kit {
inline namespace v1 {

void UserCall::tell(const void* owner, const char* what) {
    try {
        abi::__cxa_rethrow();
    } catch (const std::exception& error) {
        INFRA_LOG_STATIC(2, "a call-back of a %s (%p) has thrown, which ends it: %s\n", what, owner,
                         error.what());
    } catch (...) {
        INFRA_LOG_STATIC(2, "a call-back of a %s (%p) has thrown, which ends it\n", what, owner);
    }
}

}  // namespace v1
}  // namespace Orvex::Reticor::Kit
