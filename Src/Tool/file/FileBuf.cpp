// CNFileBuf: a window of a file in memory.
#include <Reticor/FileBuf.h>

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>
#include <new>

#include <Infra/LockClasses.h>

namespace Orvex::Reticor {

CNBufPool* CNFileBuf::m_buf_pool = nullptr;
Infra::CMutex CNFileBuf::m_pool_mutex{Infra::LockClass::FILE_POOL_LIFE};
int CNFileBuf::m_pool_ref_cnt = 0;

CNFileBuf::CNFileBuf() : m_mutex(Infra::LockClass::FILE_BUFFER) {
    Infra::CGuard guard(m_pool_mutex);
    if (m_buf_pool == nullptr) {
        m_buf_pool = new (std::nothrow) CNBufPool;
        m_pool_ref_cnt += m_buf_pool != nullptr ? 1 : 0;
    }
}

CNFileBuf::~CNFileBuf() {
    Infra::CGuard guard(m_pool_mutex);
    if (m_data != nullptr) {
        m_data = nullptr;
        if (m_buf_pool != nullptr) {
            m_buf_pool->Push(m_node);
        } else {
            CNBufPool::FreeNode(m_node);
        }
    }
    if (--m_pool_ref_cnt == 0) {
        delete m_buf_pool;
        m_buf_pool = nullptr;
    }
}

bool CNFileBuf::TryLock() {
    Infra::CGuard guard(m_mutex);
    if (m_busy) {
        return false;
    }
    m_busy = true;
    return true;
}

void CNFileBuf::UnLock() {
    Infra::CGuard guard(m_mutex);
    m_busy = false;
    m_submit = SUBMIT_NONE;
}

void CNFileBuf::Submit(SUBMIT_EVENT event) {
    Infra::CGuard guard(m_mutex);
    assert(m_busy == true);
    m_submit = event;
}

int CNFileBuf::GetSubmitType() {
    Infra::CGuard guard(m_mutex);
    return m_submit;
}

// Without the lock by intent but for the one field that others look at: the owner of the contents calls it.
void CNFileBuf::Reset() {
    {
        Infra::CGuard guard(m_mutex);
        m_submit = SUBMIT_NONE;
    }
    m_file_offset = -1;
    m_buf_offset = 0;
    m_eof = false;
    m_dirty = false;
}

char* CNFileBuf::Malloc() {
    if (m_data != nullptr) {
        return m_data;
    }
    Infra::CGuard guard(m_pool_mutex);
    if (m_buf_pool != nullptr) {
        m_node = m_buf_pool->Pop();
        m_data = m_node != nullptr ? m_node->m_buf : nullptr;
    }
    return m_data;
}

void CNFileBuf::Free() {
    Infra::CGuard guard(m_pool_mutex);
    if (m_data != nullptr && m_buf_pool != nullptr) {
        m_data = nullptr;
        m_buf_pool->Push(m_node);
    }
}

int CNFileBuf::Write(const char* data, unsigned len, bool& full, long long file_offset) {
    assert(m_file_offset >= 0 && file_offset >= m_file_offset);
    assert((uint64_t)(file_offset - m_file_offset) <= m_buf_offset);
    const auto pos = static_cast<unsigned>(file_offset - m_file_offset);
    const unsigned n = std::min(len, m_buf_size - pos);
    std::memcpy(m_data + pos, data, n);
    const unsigned end = pos + n;
    m_buf_offset = std::max(m_buf_offset, end);
    full = end == m_buf_size;
    m_dirty = true;
    return static_cast<int>(n);
}

int CNFileBuf::Read(char* dst, unsigned len, bool& drained, bool& eof, long long file_offset) {
    assert(m_file_offset >= 0 && file_offset >= m_file_offset);
    assert((uint64_t)(file_offset - m_file_offset) <= m_buf_offset);
    const auto pos = static_cast<unsigned>(file_offset - m_file_offset);
    const unsigned avail = m_buf_offset - pos;
    const unsigned n = std::min(len, avail);
    if (n != 0) {
        std::memcpy(dst, m_data + pos, n);
    }
    drained = n == avail;
    eof = drained && m_eof;
    return static_cast<int>(n);
}

}  // namespace Orvex::Reticor
