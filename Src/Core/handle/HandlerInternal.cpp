// HandlerInternal.
#include "Core/handle/HandlerInternal.h"

#include <new>

#include <Infra/HeldLocks.h>
#include <Infra/Mutex.h>

#include "Core/record/EventFreeList.h"

namespace Orvex::Reticor {

INFRA_CONSTINIT HandlerInternal HandlerInternal::sm_none;
INFRA_CONSTINIT HandlerInternal HandlerInternal::sm_none_closed;

HandlerInternal* HandlerInternal::Create(CNetHandler* owner) {
    CEvent* const close_event = get_event();
    if (close_event == nullptr) {
        return None();
    }
    auto* const internal = new (std::nothrow) HandlerInternal(owner, close_event);
    if (internal == nullptr) {
        put_event(close_event);
        return None();
    }
    return internal;
}

void HandlerInternal::Destroy(HandlerInternal* internal) {
    if (internal->IsNone()) {
        return;
    }
    if (internal->__m_magic.load(std::memory_order_relaxed) == HANDLER_OPEN) {
        put_event(internal->m_close_event);
    }
    delete internal;
}

bool HandlerInternal::CloseNone(HandlerInternal*& internal) {
    HandlerInternal* none = &sm_none;
    return __atomic_compare_exchange_n(&internal, &none, &sm_none_closed, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_RELAXED);
}

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
