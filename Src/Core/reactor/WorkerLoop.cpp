// What the workers of CThreadPool do with records, and the listing of its sockets: the members that stand on
// what stands on pools. Their log lines and assertions name this file and that class, which is part of the
// interface, so they are members of CThreadPool here; all its other members are in ThreadPool.cpp.
#include <cassert>
#include <new>
#include <utility>
#include <vector>

#include <Infra/Log.h>
#include <Infra/Time.h>
#include <Reticor/TsMemory.h>

#include "Core/count/Points.h"
#include "Core/count/ThreadCounts.h"
#include "Core/count/WatchDoor.h"
#include "Core/handle/ClassName.h"
#include "Core/pool/PoolLease.h"
#include "Core/pool/ThreadPool.h"
#include "Core/record/EventFreeList.h"
#include "Core/service/Message.h"
#include "Core/service/NetSock.h"
#include "Core/service/NetTimer.h"

namespace Orvex::Reticor {

namespace {

/// The worker's blocks, also when a call of the product's ends the thread.
struct ThreadMemory {
    ThreadMemory() { CTsMemory::CreateMemPool(); }
    ~ThreadMemory() { CTsMemory::DestroyThreadMemPool(); }
    ThreadMemory(const ThreadMemory&) = delete;
    ThreadMemory& operator=(const ThreadMemory&) = delete;
};

}  // namespace

void CThreadPool::ThreadProc(Infra::CThreadLite& thread) {
    PoolLease::EnterWorker(m_index, this);
    const ThreadMemory memory;
    ThreadCounts::Attach(m_index, take_counts());
    if (m_poll_event.m_key != EVENT_KEY_POLL) {
        assert(0);
    }
    while (thread.looping()) {
        CEvent* ev = m_event.PopWork();
        WatchDoor::Knock();
        if (ev != nullptr) {
            Points::Popped(ev);
            serve(ev, thread);
        }
    }
    // The next worker must be left neither in the wait nor asleep beside the token.
    m_mux.WakeUp();
    m_event.WakeAll();
}

namespace {

void count(Served kind) {
    ThreadCounts::Mine().m_pool_tally.served[static_cast<size_t>(kind)].Increment();
}

}  // namespace

void CThreadPool::serve(CEvent* ev, Infra::CThreadLite& thread) {
    const int64_t key = ev->m_key;
    if (key >= 0) {
        count(Served::SOCKET);
        CNetSock::handle_netevent(ev);
    } else if (key == EVENT_KEY_MESSAGE) {
        count(Served::MESSAGE);
        CMessage::HandleMessage(ev);
    } else if (key < EVENT_KEY_TIMER_LIMIT) {
        count(Served::TIMER);
        CNetTimer::handle_timer(ev);
    } else if (key == EVENT_KEY_POLL) {
        count(Served::POLL);
        m_mux.Wait(ev);
    } else if (key == EVENT_KEY_DRAIN) {
        count(Served::DRAIN);
        drain(thread);
    } else if (key == EVENT_KEY_HEARTBEAT) {
        count(Served::HEARTBEAT);
        put_event(ev);  // it has done its job by being taken
    } else {
        unexpected(ev);
    }
}

void CThreadPool::unexpected(CEvent* ev) {
    INFRA_LOG(2, "Exist unexpected event, Please check it, key : [%d]!\n", static_cast<int>(ev->m_key));
    put_event(ev);
    assert(0);
}

void CThreadPool::drain(Infra::CThreadLite& thread) {
    while (thread.looping()) {
        CEvent* ev = next_serial();
        if (ev == nullptr) {
            return;  // the token may be queued again by now
        }
        if (ev->m_key != EVENT_KEY_SERIAL) {
            INFRA_LOG(2, "Exist unexpected event_serial, Please check it, key : [%d]!\n",
                      static_cast<int>(ev->m_key));
            put_event(ev);
            assert(0);
        }
        Points::Popped(ev);
        count(Served::SERIAL);
        CMessage::HandleMessage(ev);
    }
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
    bool complete = true;
    m_sock_tree.ReadLock();
    try {
        list_sockets(m_sock_tree.root(), m_obj_tree, listed);
    } catch (const std::bad_alloc&) {
        complete = false;
    }
    m_sock_tree.Unlock();
    if (!complete) {
        INFRA_LOG_STATIC(2, "CThreadPool::Traversal, no memory for all sockets of pool %d!\n", m_index);
    }
    for (const ListedSocket& sock : listed) {
        INFRA_LOG_STATIC(4, "CThreadPool::Traversal, sock fd: %jd, owner: %p, owner type:%s \n",
                         static_cast<intmax_t>(sock.key), static_cast<void*>(sock.owner.get()),
                         class_name(*sock.owner.get()).c_str());
    }
    return static_cast<int>(listed.size());
}

}  // namespace Orvex::Reticor
