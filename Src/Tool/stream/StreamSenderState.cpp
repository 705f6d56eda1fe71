// StreamSenderState: the chain of blocks, what is written from it, and who waits for what.
#include "Tool/stream/StreamSenderState.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>
#include <utility>

#include <Reticor/NetHandler.h>
#include <Reticor/StreamSender.h>

#include "Core/service/Message.h"
#include "Socket/socket/SocketWriter.h"

namespace Orvex::Reticor {

const ObjectKind StreamSenderState::KIND{"stream_sender",
                                         {{{"waiting_bytes", "Bytes that wait for room in a socket.", false},
                                           {"buffer_bytes", "Bytes that may wait.", false},
                                           {"sent_bytes", "Bytes that sockets took.", true},
                                           {"refused_puts", "Calls for which there was no room.", true}}}};

ObjectValues StreamSenderState::figures(const void* object) {
    const auto& state = *static_cast<const StreamSenderState*>(object);
    return {Infra::relaxedLoad(state.m_data_len), state.buffer_size(), state.m_sent.Get(),
            state.m_refused.Get()};
}

StreamSenderState::StreamSenderState() : m_iovec(new (std::nothrow) iovec[m_buf_num + 1]) {}

StreamSenderState::~StreamSenderState() = default;

void StreamSenderState::attach(CNetHandler* owner, CSock* stream) {
    m_owner = owner;
    m_owner_id = owner != nullptr ? owner->GetID() : 0;
    m_stream = stream;
    m_stream_type = stream != nullptr ? stream->GetType() : SOCK_TYPE_UNKNOWN;
}

PutEnd StreamSenderState::put(const char* buf, uint32_t len) {
    if (m_data_len != 0) {
        // What came earlier goes first.
        if (buffer_size() - m_data_len < len) {
            m_refused.Increment();
            return PutEnd::REFUSED;
        }
        return put_buffer(buf, len, 0) ? PutEnd::TAKEN : PutEnd::NO_MEMORY;
    }
    const int result = send(buf, len);
    if (result == -1) {
        return PutEnd::FAILED;
    }
    const auto sent = static_cast<uint32_t>(result);
    m_sent.Add(sent);
    if (sent >= len) {
        return PutEnd::TAKEN;
    }
    if (!put_buffer(buf, len, sent)) {
        return sent != 0 ? PutEnd::LOST : PutEnd::NO_MEMORY;  // The other side waits for a rest that is lost.
    }
    return PutEnd::BEGINS_WAIT;
}

bool StreamSenderState::drain(CStreamSender& sender) {
    if (m_data_len == 0) {
        return true;
    }
    const int sent = write_v(gather());
    if (sent > 0) {
        m_sent.Add(static_cast<uint64_t>(sent));
        del_buffer_header(static_cast<uint32_t>(sent));
        check_buffer_free(sender);
    }
    return sent >= 0;
}

int StreamSenderState::send(const char* buf, uint32_t len) {
    if (!SocketWriter::is_byte_stream(m_stream_type)) {
        assert(0);
    }
    return SocketWriter(*m_stream, m_stream_type).send(buf, len);
}

int StreamSenderState::write_v(uint32_t count) {
    if (!SocketWriter::is_byte_stream(m_stream_type)) {
        assert(0);
    }
    return SocketWriter(*m_stream, m_stream_type).write_v(m_iovec.get(), static_cast<int>(count));
}

// Null if there is no memory.
SSendBuf* StreamSenderState::new_buffer() {
    auto* block = new (std::nothrow) SSendBuf();
    if (block != nullptr) {
        block->reset();
        block->m_end = block->m_data + sizeof block->m_data;
    }
    return block;
}

// Sees to it that the tail and the spare blocks after it have room for `len` bytes.
bool StreamSenderState::reserve(uint32_t len) {
    if (m_head == nullptr) {
        m_head = m_tail = new_buffer();
        if (m_head == nullptr) {
            return false;
        }
    }
    uint64_t room = m_tail->room();
    for (SSendBuf* last = m_tail; room < len; last = last->m_next) {
        if (last->m_next == nullptr) {
            SSendBuf* const fresh = new_buffer();
            if (fresh == nullptr) {
                return false;
            }
            fresh->m_prev = last;
            last->m_next = fresh;
        }
        room += SEND_BUF_BYTES;
    }
    return true;
}

bool StreamSenderState::put_buffer(const char* buf, uint32_t len, uint32_t already_sent) {
    assert(len > (uint32_t)already_sent);
    buf += already_sent;
    len -= already_sent;
    if (!reserve(len)) {
        return false;
    }
    set_data_len(m_data_len + len);
    // The tail moves on only when more bytes wait, so a block that is exactly full stays the tail.
    while (len > m_tail->room()) {
        const uint32_t room = m_tail->room();
        std::memcpy(m_tail->m_write, buf, room);
        m_tail->m_write += room;
        buf += room;
        len -= room;
        m_tail->m_next->m_prev = m_tail;
        m_tail = m_tail->m_next;
    }
    std::memcpy(m_tail->m_write, buf, len);
    m_tail->m_write += len;
    return true;
}

uint32_t StreamSenderState::gather() {
    const uint32_t first = m_head->size();
    const uint32_t last = m_tail != m_head ? m_tail->size() : 0;
    // Inner blocks are full, so their number follows from what they hold.
    const uint32_t iovec_num = ((m_data_len - first - last) >> SEND_BUF_SHIFT) + 1 + (last != 0 ? 1 : 0);
    uint32_t index = 0;
    for (const SSendBuf* block = m_head; block != nullptr; block = block->m_next) {
        m_iovec[index].iov_base = block->m_read;
        m_iovec[index].iov_len = block->size();
        ++index;
        if (block == m_tail) {
            break;
        }
    }
    assert(index == iovec_num);
    return iovec_num;
}

uint32_t StreamSenderState::del_buffer_header(uint32_t len) {
    uint32_t left = len;
    for (;;) {
        const uint32_t avail = m_head->size();
        if (left < avail) {
            m_head->m_read += left;
            set_data_len(m_data_len - left);
            return len;
        }
        m_head->reset();
        set_data_len(m_data_len - avail);
        left -= avail;
        if (m_head == m_tail) {
            break;
        }
        recycle_head();
        if (left == 0) {
            return len;
        }
    }
    assert(m_data_len == 0);
    return len - left;
}

// The head is empty and not the tail: puts it after all others.
void StreamSenderState::recycle_head() {
    SSendBuf* const drained = m_head;
    SSendBuf* last = m_tail;
    while (last->m_next != nullptr) {
        last = last->m_next;
    }
    m_head = drained->m_next;
    m_head->m_prev = nullptr;
    last->m_next = drained;
    drained->m_prev = last;
    drained->m_next = nullptr;
}

bool StreamSenderState::grow(uint32_t blocks) {
    std::unique_ptr<iovec[]> longer(new (std::nothrow) iovec[size_t{blocks} + 1]);
    if (longer == nullptr) {
        return false;
    }
    m_iovec = std::move(longer);
    Infra::relaxedStore(m_buf_num, blocks);
    return true;
}

bool StreamSenderState::wait_room(long id, int size) {
    try {
        m_wait_size[id] = size;
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool StreamSenderState::wait_end(long id) {
    if (std::find(m_wait_finish.begin(), m_wait_finish.end(), id) == m_wait_finish.end()) {
        try {
            m_wait_finish.push_back(id);
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    return true;
}

void StreamSenderState::check_buffer_free(CStreamSender& sender) {
    // Fits: the capacity has a limit below what an int holds.
    const auto free = static_cast<int>(buffer_size() - m_data_len);
    for (auto& [id, size] : m_wait_size) {
        if (size > 0 && free >= size) {
            CMessage::Tell(sender.GetID(), id, STREAM_SENDER_ROOM, free);
            size = -1;
        }
    }
    if (m_data_len == 0) {
        for (const long id : m_wait_finish) {
            CMessage::Tell(sender.GetID(), id, STREAM_SENDER_DRAINED, 0);
        }
        m_wait_finish.clear();
    }
}

void StreamSenderState::tell_failure(CStreamSender& sender) {
    CMessage::Tell(sender.GetID(), m_exception_id, STREAM_SENDER_FAILED, 0);
}

std::pair<CSock*, int> StreamSenderState::socket() const {
    Infra::CGuard guard(m_mutex);
    return {m_stream, m_stream != nullptr ? m_stream->GetHandle() : -1};
}

void StreamSenderState::clear() {
    for (SSendBuf* block = m_tail; block != nullptr; block = block->m_prev) {
        block->reset();
    }
    m_tail = m_head;
    set_data_len(0);
}

void StreamSenderState::free_all() {
    while (m_head != nullptr) {
        delete std::exchange(m_head, m_head->m_next);
    }
    m_tail = nullptr;
    m_iovec.reset();
    m_stream = nullptr;
    m_stream_type = SOCK_TYPE_UNKNOWN;
    m_owner = nullptr;
    m_owner_id = 0;
}

}  // namespace Orvex::Reticor
