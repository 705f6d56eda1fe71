// HandlerDrops.
#include "Core/handle/HandlerDrops.h"

#include <Infra/Atomic.h>

namespace Orvex::Reticor {

HandlerDrops::~HandlerDrops() {
    while (m_first != nullptr) {
        CNetHandler* const handler = m_first;
        HandlerInternal& internal = HandlerInternal::Of(*handler);
        m_first = internal.m_drop_next;
        internal.m_drop_next = nullptr;
        Infra::relaxedStore(internal.m_drop_listed, false);
        internal.DecRef();
    }
}

void HandlerDrops::Take(HandlerPin pin) {
    if (!pin || HandlerInternal::Of(*pin.get()).m_drop_listed) {
        return;  // the reference that is listed already makes this one not the last
    }
    CNetHandler* const handler = pin.Release();
    Infra::relaxedStore(HandlerInternal::Of(*handler).m_drop_listed, true);
    if (m_last != nullptr) {
        HandlerInternal::Of(*m_last).m_drop_next = handler;
    } else {
        m_first = handler;
    }
    m_last = handler;
}

}  // namespace Orvex::Reticor
