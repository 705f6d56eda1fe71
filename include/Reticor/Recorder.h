// CRecorder: the flight recorder: what the library's threads did last.
#pragma once

#include <Reticor/Export.h>

namespace Orvex::Reticor {

/// While it is on, each thread keeps its last 65,536 events, of 16 bytes each: calls of handlers, records
/// that were queued and taken, sockets that became ready, timers that were due, frames that were put, sent
/// and dropped, senders that were blocked, tasks of files. An event takes some 15 ns and no lock. While it
/// is off nothing is kept, and no clock is read for it. `reticor-trace` makes a picture of what is dumped.
///
/// Memory: 1 MiB for each thread that meets an event, from its first one on, touched as events come. It is
/// kept for the life of the process, also for the sixteen threads that ended last. A thread for which there
/// is none is not recorded; it is tried again at the next `Start`.
///
/// A dump never stops anybody: threads go on recording while they are read, and what they overwrite meanwhile
/// is left out by `reticor-trace`.
///
/// Thread safety: any thread, except where an operation says otherwise.
class RETICOR_API CRecorder {
public:
    /// Switches it on. Nothing happens if it is. What was recorded before is kept until it is overwritten.
    static void Start();

    /// Switches it off; a call that runs at this moment may still record its end. What was recorded stays,
    /// and can be dumped.
    static void Stop();

    static bool IsOn();  ///< Whether it was switched on.

    /// Writes what all threads have recorded to a file, which only this user may read; one that is there is
    /// replaced. Blocks for as long as the disk takes: some 1 MB for each thread. 0; -1 with errno if it
    /// could not be opened or written.
    static int Dump(const char* path);

    /// Opens the file into which a crash will be dumped, as `Dump` does, in place of one that was opened
    /// before; null closes it. From now on an assertion of the library that fails dumps there before the
    /// process ends. 0; -1 with errno if it could not be opened, and the one before stays. Not while another
    /// thread is in `DumpInCrash`.
    static int OpenCrashFile(const char* path);

    /// Dumps into that file, from its beginning. Takes neither locks nor memory, so it is for the product's
    /// own handler of SIGSEGV and the like: the library has none. 2 KiB of stack. 0; -1 if there is no such
    /// file, it could not be written, or another thread is dumping into it. errno stays as it was.
    static int DumpInCrash();
};

}  // namespace Orvex::Reticor
