// HandlerInternal.
#include "Core/handle/HandlerInternal.h"

#include <Infra/HeldLocks.h>

namespace Orvex::Reticor {

void HandlerInternal::DecRef() {
    // After a result above 0 the object belongs to the other references and may be gone.
    if (m_ref.fetch_sub(1, std::memory_order_acq_rel) - 1 != 0) {
        return;
    }
    if (m_close_called.exchange(1, std::memory_order_acq_rel) == 0) {
        INFRA_PROMISE(HANDLER);
        m_entry.m_owner->handle_close(m_entry.m_owner);
    }
}

bool HandlerInternal::EnterOpen() {
    AddRef();
    if (__m_magic.load(std::memory_order_acquire) == HANDLER_OPEN) {
        return true;
    }
    DecRef();
    return false;
}

}  // namespace Orvex::Reticor
