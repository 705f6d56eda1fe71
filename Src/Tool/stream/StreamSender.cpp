// CStreamSender: its operations, each under the mutex of its state, and its lines.
#include <Reticor/StreamSender.h>

#include <atomic>
#include <cassert>
#include <cstdint>
#include <new>

#include <Infra/Log.h>
#include <Infra/Mutex.h>
#include <Reticor/R3.h>
#include <Reticor/Sock.h>

#include "Core/handle/ClassName.h"
#include "Core/handle/HandlerPin.h"
#include "Core/handle/OwnerDoor.h"
#include "Core/pool/PoolTable.h"
#include "R3/print/FuncBox.h"
#include "R3/print/HelpText.h"
#include "Tool/stream/StreamSenderState.h"

namespace Orvex::Reticor {

namespace {

// Bytes that wait are counted in 32 bits, and free bytes are compared as signed numbers.
constexpr unsigned int BLOCK_LIMIT = 65535;

/// Whether senders print what they do; set by the command "streamsender".
std::atomic<int32_t> g_print{0};

const R3Command g_streamsender_command(&r3_store_flag<g_print>, "streamsender", HELP_STREAMSENDER);

bool printing() {
    return g_print.load(std::memory_order_relaxed) != 0;
}

// Both print before the mutex is entered: the debug server writes to its client through a sender of its own,
// under a lock that it also holds while it calls that sender.

void print_put(CStreamSender& sender, const StreamSenderState& state, unsigned int len) {
    const auto [stream, fd] = state.socket();
    if (stream != nullptr) {
        R3Printf("%s, object:%p, class:%s, put len:%d, strem:%p, fd:%d\n",
                 "Orvex::Reticor::CStreamSender::Put", static_cast<void*>(&sender),
                 class_name(sender).c_str(), static_cast<int>(len), static_cast<void*>(stream), fd);
    }
}

void print_output(CStreamSender& sender, const StreamSenderState& state) {
    const auto [stream, fd] = state.socket();
    if (stream != nullptr) {
        R3Printf("%s, object:%p, class:%s, strem:%p, fd:%d\n", "Orvex::Reticor::CStreamSender::handle_output",
                 static_cast<void*>(&sender), class_name(sender).c_str(), static_cast<void*>(stream), fd);
    }
}

/// The name by which the line of a failure is known; it is a part of the line.
constexpr const char* REPORT_NAME = "Orvex::Reticor::CStreamSender::report_exception";

// The id stays, so that repeated failures are told repeatedly.
void report_exception(CStreamSender& sender, StreamSenderState& state, int fd) INFRA_REQUIRES(state.m_mutex) {
    if (state.m_exception_id == 0) {
        return;
    }
    if (Infra::logEnabled(2)) {
        Infra::Detail::logMember(
            2, __FILE__, "void Orvex::Reticor::CStreamSender::report_exception(long, int)", __LINE__, &sender,
            "%s on line:%d CStreamSender socket exception! fd: %d\n", REPORT_NAME, __LINE__, fd);
    }
    state.tell_failure(sender);
}

}  // namespace

CStreamSender* CStreamSender::Create() {
    auto* const sender = new (std::nothrow) CStreamSender;
    if (sender != nullptr && sender->m_state != nullptr && sender->m_state->is_made()) {
        sender->m_state->m_roll.enter(sender->GetID());
        return sender;
    }
    if (sender == nullptr || sender->GetID() != 0) {  // else the handler has told of itself
        INFRA_LOG_STATIC(2, "CStreamSender::Create no memory!\n");
    }
    if (sender != nullptr) {
        HandlerInternal::Discard(sender);
    }
    return nullptr;
}

CStreamSender::CStreamSender() : m_state(GetID() != 0 ? new (std::nothrow) StreamSenderState : nullptr) {}

CStreamSender::~CStreamSender() {
    delete m_state;
}

int CStreamSender::Attach(CNetHandler* owner, CSock* stream) {
    Infra::CGuard guard(m_state->m_mutex);
    m_state->attach(owner, stream);
    return 0;
}

// The owner is found by its id and held by a pin for the time of a registration, for it may close and go at
// any moment. A pin is dropped after the mutex is left: if it was the last reference the owner's handle_close
// runs here, and may well call this sender.

CSock* CStreamSender::Detach() {
    HandlerPin owner;
    Infra::CGuard guard(m_state->m_mutex);
    if (m_state->m_stream == nullptr) {
        return nullptr;
    }
    owner = PoolTable::FindHandler(m_state->m_owner_id);
    if (owner) {
        owner->CheckSock(*m_state->m_stream);
    }
    return m_state->m_stream;
}

int CStreamSender::Put(const char* buf, unsigned int len) {
    const uint64_t BUF_SIZE = m_state->buffer_size();
    assert(buf != NULL && len <= BUF_SIZE);
    if (printing()) {
        print_put(*this, *m_state, len);
    }
    HandlerPin owner;
    Infra::CGuard guard(m_state->m_mutex);
    CSock* const m_stream = m_state->m_stream;
    assert(m_stream != NULL);
    const PutEnd end = m_state->put(buf, len);
    if (end == PutEnd::NO_MEMORY || end == PutEnd::LOST) {
        INFRA_LOG(2, "%s no memory for %u bytes!\n", INFRA_FUNCTION, len);
    }
    bool failed = end == PutEnd::FAILED || end == PutEnd::LOST;
    if (end == PutEnd::BEGINS_WAIT) {
        owner = PoolTable::FindHandler(m_state->m_owner_id);
        // Refused by an owner that is open, for want of memory: nobody would write what waits.
        failed = owner && OwnerDoor::Register(*owner.get(), *m_stream, SOCK_WRITE, 0) != 0 &&
                 HandlerInternal::Of(*owner.get()).IsOpen();
    }
    if (failed) {
        report_exception(*this, *m_state, m_stream->GetHandle());
    }
    return end == PutEnd::TAKEN || end == PutEnd::BEGINS_WAIT ? 0 : -1;
}

int CStreamSender::SetBufferSize(unsigned int blocks) {
    Infra::CGuard guard(m_state->m_mutex);
    if (blocks > BLOCK_LIMIT) {
        INFRA_LOG(2, "%s buf size:%u larger than %u blocks!\n", INFRA_FUNCTION, blocks, BLOCK_LIMIT);
    } else if (blocks > m_state->m_buf_num) {
        if (!m_state->grow(blocks)) {
            INFRA_LOG(2, "%s no memory for buf size:%u!\n", INFRA_FUNCTION, blocks);
        }
    } else if (blocks << SEND_BUF_SHIFT < m_state->m_data_len) {
        INFRA_LOG(2, "%s buf size:%d smaller than data len:%d!\n", INFRA_FUNCTION, static_cast<int>(blocks),
                  static_cast<int>(m_state->m_data_len));
        assert(0);
    }
    return 0;
}

unsigned int CStreamSender::GetBufferSize() {
    return Infra::relaxedLoad(m_state->m_buf_num);
}

int CStreamSender::Clear() {
    Infra::CGuard guard(m_state->m_mutex);
    m_state->clear();
    return 0;
}

void CStreamSender::WaitBufferSize(long id, unsigned int size) {
    Infra::CGuard guard(m_state->m_mutex);
    if (!m_state->wait_room(id, static_cast<int>(size))) {
        INFRA_LOG(2, "%s no memory for waiter:%ld!\n", INFRA_FUNCTION, id);
    }
    m_state->check_buffer_free(*this);
}

void CStreamSender::WaitSendFinish(long id) {
    Infra::CGuard guard(m_state->m_mutex);
    if (!m_state->wait_end(id)) {
        INFRA_LOG(2, "%s no memory for waiter:%ld!\n", INFRA_FUNCTION, id);
    }
    m_state->check_buffer_free(*this);
}

void CStreamSender::WaitException(long id) {
    Infra::CGuard guard(m_state->m_mutex);
    m_state->wait_failure(id);
}

int CStreamSender::handle_output(int handle) {
    if (printing()) {
        print_output(*this, *m_state);
    }
    HandlerPin owner;
    Infra::CGuard guard(m_state->m_mutex);
    CSock* const m_stream = m_state->m_stream;
    if (m_stream == nullptr) {
        return -1;
    }
    assert(handle == m_stream->GetHandle());
    if (!m_state->drain(*this)) {
        owner = PoolTable::FindHandler(m_state->m_owner_id);
        if (owner) {
            OwnerDoor::Remove(*owner.get(), *m_stream);
        }
        report_exception(*this, *m_state, m_stream->GetHandle());
    }
    if (m_state->m_data_len == 0) {
        owner = PoolTable::FindHandler(m_state->m_owner_id);
        if (owner) {
            OwnerDoor::Unregister(*owner.get(), *m_stream, SOCK_WRITE);
        }
    }
    return 0;
}

int CStreamSender::handle_close(CNetHandler*) {
    if (m_state != nullptr) {
        // Waits for a call in progress.
        Infra::CGuard guard(m_state->m_mutex);
        m_state->free_all();
    }
    delete this;
    return 0;
}

}  // namespace Orvex::Reticor
