// CNBufPool: the blocks that windows of files use.
#include <new>

#include <Infra/LockClasses.h>
#include <Reticor/FileBuf.h>

namespace Orvex::Reticor {

namespace {

constexpr int POOL_LIMIT = 257;
constexpr int WARM_UP_ROUNDS = 64;

}  // namespace

// Each round takes the block of the one before: a new pool holds a single block, and memory is taken only as
// files need it.
CNBufPool::CNBufPool() : m_mutex(Infra::LockClass::FILE_POOL) {
    for (int i = 0; i < WARM_UP_ROUNDS; ++i) {
        if (buffer_node* const node = Pop()) {
            Push(node);
        }
    }
}

CNBufPool::~CNBufPool() {
    Infra::CGuard guard(m_mutex);
    while (m_head != nullptr) {
        buffer_node* const node = m_head;
        m_head = node->m_next;
        FreeNode(node);
    }
}

buffer_node* CNBufPool::NewNode() {
    auto* const node = new (std::nothrow) buffer_node;
    if (node == nullptr) {
        return nullptr;
    }
    node->m_buf = new (std::nothrow) char[BLOCK_BYTES];
    if (node->m_buf == nullptr) {
        delete node;
        return nullptr;
    }
    return node;
}

void CNBufPool::FreeNode(buffer_node* node) {
    delete[] node->m_buf;
    delete node;
}

void CNBufPool::Push(buffer_node* node) {
    node->m_next = nullptr;
    {
        Infra::CGuard guard(m_mutex);
        if (m_count < POOL_LIMIT) {
            (m_tail != nullptr ? m_tail->m_next : m_head) = node;
            m_tail = node;
            ++m_count;
            return;
        }
    }
    FreeNode(node);
}

buffer_node* CNBufPool::Pop() {
    {
        Infra::CGuard guard(m_mutex);
        if (buffer_node* const node = m_head) {
            m_head = node->m_next;
            if (m_head == nullptr) {
                m_tail = nullptr;
            }
            --m_count;
            return node;
        }
    }
    return NewNode();
}

int CNBufPool::Size() {
    Infra::CGuard guard(m_mutex);
    return m_count;
}

}  // namespace Orvex::Reticor
