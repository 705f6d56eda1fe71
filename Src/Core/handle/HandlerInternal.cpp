// The counters and the id of CNetHandler. Its services are in NetHandler.cpp.
#include "Core/handle/HandlerInternal.h"

#include <Reticor/NetHandler.h>

namespace Orvex::Reticor {

void CNetHandler::AddRef() {
    m_internal->m_ref.fetch_add(1, std::memory_order_relaxed);
}

void CNetHandler::DecRef() {
    HandlerInternal* internal = m_internal;
    // After a result above 0 the object belongs to the other references and may be gone.
    if (internal->m_ref.fetch_sub(1, std::memory_order_acq_rel) - 1 != 0) {
        return;
    }
    if (internal->m_close_called.exchange(1, std::memory_order_acq_rel) == 0) {
        handle_close(this);
    }
}

void CNetHandler::AddSock() {
    m_internal->m_sock.fetch_add(1, std::memory_order_relaxed);
}

void CNetHandler::DecSock() {
    m_internal->m_sock.fetch_sub(1, std::memory_order_relaxed);
}

long CNetHandler::GetID() {
    return static_cast<long>(m_internal->m_entry.m_id);
}

}  // namespace Orvex::Reticor
