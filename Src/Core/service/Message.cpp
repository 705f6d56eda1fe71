// CMessage: posting to a handler by its id, and the step that turns a queued record into a call.
#include "Core/service/Message.h"

#include <atomic>
#include <cassert>
#include <utility>

#include <Infra/CountedLine.h>
#include <Infra/Forever.h>
#include <Infra/HeldLocks.h>
#include <Infra/Log.h>
#include <Infra/Thread.h>
#include <Infra/Time.h>
#include <Reticor/R3.h>

#include "Core/count/Points.h"
#include "Core/count/ThreadCounts.h"
#include "Core/count/Timing.h"
#include "Core/count/WatchDoor.h"
#include "Core/handle/CallMark.h"
#include "Core/handle/ClassName.h"
#include "Core/handle/HandlerDrops.h"
#include "Core/handle/ObjectId.h"
#include "Core/pool/PoolTable.h"
#include "Core/pool/ThreadPool.h"
#include "Core/record/EventFreeList.h"
#include "R3/print/FuncBox.h"
#include "R3/print/HelpText.h"
#include "Tool/task/FileTask.h"

namespace Orvex::Reticor {

namespace {

/// Whether the workers print what they handle; set by the command "threadpool".
std::atomic<int32_t> g_print{0};

const R3Command g_threadpool_command(&r3_store_flag<g_print>, "threadpool", HELP_THREADPOOL);

/// What NotifyIO posts.
class IOQueue : public CEventQueue {
public:
    unsigned Count() {
        Infra::CGuard guard(m_mutex);
        unsigned count = 0;
        for (const CEvent* ev = m_head; ev != nullptr; ev = ev->m_next) {
            ++count;
        }
        return count;
    }
};

/// Never destroyed: file workers may still run while static objects are.
IOQueue& io_queue() {
    static Infra::Forever<IOQueue> room;
    static IOQueue& sm_io_event = room.make();
    return sm_io_event;
}

/// It was said that messages to file workers that have ended are dropped.
std::atomic<bool> g_told_of_dropped{false};

/// Looks for the end of the workers only when the message is in the queue: either this sees it, or the one
/// whoever drops what is left at the end sees the message.
void post_io(CEvent* ev) {
    Points::PushedOne(ev);
    io_queue().Push(ev);
    if (!g_file_threads_over.load()) {
        PostFileMessageTask();
        return;
    }
    CMessage::DropIOMessages();
    if (!g_told_of_dropped.exchange(true)) {
        INFRA_LOG_STATIC(2, "The file threads have been stopped, messages of NotifyIO are dropped!\n");
    }
}

/// A handler as a number, for comparing.
int64_t handle_of(const CNetHandler* handler) {
    return static_cast<int64_t>(reinterpret_cast<intptr_t>(handler));
}

/// Whether a close message is for the handler that its id finds: Close says which one it means.
bool meant_for(const CEvent* ev, const CNetHandler* found) {
    return ev->m_from_close == 0 || ev->m_attach == handle_of(found);
}

void assert_index(long receiver) {
    // clang-format off
    assert(63 >= INDEX_OF_ID( receiver ));
    // clang-format on
}

Infra::CountedLine g_dropped;

/// Posting never fails towards the sender. Out of its way.
__attribute__((noinline, cold)) void count_dropped() {
    if (const uint64_t dropped = g_dropped.Count()) {
        INFRA_LOG_STATIC(2, "CMessage, no memory, messages dropped: %ju\n", static_cast<uintmax_t>(dropped));
    }
}

/// Null, and counted, if there is no record.
CEvent* fill_record(CEvent* ev, int64_t key, long sender, long receiver, unsigned int msg, long attach) {
    if (ev == nullptr) {
        count_dropped();
        return nullptr;
    }
    ev->m_key = key;
    ev->m_obj_id = sender;
    ev->m_receiver = receiver;
    ev->m_msg = msg;
    ev->m_from_close = 0;
    ev->m_stamped = 0;
    ev->m_attach = attach;
    if (const uint64_t stamp_ns = Timing::StampMessage()) {
        ev->m_stamp_ns = stamp_ns;
        ev->m_stamped = 1;
    }
    return ev;
}

enum class Moment { begin, end };

__attribute__((noinline, cold)) void print_message(const HandlerPin& handler, const CEvent* ev,
                                                   Moment moment) {
    R3Printf(moment == Moment::begin
                 ? "thread:%d, object:%p,class:%s, handle message begin at %ju us,msg:%d,attach:%d\n"
                 : "thread:%d, object:%p,class:%s, handle message end at %ju us,msg:%d,attach:%d\n",
             Infra::CThread::getCurrentThreadID(), static_cast<void*>(handler.get()),
             class_name(*handler.get()).c_str(),
             static_cast<uintmax_t>(Infra::CTime::getCurrentMicroSecond()), static_cast<int>(ev->m_msg),
             ev->m_from_close != 0 ? 0 : static_cast<int>(ev->m_attach));
}

__attribute__((noinline, cold)) void call_timed(const HandlerPin& handler, const CEvent* ev) {
    const CallMark mark(*handler.get(), CallKind::MESSAGE);
    const CallTime time(*handler.get(), Timing::Taken(ev->m_stamp_ns));
    handler->handle_message(static_cast<long>(ev->m_obj_id), ev->m_msg, static_cast<long>(ev->m_attach));
}

void call(const HandlerPin& handler, const CEvent* ev) {
    INFRA_PROMISE(HANDLER);
    if (__builtin_expect(ev->m_stamped != 0, 0)) {
        call_timed(handler, ev);
        return;
    }
    const CallMark mark(*handler.get(), CallKind::MESSAGE);
    handler->handle_message(static_cast<long>(ev->m_obj_id), ev->m_msg, static_cast<long>(ev->m_attach));
}

}  // namespace

bool CMessage::printing() {
    return g_print.load(std::memory_order_relaxed) != 0;
}

bool CMessage::Notify(long sender, long receiver, unsigned int msg, long attach, bool io) {
    if (receiver >= 0) {
        INFRA_LOG_STATIC(2, "CMessage::Notify, invalid receiver id: %ld\n", receiver);
        return false;
    }
    assert_index(receiver);
    CEvent* ev = fill_record(get_event(), EVENT_KEY_MESSAGE, sender, receiver, msg, attach);
    if (ev == nullptr) {
        return false;
    }
    if (io) {
        post_io(ev);
    } else {
        PoolTable::PushEvent(INDEX_OF_ID(receiver), ev);
    }
    return true;
}

void CMessage::Tell(long sender, long receiver, unsigned int msg, long attach) {
    if (receiver >= 0) {
        INFRA_LOG_STATIC(2, "CMessage::Notify, invalid receiver id: %ld\n", receiver);
        return;
    }
    assert_index(receiver);
    if (CEvent* ev = fill_record(get_event_reserved(), EVENT_KEY_MESSAGE, sender, receiver, msg, attach)) {
        PoolTable::PushEvent(INDEX_OF_ID(receiver), ev);
    }
}

bool CMessage::NotifySerial(long sender, long receiver, unsigned int msg, long attach, unsigned int) {
    if (receiver >= 0) {
        INFRA_LOG_STATIC(2, "CMessage::NotifySerial, invalid receiver id: %ld\n", receiver);
        return false;
    }
    assert_index(receiver);
    CEvent* const ev = fill_record(get_event(), EVENT_KEY_SERIAL, sender, receiver, msg, attach);
    if (ev == nullptr) {
        return false;
    }
    PoolTable::PushSerialEvent(INDEX_OF_ID(receiver), ev);
    return true;
}

void CMessage::NotifyClose(CEvent* ev, long id, const CNetHandler* owner) {
    fill_record(ev, EVENT_KEY_MESSAGE, id, id, MSG_CLOSE, static_cast<long>(handle_of(owner)));
    ev->m_from_close = 1;
    PoolTable::PushFrontEvent(INDEX_OF_ID(id), ev);
}

bool CMessage::IsClose(const CEvent* ev) {
    return ev->m_msg == MSG_CLOSE && ev->m_obj_id == ev->m_receiver;
}

int CMessage::HandleMessage(CEvent* ev) {
    struct Taken {  // goes back also when the thread ends inside the call
        ~Taken() { put_event(ev); }
        CEvent* ev;
    };
    const Taken taken{ev};
    if (HandlerPin handler = PoolTable::FindHandler(ev->m_receiver)) {
        if (printing()) {
            print_message(handler, ev, Moment::begin);
        }
        if (!IsClose(ev)) {
            call(handler, ev);
        } else if (meant_for(ev, handler.get())) {
            const HandlerPin first = PoolTable::Detach(ev->m_receiver);
        }
        if (printing()) {
            print_message(handler, ev, Moment::end);
        }
    }
    return 0;
}

void CMessage::CloseQueued(CThreadPool& pool, HandlerDrops& drops) {
    CEvent* others = nullptr;
    while (CEvent* ev = pool.m_event.TryPop()) {
        if (ev->m_key != EVENT_KEY_MESSAGE || !IsClose(ev)) {
            ev->m_next = std::exchange(others, ev);
            continue;
        }
        HandlerPin handler = pool.m_obj_tree.Find(ev->m_receiver);
        if (handler && meant_for(ev, handler.get())) {
            drops.Take(pool.DetachObject(ev->m_receiver));
        }
        drops.Take(std::move(handler));
        put_event(ev);
    }
    if (others != nullptr) {
        pool.m_event.Push(others);
    }
}

void CMessage::HandleIOMessage() {
    if (CEvent* ev = io_queue().PopNow()) {
        ThreadCounts::Attach(-1);
        WatchDoor::Knock();
        Points::Popped(ev);
        HandleMessage(ev);
    }
}

unsigned CMessage::CountIOMessages() {
    return io_queue().Count();
}

void CMessage::DropIOMessages() {
    while (CEvent* ev = io_queue().PopNow()) {
        put_event(ev);
    }
}

}  // namespace Orvex::Reticor
