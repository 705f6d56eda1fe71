// CEventFreeList, and the stock of each thread in front of it.
#include "Core/record/EventFreeList.h"

#include <atomic>
#include <new>

#include <Infra/Atomic.h>
#include <Infra/Forever.h>

#include "Core/count/Tally.h"

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
        --m_count;
    }
    if (last == nullptr) {
        return nullptr;
    }
    last->m_next = nullptr;
    return first;
}

void CEventFreeList::Put(CEvent* ev) {
    PutChain(ev, ev, 1);
}

void CEventFreeList::PutChain(CEvent* first, CEvent* last, uint64_t records) {
    Infra::CGuard guard(m_mutex);
    last->m_next = m_head;
    m_head = first;
    m_count += records;
}

uint64_t CEventFreeList::Count() {
    Infra::CGuard guard(m_mutex);
    return m_count;
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

/// `count` is written by the thread alone, and read by any.
struct Stock {
    CEvent* head;
    int count;
    bool open;  ///< The thread's end will give the stock back.
    Stock* next;
    Stock** link;  ///< What points to this one in the list of all.

    // In place where that can be told: one instruction instead of three.
    void count_one_more() {
#if defined(RETICOR_TALLY_IN_PLACE)
        asm("incl %0" : "+m"(count) : : "cc");
#else
        Infra::relaxedStore(count, count + 1);
#endif
    }
    void count_one_less() {
#if defined(RETICOR_TALLY_IN_PLACE)
        asm("decl %0" : "+m"(count) : : "cc");
#else
        Infra::relaxedStore(count, count - 1);
#endif
    }
};

thread_local Stock t_stock __attribute__((tls_model("initial-exec"))) = {nullptr, 0, false, nullptr, nullptr};
thread_local bool t_stock_closed = false;

/// The stocks that are open.
struct OpenStocks {
    Infra::CMutex m_mutex{Infra::LockClass::FREE_RECORDS};
    Stock* m_first INFRA_GUARDED_BY(m_mutex) = nullptr;

    void enter(Stock& stock) {
        Infra::CGuard guard(m_mutex);
        stock.next = m_first;
        stock.link = &m_first;
        if (stock.next != nullptr) {
            stock.next->link = &stock.next;
        }
        m_first = &stock;
    }
    void leave(Stock& stock) {
        Infra::CGuard guard(m_mutex);
        *stock.link = stock.next;
        if (stock.next != nullptr) {
            stock.next->link = stock.link;
        }
    }
    uint64_t count() {
        Infra::CGuard guard(m_mutex);
        uint64_t records = 0;
        for (const Stock* stock = m_first; stock != nullptr; stock = stock->next) {
            records += static_cast<uint64_t>(Infra::relaxedLoad(stock->count));
        }
        return records;
    }
};

OpenStocks& open_stocks() {
    static Infra::Forever<OpenStocks> room;
    static OpenStocks& stocks = room.make();
    return stocks;
}

/// Gives the thread's stock back when the thread ends. What is put later than that goes to the list.
struct StockReturn {
    bool used = false;
    ~StockReturn() {
        t_stock_closed = true;
        if (t_stock.open) {
            open_stocks().leave(t_stock);
        }
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
        Infra::relaxedStore(t_stock.count, 0);
        open_stocks().enter(t_stock);
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
    int count = 0;
    for (CEvent* ev = t_stock.head; ev != nullptr; ev = ev->m_next) {
        ++count;
    }
    Infra::relaxedStore(t_stock.count, count);
    chain->m_next = nullptr;
    return chain;
}

void stock(CEvent* ev) {
    ev->m_next = t_stock.head;
    t_stock.head = ev;
    t_stock.count_one_more();
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
        Infra::relaxedStore(t_stock.count, t_stock.count - STOCK_BATCH);
        free_list().PutChain(first, last, STOCK_BATCH);
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
    t_stock.count_one_less();
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

RestingRecords count_resting_records() {
    return {free_list().Count(), open_stocks().count(), reserve().list.Count()};
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
