// FileTaskQueue: the FIFO of the file workers.
#include "Tool/task/FileTaskQueue.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Orvex::Reticor {

namespace {

constexpr uint32_t FIRST_REST_MS = 1;
constexpr uint32_t LONGEST_REST_MS = 250;

}  // namespace

void FileTaskQueue::Chain::append(FileTask* task) {
    task->m_next = nullptr;
    if (tail != nullptr) {
        tail->m_next = task;
    } else {
        head = task;
    }
    tail = task;
}

FileTask* FileTaskQueue::Chain::take() {
    FileTask* const task = head;
    if (task != nullptr) {
        head = task->m_next;
        if (head == nullptr) {
            tail = nullptr;
        }
    }
    return task;
}

bool FileTaskQueue::Hold() {
    Infra::CGuard guard(m_mutex);
    try {
        m_spare.emplace(nullptr, FileEntry());
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

void FileTaskQueue::Drop() {
    Infra::CGuard guard(m_mutex);
    if (!m_spare.empty()) {
        m_spare.erase(m_spare.begin());
    }
}

/// The file's entry, a new one if it has none; the end without memory.
FileTaskQueue::Entries::iterator FileTaskQueue::entry_of(CNFile* file) {
    const auto found = m_pending.find(file);
    if (found != m_pending.end()) {
        return found;
    }
    if (!m_spare.empty()) {
        auto node = m_spare.extract(m_spare.begin());
        node.key() = file;
        node.mapped() = FileEntry();
        return m_pending.insert(std::move(node)).position;
    }
    try {
        return m_pending.emplace(file, FileEntry()).first;
    } catch (const std::bad_alloc&) {
        return m_pending.end();
    }
}

void FileTaskQueue::rest_entry(Entries::iterator entry) {
    auto node = m_pending.extract(entry);
    node.key() = nullptr;
    m_spare.insert(m_spare.end(), std::move(node));
}

bool FileTaskQueue::Put(FileTask* task, bool count) {
    Infra::CGuard guard(m_mutex);
    if (count) {
        const auto entry = entry_of(task->m_file);
        if (entry == m_pending.end()) {
            return false;
        }
        ++entry->second.count;
    }
    m_list.append(task);
    return true;
}

FileTask* FileTaskQueue::Get() {
    Infra::CGuard guard(m_mutex);
    FileTask* const task = m_list.take();
    if (task != nullptr) {
        const auto found = m_pending.find(task->m_file);
        task->m_seen = found != m_pending.end() ? found->second.releases : 0;
    }
    return task;
}

void FileTaskQueue::Release(CNFile* file) {
    Infra::CGuard guard(m_mutex);
    const auto found = m_pending.find(file);
    if (found == m_pending.end()) {
        return;
    }
    let_go(found->second);
    if (--found->second.count == 0) {
        rest_entry(found);
    }
}

int FileTaskQueue::Count(CNFile* file) {
    Infra::CGuard guard(m_mutex);
    const auto found = m_pending.find(file);
    return found != m_pending.end() ? found->second.count : 0;
}

void FileTaskQueue::put_again(FileTask* task) {
    m_list.append(task);
    if (m_wake != nullptr) {
        m_wake->post();
    }
}

void FileTaskQueue::let_go(FileEntry& entry) {
    ++entry.releases;
    while (FileTask* const task = entry.parked.take()) {
        put_again(task);
    }
}

void FileTaskQueue::park(FileEntry& entry, FileTask* task) {
    if (entry.releases != task->m_seen) {
        put_again(task);
    } else {
        entry.parked.append(task);
    }
}

void FileTaskQueue::Park(FileTask* task) {
    Infra::CGuard guard(m_mutex);
    const auto found = m_pending.find(task->m_file);
    if (found != m_pending.end()) {
        park(found->second, task);
    } else {
        put_again(task);
    }
}

bool FileTaskQueue::ParkUnlessLast(FileTask* task) {
    Infra::CGuard guard(m_mutex);
    const auto found = m_pending.find(task->m_file);
    if (found == m_pending.end() || found->second.count == 1) {
        return false;
    }
    park(found->second, task);
    return true;
}

void FileTaskQueue::Rest(FileTask* task, uint64_t now_us) {
    Infra::CGuard guard(m_mutex);
    task->m_wait_ms = task->m_wait_ms == 0 ? FIRST_REST_MS : std::min(2 * task->m_wait_ms, LONGEST_REST_MS);
    task->m_due_us = now_us + uint64_t{task->m_wait_ms} * 1000;
    insert_resting(task);
    const auto found = m_pending.find(task->m_file);
    if (found != m_pending.end()) {
        let_go(found->second);
    }
}

void FileTaskQueue::insert_resting(FileTask* task) {
    FileTask** place = &m_resting;
    while (*place != nullptr && (*place)->m_due_us <= task->m_due_us) {
        place = &(*place)->m_next;
    }
    task->m_next = *place;
    *place = task;
}

bool FileTaskQueue::BeginWatch(uint64_t* due_us) {
    Infra::CGuard guard(m_mutex);
    if (m_resting == nullptr || m_watched_us <= m_resting->m_due_us) {
        return false;
    }
    m_watched_us = m_resting->m_due_us;
    *due_us = m_watched_us;
    return true;
}

void FileTaskQueue::EndWatch(uint64_t due_us, uint64_t now_us, bool leaving) {
    Infra::CGuard guard(m_mutex);
    if (m_watched_us == due_us) {
        m_watched_us = NEVER;
    }
    while (m_resting != nullptr && m_resting->m_due_us <= now_us) {
        FileTask* const task = m_resting;
        m_resting = task->m_next;
        put_again(task);
    }
    if (leaving && m_resting != nullptr && m_watched_us == NEVER) {
        m_wake->post();
    }
}

void FileTaskQueue::Clear(FileTaskQueue& rest) {
    Chain all;
    {
        Infra::CGuard guard(m_mutex);
        while (FileTask* const task = m_list.take()) {
            all.append(task);
        }
        while (m_resting != nullptr) {
            FileTask* const task = m_resting;
            m_resting = task->m_next;
            all.append(task);
        }
        for (auto& entry : m_pending) {
            while (FileTask* const task = entry.second.parked.take()) {
                all.append(task);
            }
        }
        while (!m_pending.empty()) {
            rest_entry(m_pending.begin());
        }
    }
    while (FileTask* const task = all.take()) {
        rest.Put(task, false);
    }
}

}  // namespace Orvex::Reticor
