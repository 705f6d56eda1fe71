// DeadNumbers: names whoever has a number closed while it is registered.
#pragma once

#include <cstdint>

#include "Core/record/SockRecord.h"

namespace Orvex::Reticor {

class CThreadPool;

/// Lines at level 2, with class and id of the handler that should have removed its socket.
class DeadNumbers {
public:
    /// The number is about to be closed by CSock::Close. Any thread, with any lock of a product held.
    static void NoteClose(int fd);

    /// A number turned out to be another file's when the kernel was told of its new registration: RemoveSock
    /// was left out. `closes`: the record's m_close_count before that; what CSock::Close has closed since
    /// then is known from NoteClose. `owner`: whose socket it was. With the record's mutex held, which it
    /// leaves.
    static void NoteReuse(CThreadPool& pool, RecordPin event, uint32_t closes, int64_t owner);
};

}  // namespace Orvex::Reticor
