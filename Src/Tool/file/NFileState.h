// CNFile::State: the parts of a file.
#pragma once

#include <memory>
#include <new>

#include <Reticor/NFile.h>

#include "Core/count/ObjectRoll.h"
#include "Tool/file/CallerSide.h"
#include "Tool/file/DeviceSide.h"
#include "Tool/file/FileExchange.h"
#include "Tool/file/FileList.h"
#include "Tool/task/FileTask.h"
#include "Tool/task/FileTaskQueue.h"

namespace Orvex::Reticor {

/// The calls come through `m_caller`, the file workers through `m_device`; what the two have to tell each
/// other goes through `m_exchange`. Each part says what its lock guards.
struct __attribute__((visibility("hidden"))) CNFile::State {
    State(CNFile& file, long handler_id, CNStorDev_IF* dev)
        : m_place(file),
          m_exchange(file, handler_id),
          m_device(m_exchange, dev),
          m_caller(m_exchange, m_device),
          m_close_task(new (std::nothrow) FileTask),
          m_holds(m_close_task != nullptr && file_tasks().Hold()) {}
    ~State() {
        if (m_holds) {
            file_tasks().Drop();
        }
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    static State& of(CNFile& file) { return *file.m_state; }

    FileList m_place;
    FileExchange m_exchange;
    DeviceSide m_device;
    CallerSide m_caller;
    std::unique_ptr<FileTask> m_close_task;  ///< Taken with the file, since Close must not fail.
    const bool m_holds;                      ///< False: there was no memory for the file.
    CNFile* m_next_to_end = nullptr;         ///< Link of NFileEnd.
    /// In snapshots. The last member.
    RollEntry m_roll{KIND, &figures, this};

private:
    static const ObjectKind KIND;

    static ObjectValues figures(const void* object);
};

}  // namespace Orvex::Reticor
