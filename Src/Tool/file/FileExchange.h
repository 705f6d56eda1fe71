// FileExchange: where the two sides of a file meet.
#pragma once

#include <atomic>

#include "Tool/file/FileSlots.h"
#include "Tool/file/OwedMessages.h"
#include "Tool/file/PassTurn.h"
#include "Tool/file/PendingLoad.h"

namespace Orvex::Reticor {

class CNFile;

/// What the caller's side and the device's side of one file share: the buffers, and what each has to tell the
/// other. Each part has its own lock.
class FileExchange {
public:
    FileExchange(CNFile& file, long handler_id) : m_owed(file, handler_id), m_file(file) {}
    FileExchange(const FileExchange&) = delete;
    FileExchange& operator=(const FileExchange&) = delete;

    CFileSlots m_slots;
    OwedMessages m_owed;
    PendingLoad m_load;
    PassTurn m_turn;

    // Without memory for a task the work is left to the file's next one, be it the one that closes; whoever
    // waits for it is told to try again.

    /// What was submitted is to be written: by a task, or by the pass that runs.
    void post_write();
    /// The same, tried until it succeeds, and message 6 is paid.
    void post_flush();
    /// A task that goes on with a pass, or begins one, and loads.
    void post_load();
    /// What is to be read ahead is to be loaded: by a task, or by the pass that runs.
    void post_ahead();

    /// The owner has called Close. False if he had before.
    bool close() { return !m_closed.exchange(true); }
    bool closed() const { return m_closed.load(); }
    /// Teardown ends the file.
    void end() { m_ended.store(true); }
    /// Neither Read nor Write is possible any more, nor may the device be asked for anything but its end.
    bool over() const { return m_closed.load() || m_ended.load(); }

private:
    CNFile& m_file;
    std::atomic<bool> m_closed{false};
    std::atomic<bool> m_ended{false};
};

}  // namespace Orvex::Reticor
