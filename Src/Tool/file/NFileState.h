// CNFile::State: the parts of a file.
#pragma once

#include <Reticor/NFile.h>

#include "Tool/file/CallerSide.h"
#include "Tool/file/DeviceSide.h"
#include "Tool/file/FileExchange.h"
#include "Tool/file/FileList.h"

namespace Orvex::Reticor {

/// The calls come through `m_caller`, the file workers through `m_device`; what the two have to tell each
/// other goes through `m_exchange`. Each part says what its lock guards.
struct __attribute__((visibility("hidden"))) CNFile::State {
    State(CNFile& file, long handler_id, CNStorDev_IF* dev)
        : m_place(file),
          m_exchange(file, handler_id),
          m_device(m_exchange, dev),
          m_caller(m_exchange, m_device) {}

    static State& of(CNFile& file) { return *file.m_state; }

    FileList m_place;
    FileExchange m_exchange;
    DeviceSide m_device;
    CallerSide m_caller;
    CNFile* m_next_to_end = nullptr;  ///< Link of NFileEnd.
};

}  // namespace Orvex::Reticor
