// NFileEnd: what the last teardown does with the files that are left.
#pragma once

namespace Orvex::Reticor {

class CNFile;
class CThreadPool;

/// Files leave their pool while its memory is there, under the lock that serialises set-up and teardown. What
/// calls devices and drops references comes after that lock: a device, and whoever hears of its Close, may
/// call into CNetThread.
///
/// One thread at a time.
class NFileEnd {
public:
    NFileEnd() = default;
    NFileEnd(const NFileEnd&) = delete;
    NFileEnd& operator=(const NFileEnd&) = delete;

    /// Writes out the files that have buffers, each once, gives their devices Finish and Close, and drops the
    /// references on all. A file that its owner has closed is deleted by that. The others stay for the
    /// owner's Close, which deletes them. Blocks as long as the devices do; no lock is to be held.
    ~NFileEnd();

    /// Takes the files of the public pool, whose threads have ended and whose slot is empty, out of it.
    /// Nobody serves the close message that a file may have posted, or will post, and nobody receives its
    /// messages any more. With no file worker running.
    void take(CThreadPool& pool);

private:
    void detach(CNFile& file, CThreadPool& pool);

    CNFile* m_first = nullptr;  ///< Linked by CNFile::State::m_next_to_end; each with a reference.
};

}  // namespace Orvex::Reticor
