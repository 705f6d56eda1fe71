// The workers of CThreadPool: what they do with each kind of record, and the listing of sockets. The pool's
// data and lifecycle are in ThreadPool.cpp.
#include <cassert>
#include <utility>
#include <vector>

#include <Infra/Log.h>
#include <Infra/Time.h>
#include <Reticor/TsMemory.h>

#include "Core/handle/ClassName.h"
#include "Core/pool/ThreadPool.h"
#include "Core/service/Message.h"
#include "Core/service/NetSock.h"
#include "Core/service/NetTimer.h"

namespace Orvex::Reticor {

void CThreadPool::ThreadProc(Infra::CThreadLite& thread) {
    CTsMemory::CreateMemPool();
    if (m_poll_event->m_key != EVENT_KEY_POLL) {
        assert(0);
    }
    while (thread.looping()) {
        CEvent* ev = m_event.PopWork();
        m_loop_count.fetch_add(1, std::memory_order_relaxed);
        if (ev != nullptr) {
            serve(ev, thread);
        }
    }
    // The next worker must be left neither in the wait nor asleep beside the token.
    m_mux.WakeUp();
    m_event.WakeAll();
    CTsMemory::DestroyThreadMemPool();
}

void CThreadPool::serve(CEvent* ev, Infra::CThreadLite& thread) {
    const int64_t key = ev->m_key;
    if (key >= 0) {
        CNetSock::handle_netevent(ev);
    } else if (key == EVENT_KEY_MESSAGE) {
        CMessage::HandleMessage(ev);
    } else if (key < EVENT_KEY_TIMER_LIMIT) {
        CNetTimer::handle_timer(ev);
    } else if (key == EVENT_KEY_POLL) {
        m_mux.Wait(ev);
    } else if (key == EVENT_KEY_DRAIN) {
        drain(ev, thread);
    } else if (key == EVENT_KEY_HEARTBEAT) {
        putEvent(ev);  // it has done its job by being taken
    } else {
        unexpected(ev);
    }
}

void CThreadPool::unexpected(CEvent* ev) {
    INFRA_LOG(2, "Exist unexpected event, Please check it, key : [%d]!\n", static_cast<int>(ev->m_key));
    putEvent(ev);
    assert(0);
}

void CThreadPool::drain(CEvent* token, Infra::CThreadLite& thread) {
    while (thread.looping()) {
        CEvent* ev = next_serial();
        if (ev == nullptr) {
            putEvent(token);
            return;
        }
        if (ev->m_key != EVENT_KEY_SERIAL) {
            INFRA_LOG(2, "Exist unexpected event_serial, Please check it, key : [%d]!\n",
                      static_cast<int>(ev->m_key));
            putEvent(ev);
            assert(0);
        }
        CMessage::HandleMessage(ev);
    }
    m_cut_drain = token;  // the pool is going away: no other drain follows
}

// Null means that the drain is over, and says so to those who post: a message that came between the two looks
// would otherwise wait for the next one.
CEvent* CThreadPool::next_serial() {
    CEvent* ev = m_event_serial.TryPop();
    if (ev == nullptr) {
        Infra::CGuard guard(m_serial_mutex);
        ev = m_event_serial.TryPop();
        m_serial_idle = ev == nullptr;
    }
    return ev;
}

namespace {

/// A line of the socket listing: the record's key and its owner, pinned until the line is written.
struct ListedSocket {
    int64_t key;
    HandlerPin owner;
};

// A record whose handler is gone hides the sockets in the subtree below it.
void list_sockets(const BTree::Node* node, CObjectTable& handlers, std::vector<ListedSocket>& listed) {
    if (node == nullptr) {
        return;
    }
    for (const BTree::KeyNode* key = node->m_head; key != nullptr; key = key->m_next) {
        const CEvent* ev = static_cast<const CEvent*>(key->m_data);
        HandlerPin owner = handlers.Find(Infra::relaxedLoad(ev->m_obj_id));
        if (owner) {
            listed.push_back({ev->m_key, std::move(owner)});
            list_sockets(key->m_left, handlers, listed);
        }
    }
    list_sockets(node->m_right, handlers, listed);
}

}  // namespace

int CThreadPool::TraversalSock() {
    // The owners are pinned under the tree's lock and let go after it: the last reference may be ours, and
    // handle_close runs with no lock held.
    std::vector<ListedSocket> listed;
    m_sock_tree.ReadLock();
    list_sockets(m_sock_tree.root(), m_obj_tree, listed);
    m_sock_tree.Unlock();
    for (const ListedSocket& sock : listed) {
        INFRA_LOG_STATIC(4, "CThreadPool::Traversal, sock fd: %jd, owner: %p, owner type:%s \n",
                         static_cast<intmax_t>(sock.key), static_cast<void*>(sock.owner.get()),
                         className(*sock.owner.get()).c_str());
    }
    return static_cast<int>(listed.size());
}

}  // namespace Orvex::Reticor
