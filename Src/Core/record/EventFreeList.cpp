// CEventFreeList, and the stock of each thread in front of it.
#include "Core/record/EventFreeList.h"

#include <atomic>
#include <new>

#include <Infra/Forever.h>

namespace Orvex::Reticor {

CEventFreeList::~CEventFreeList() {
    Infra::CGuard guard(m_mutex);
    while (m_head != nullptr) {
        CEvent* ev = m_head;
        m_head = ev->m_next;
        delete ev;
    }
}

CEvent* CEventFreeList::Get() {
    CEvent* ev = GetBatch(1);
    return ev != nullptr ? ev : new (std::nothrow) CEvent;
}

CEvent* CEventFreeList::GetBatch(int most) {
    Infra::CGuard guard(m_mutex);
    CEvent* first = m_head;
    CEvent* last = nullptr;
    for (int taken = 0; taken < most && m_head != nullptr; ++taken) {
        last = m_head;
        m_head = m_head->m_next;
    }
    if (last == nullptr) {
        return nullptr;
    }
    last->m_next = nullptr;
    return first;
}

void CEventFreeList::Put(CEvent* ev) {
    PutChain(ev, ev);
}

void CEventFreeList::PutChain(CEvent* first, CEvent* last) {
    Infra::CGuard guard(m_mutex);
    last->m_next = m_head;
    m_head = first;
}

// ---- the process's list and the per-thread stock ---------------------------------------------------------

namespace {

/// Never destroyed: threads of the library may still run while static objects are.
CEventFreeList& free_list() {
    static Infra::Forever<CEventFreeList> room;
    static CEventFreeList& list = room.make();
    return list;
}

/// What the library's own threads go on with while there is no memory.
struct Reserve {
    static constexpr int SIZE = 256;
    CEventFreeList list;
    std::atomic<int> count{0};
};

Reserve& reserve() {
    static Infra::Forever<Reserve> room;
    static Reserve& kept = room.make();
    return kept;
}

/// Records move between a thread and the process in batches, so that neither a producer nor a worker takes
/// the list's lock for each record.
constexpr int STOCK_BATCH = 32;
constexpr int STOCK_LIMIT = 2 * STOCK_BATCH;

struct Stock {
    CEvent* head;
    int count;
    bool open;  ///< The thread's end will give the stock back.
};

thread_local Stock t_stock __attribute__((tls_model("initial-exec"))) = {nullptr, 0, false};
thread_local bool t_stock_closed = false;

/// Gives the thread's stock back when the thread ends. What is put later than that goes to the list.
struct StockReturn {
    bool used = false;
    ~StockReturn() {
        t_stock_closed = true;
        t_stock.open = false;
        while (t_stock.head != nullptr) {
            CEvent* ev = t_stock.head;
            t_stock.head = ev->m_next;
            free_list().Put(ev);
        }
    }
};
thread_local StockReturn t_stock_return;

/// False at the thread's very end.
bool open_stock() {
    if (!t_stock.open && !t_stock_closed) {
        t_stock_return.used = true;  // the first use registers the destructor
        t_stock.open = true;
        t_stock.count = 0;
    }
    return t_stock.open;
}

/// Out of line: the stock is empty.
CEvent* refill() {
    CEvent* chain = open_stock() ? free_list().GetBatch(STOCK_BATCH) : nullptr;
    if (chain == nullptr) {
        return free_list().Get();
    }
    t_stock.head = chain->m_next;
    t_stock.count = 0;
    for (CEvent* ev = t_stock.head; ev != nullptr; ev = ev->m_next) {
        ++t_stock.count;
    }
    chain->m_next = nullptr;
    return chain;
}

void stock(CEvent* ev) {
    ev->m_next = t_stock.head;
    t_stock.head = ev;
    ++t_stock.count;
}

/// Out of line: the stock is full or not open yet.
void spill(CEvent* ev) {
    if (!open_stock()) {
        free_list().Put(ev);
        return;
    }
    if (t_stock.count >= STOCK_LIMIT) {
        CEvent* first = t_stock.head;
        CEvent* last = first;
        for (int i = 1; i < STOCK_BATCH; ++i) {
            last = last->m_next;
        }
        t_stock.head = last->m_next;
        t_stock.count -= STOCK_BATCH;
        free_list().PutChain(first, last);
    }
    stock(ev);
}

}  // namespace

CEvent* get_event() {
    CEvent* ev = t_stock.head;
    if (ev == nullptr) {
        return refill();
    }
    t_stock.head = ev->m_next;
    // The next one may have rested for long; it is on its way while this one is put to use.
    __builtin_prefetch(t_stock.head, 1);
    --t_stock.count;
    ev->m_next = nullptr;
    return ev;
}

void put_event(CEvent* ev) {
    if (t_stock.open && t_stock.count < STOCK_LIMIT) {
        stock(ev);
    } else {
        spill(ev);
    }
}

CEvent* get_event_reserved() {
    CEvent* ev = get_event();
    if (ev == nullptr) {
        ev = reserve().list.GetBatch(1);
        reserve().count.fetch_sub(ev != nullptr ? 1 : 0, std::memory_order_relaxed);
    }
    return ev;
}

void fill_event_reserve() {
    Reserve& kept = reserve();
    while (kept.count.load(std::memory_order_relaxed) < Reserve::SIZE) {
        CEvent* const ev = new (std::nothrow) CEvent;
        if (ev == nullptr) {
            return;
        }
        kept.count.fetch_add(1, std::memory_order_relaxed);
        kept.list.Put(ev);
    }
}

void put_event_chain(CEvent* ev) {
    while (ev != nullptr) {
        CEvent* next = ev->m_next;
        put_event(ev);
        ev = next;
    }
}

}  // namespace Orvex::Reticor
