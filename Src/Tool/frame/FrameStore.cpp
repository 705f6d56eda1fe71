// CFrameStore: a list of pieces of memory, each the size of a frame.
#include "Tool/frame/FrameStore.h"

#include <new>

namespace Orvex::Reticor {

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define RETICOR_SEES_MEMORY_ENDS
#endif
#endif
#if defined(RETICOR_SEES_MEMORY_ENDS) || defined(__SANITIZE_ADDRESS__)
const uint32_t CFrameStore::SPARES_MOST = 0;
#else
const uint32_t CFrameStore::SPARES_MOST = 64;  // As many frames of the most usual level as grow old together.
#endif

CFrameStore::~CFrameStore() {
    while (Spare* const spare = m_spares) {
        m_spares = spare->next;
        ::operator delete(spare);
    }
}

bool CFrameStore::fill(uint32_t frames) {
    while (m_count < frames) {
        void* const memory = ::operator new(sizeof(CFrame), std::nothrow);
        if (memory == nullptr) {
            return false;
        }
        m_spares = new (memory) Spare{m_spares};
        ++m_count;
    }
    return true;
}

CFrame* CFrameStore::make() {
    void* memory = m_spares;
    if (memory != nullptr) {
        m_spares = m_spares->next;
        --m_count;
    } else {
        memory = ::operator new(sizeof(CFrame), std::nothrow);
    }
    return memory != nullptr ? new (memory) CFrame : nullptr;
}

void CFrameStore::end(CFrame* frame) {
    frame->~CFrame();
    if (m_count >= SPARES_MOST) {
        ::operator delete(frame);
        return;
    }
    m_spares = new (static_cast<void*>(frame)) Spare{m_spares};
    ++m_count;
}

}  // namespace Orvex::Reticor
