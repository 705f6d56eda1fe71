// DeadNumbers: at the close, and at the next registration.
#include "Core/service/DeadNumbers.h"

#include <optional>

#include <Infra/Log.h>

#include "Core/count/ClassRows.h"
#include "Core/pool/PoolLease.h"
#include "Core/pool/PoolTable.h"
#include "Core/pool/ThreadPool.h"
#include "Socket/socket/CloseCount.h"

namespace Orvex::Reticor {

namespace {

/// The class of an open handler, without a reference: that must not be dropped under somebody's lock. Null
/// without one.
const char* open_class(CThreadPool& pool, int64_t id) {
    const std::optional<uint32_t> row = pool.m_obj_tree.RowOf(id);
    return row ? ClassRows::Name(*row) : nullptr;
}

}  // namespace

void DeadNumbers::NoteClose(int fd) {
    for (int index = 0; index < PoolTable::POOL_LIMIT; ++index) {
        const PoolLease pool(index);
        if (!pool) {
            continue;
        }
        RecordPin event = RecordPin::Adopt(static_cast<CEvent*>(pool->m_sock_tree.Find(fd)));
        if (!event || (event->m_event_mask & SOCK_REMOVED) != 0) {
            continue;
        }
        const int64_t owner = event->m_obj_id;
        event.Leave();
        if (const char* const name = open_class(*pool, owner)) {
            INFRA_LOG_STATIC(
                2, "Close registered sock, fd: %d, class: %s, id: %ld, remove it before it is closed\n", fd,
                name, static_cast<long>(owner));
        }
    }
}

void DeadNumbers::NoteReuse(CThreadPool& pool, RecordPin event, uint32_t closes, int64_t owner) {
    const int fd = static_cast<int>(event->m_key);
    event.Leave();
    if (close_count(fd) != closes) {
        return;
    }
    if (const char* const name = open_class(pool, owner)) {
        INFRA_LOG_STATIC(
            2, "RegisterSock reused sock, fd: %d, class: %s, id: %ld, remove it before it is closed\n", fd,
            name, static_cast<long>(owner));
    }
}

}  // namespace Orvex::Reticor
