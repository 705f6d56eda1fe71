// HandlerInternal.
#include "Core/handle/HandlerInternal.h"

#include <new>
#include <typeinfo>

#include <Infra/HeldLocks.h>
#include <Infra/Mutex.h>

#include "Core/count/Points.h"
#include "Core/handle/HandlerList.h"
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
    internal->m_holders = HolderNotes::Create();
    HandlerList::Enter(*internal);
    return internal;
}

void HandlerInternal::Destroy(HandlerInternal* internal) {
    if (internal->IsNone()) {
        return;
    }
    if (internal->__m_magic.load(std::memory_order_relaxed) == HANDLER_OPEN) {
        put_event(internal->m_close_event);
    }
    HandlerList::Leave(*internal);
    if (internal->m_holders != nullptr) {
        internal->m_holders->Drop();
    }
    delete internal;
}

bool HandlerInternal::CloseNone(HandlerInternal*& internal) {
    HandlerInternal* none = &sm_none;
    return __atomic_compare_exchange_n(&internal, &none, &sm_none_closed, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_RELAXED);
}

namespace {

/// Around `handle_close`, which can come inside another call, and on any thread.
class CloseMark {
public:
    explicit CloseMark(CNetHandler& handler) {
        ThreadCounts::Attach(-1);
        ThreadCounts& counts = ThreadCounts::Mine();
        HandlerInternal& internal = HandlerInternal::Of(handler);
        const uint32_t row_offset = internal.RowOffset(handler);
        ClassTally& row = counts.at_offset(row_offset);
        row.calls.Increment();
        row.closed.Increment();
        m_outer = counts.m_call.load(std::memory_order_relaxed);
        m_call = ThreadCounts::call_word(internal.GetID(), CallKind::CLOSE);
        counts.m_call.store(m_call, std::memory_order_relaxed);
        Points::Entered(m_call, row_offset);
    }
    // At its very end a thread may have lost its counters in between.
    ~CloseMark() {
        Points::Left(m_call);
        ThreadCounts::Mine().m_call.store(m_outer, std::memory_order_relaxed);
    }
    CloseMark(const CloseMark&) = delete;
    CloseMark& operator=(const CloseMark&) = delete;

private:
    uint64_t m_outer;
    uint64_t m_call;
};

}  // namespace

void HandlerInternal::DecRef() {
    // After a result above 0 the object belongs to the other references and may be gone.
    if (m_ref.fetch_sub(1, std::memory_order_acq_rel) - 1 != 0) {
        return;
    }
    if (m_close_called.exchange(1, std::memory_order_acq_rel) == 0) {
        INFRA_PROMISE(HANDLER);
        const CloseMark mark(*m_entry.m_owner);
        m_entry.m_owner->handle_close(m_entry.m_owner);
    }
}

/// Out of the way of a call: at the first one of each handler, and where its class was another one then.
__attribute__((noinline, cold)) void HandlerInternal::note_class(const CNetHandler& handler,
                                                                 const void* vtable) {
    uint32_t row = ClassRows::Find(vtable);
    if (row == ClassRows::NOT_CALLED) {
        row = ClassRows::Enter(vtable, typeid(handler).name());
    }
    HandlerList::SetClass(*this, vtable, ThreadCounts::offset_of(row));
}

__attribute__((noinline, cold)) void HandlerInternal::add_ref_noted(const void* place) {
    m_holders->NoteTaken(place);
    AddRef();
}

__attribute__((noinline, cold)) void HandlerInternal::dec_ref_noted(const void* place) {
    m_holders->NoteGivenBack(place);  // ahead of it: then the object may be gone
    DecRef();
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
