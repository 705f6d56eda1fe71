// CPosixStorDev: a storage device over pread(2) and pwrite(2).
#pragma once

#include <Reticor/StorDev.h>

namespace Orvex::Reticor {

/// Hands every byte to the kernel in the call that brings it; nothing waits in a buffer of the process.
///
/// Choose it, instead of the default device, where a full disk or an input/output error is to be reported by
/// the write that meets it (-1, and so message 8 of the file), where one file is read and written at the same
/// time, and for files of any size.
///
/// Threads: any. The position and the transfer at it are one step, so that two calls at once never mix. Each
/// file worker has a position of its own from its `Seek` on: a load and a write pass that run side by side do
/// not disturb each other. All other threads share one position, as those that call one file in turn expect.
///
/// All operations but the constructor, `Seek` and `NeedAIO` may block.
class RETICOR_API CPosixStorDev : public CNStorDev_IF {
public:
    /// Without memory `Open` gives -1.
    CPosixStorDev();
    CPosixStorDev(const CPosixStorDev&) = delete;
    CPosixStorDev& operator=(const CPosixStorDev&) = delete;
    /// Closes the descriptor, if `Finish` has not. A failure is logged at level 2.
    ~CPosixStorDev() override;

    /// open(2), close-on-exec, with the meaning of fopen(3)'s modes: 'r', 'w' or 'a' first, '+' for both
    /// directions, 'x' to insist on a new file; other letters are ignored. A directory is refused. What is
    /// written to a file opened for appending goes to its end. Result: 0; -1 with a line at level 2.
    int Open(const char* path, const char* mode) override;

    /// Deletes the object, which must have been made by `new`.
    void Close() override;

    /// Result: bytes written, which may be less than `len`; -1 on failure, a full disk among them, with
    /// `errno` set.
    int Write(const char* data, unsigned len) override;

    /// Result: bytes read, 0 at the end of the file; -1 on failure with `errno` set.
    int Read(char* dst, unsigned len) override;

    /// Any offset from 0 to the largest 64-bit number. `whence` 0 or 1. Result: 0; -1 for other values, for a
    /// position below 0, and for what has no positions (a pipe, which is read and written in order).
    int Seek(long long offset, int whence) override;

    /// fstat(2) of the open file. Result: 0; -1 with a line at level 2.
    int Stat(NFile_Info* info) override;

    /// fdatasync(2) with `sync`, then close(2). Result: 0; -1 if one of them failed, with a line at level 2.
    /// All other calls but `Open` and `Close` fail from then on.
    int Finish(bool sync) override;

private:
    struct State;
    State* m_state;  ///< Owned.
};

}  // namespace Orvex::Reticor
