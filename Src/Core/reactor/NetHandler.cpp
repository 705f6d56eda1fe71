// CNetHandler. What the lower wings need of it is in HandlerInternal.
#include <Reticor/NetHandler.h>

#include <cassert>

#include <Infra/HeldLocks.h>
#include <Infra/Log.h>
#include <Reticor/Sock.h>
#include <Reticor/TsMemory.h>

#include "Core/handle/ClassName.h"
#include "Core/handle/HandlerInternal.h"
#include "Core/pool/PoolLease.h"
#include "Core/pool/ThreadPool.h"
#include "Core/service/Message.h"
#include "Core/service/NetSock.h"
#include "Core/service/NetTimer.h"

namespace Orvex::Reticor {

CNetHandler::CNetHandler() : CNetHandler(0) {}

CNetHandler::CNetHandler(int pool) : m_internal(HandlerInternal::Create(this)) {
    if (const PoolLease found{pool}) {
        if (!m_internal->IsNone() && !found->AttachObject(&m_internal->m_entry)) {
            HandlerInternal::Destroy(m_internal);
            m_internal = HandlerInternal::None();
        }
        if (m_internal->IsNone()) {
            INFRA_LOG(2, "no memory for a handler of pool %d!\n", pool);
        }
        return;
    }
    // The name of the operation in the line is part of the interface.
    if (Infra::logEnabled(1)) {
        Infra::Detail::logMember(1, __FILE__, "Orvex::Reticor::CNetHandler::open_object", __LINE__, this,
                                 "Can't find the thread pool %d, create thread pool first!\n", pool);
    }
    assert(0);
}

CNetHandler::~CNetHandler() {
    // Nobody else knows the object any more: the name only gives the assertion its text.
    const uint16_t __m_magic = m_internal->__m_magic.load(std::memory_order_relaxed);
    assert(__m_magic == 0x0202);
    if (m_internal->m_sock.load(std::memory_order_relaxed) > 0) {
        INFRA_LOG(2,
                  "some sockets registered on obj %p has not been removed, please remove it before close the "
                  "obj!\n",
                  static_cast<void*>(this));
    }
    HandlerInternal::Destroy(m_internal);
    m_internal = nullptr;
}

void CNetHandler::Close() {
    const long id = GetID();
    CEvent* const message = m_internal->m_close_event;
    if (m_internal->IsOpen()) {
        m_internal->RowOffset(*this);
    }
    if (m_internal->__m_magic.exchange(HANDLER_CLOSED, std::memory_order_acq_rel) == HANDLER_OPEN) {
        CMessage::NotifyClose(message, id, this);
        // From here on the object may be gone.
    } else if (message == nullptr && HandlerInternal::CloseNone(m_internal)) {
        INFRA_PROMISE(HANDLER);
        handle_close(this);
    }
}

// Never inline: where they return to is the place that takes the reference, or gives it back.
__attribute__((noinline)) void CNetHandler::AddRef() {
    m_internal->AddRefFrom(__builtin_return_address(0));
}

__attribute__((noinline)) void CNetHandler::DecRef() {
    m_internal->DecRefFrom(__builtin_return_address(0));
}

void CNetHandler::AddSock() {
    m_internal->AddSock();
}

void CNetHandler::DecSock() {
    m_internal->DecSock();
}

long CNetHandler::GetID() {
    return m_internal->GetID();
}

int CNetHandler::RegisterSock(CSock& sock, unsigned int mask, int timeout) {
    if (!m_internal->EnterOpen()) {
        return -1;
    }
    m_internal->RowOffset(*this);
    const int result = CNetSock::RegisterSock(this, sock, mask, timeout);
    m_internal->DecRef();
    return result;
}

int CNetHandler::UnregisterSock(CSock& sock, unsigned int mask) {
    return CNetSock::UnregisterSock(this, sock, mask);
}

int CNetHandler::RemoveSock(CSock& sock) {
    return CNetSock::RemoveSock(this, sock);
}

int CNetHandler::CheckSock(CSock& sock) {
    const CNetSock::Registration found = CNetSock::Look(this, sock);
    if (!found.exists) {
        return 0;
    }
    if (found.mask & SOCK_READ) {
        UnregisterSock(sock, SOCK_WRITE);
    } else {
        RemoveSock(sock);
    }
    return 0;
}

long CNetHandler::SetTimer(int64_t us) {
    if (!m_internal->EnterOpen()) {
        return -1;
    }
    m_internal->RowOffset(*this);
    const long id = CNetTimer::SetTimer(GetID(), us);
    m_internal->DecRef();
    return id;
}

void CNetHandler::DestroyTimer(long id) {
    CNetTimer::DestroyTimer(id);
}

void CNetHandler::SetDefaultRcer(long id) {
    if (!m_internal->IsNone()) {
        m_internal->m_default_rcer.store(id, std::memory_order_relaxed);
    }
}

void CNetHandler::Notify(long receiver, unsigned int msg, long attach) {
    CMessage::Notify(GetID(), receiver, msg, attach, false);
}

void CNetHandler::Notify(unsigned int msg, long attach) {
    Notify(static_cast<long>(m_internal->m_default_rcer.load(std::memory_order_relaxed)), msg, attach);
}

void CNetHandler::NotifySerial(long receiver, unsigned int msg, long attach, unsigned int reserved) {
    CMessage::NotifySerial(GetID(), receiver, msg, attach, reserved);
}

void CNetHandler::NotifySerial(unsigned int msg, long attach, unsigned int reserved) {
    NotifySerial(static_cast<long>(m_internal->m_default_rcer.load(std::memory_order_relaxed)), msg, attach,
                 reserved);
}

void CNetHandler::NotifyIO(long receiver, unsigned int msg, long attach) {
    CMessage::Notify(GetID(), receiver, msg, attach, true);
}

void CNetHandler::NotifyIO(unsigned int msg, long attach) {
    NotifyIO(static_cast<long>(m_internal->m_default_rcer.load(std::memory_order_relaxed)), msg, attach);
}

void* CNetHandler::TsMalloc(unsigned int size) {
    return CTsMemory::TsMalloc(size);
}
void CNetHandler::TsFree(void* p) {
    CTsMemory::TsFree(p);
}
void* CNetHandler::Malloc(unsigned int size) {
    return CTsMemory::Malloc(size);
}
void CNetHandler::Free(void* p) {
    CTsMemory::Free(p);
}

int CNetHandler::handle_input(int) {
    return -1;
}
int CNetHandler::handle_output(int) {
    return -1;
}
int CNetHandler::handle_exception(int) {
    return -1;
}
int CNetHandler::handle_input_timeout(int) {
    return -1;
}
int CNetHandler::handle_output_timeout(int) {
    return -1;
}
int CNetHandler::handle_exception_timeout(int) {
    return -1;
}
int64_t CNetHandler::handle_timeout(long) {
    return -1;
}
int CNetHandler::handle_close(CNetHandler*) {
    INFRA_LOG(2, "a %s is closed and nobody deletes it: its handle_close is not overridden\n",
              class_name(*this).c_str());
    return -1;
}
int CNetHandler::handle_message(long, unsigned int, long) {
    return -1;
}

}  // namespace Orvex::Reticor
