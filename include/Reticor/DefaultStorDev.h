// CDefaultStorDev: a storage device over the C library's stream files.
#pragma once

#include <Reticor/StorDev.h>

namespace Orvex::Reticor {

/// The device that `CNFile::Open` makes when it is given none: fopen(3) and its family. The stream has no
/// buffer of its own: what a call says it has written is with the system, and each call is a system call.
///
/// Choose it for plain files that one side reads or writes in order, and where a product counts on stdio's
/// ways. Choose `CPosixStorDev` where a full disk must be told as a failure (here it is a short count, or 0),
/// where one file is read and written at a time, or where several threads work on one file.
///
/// A stream opened for appending ("a", "a+") writes at the end of the file whatever `Seek` said. Through a
/// `CNFile` it is for `Write` alone: a block that was read, changed and written back would be appended.
///
/// A directory can be opened for reading, as fopen(3) has it, and reads as an empty file.
///
/// Threads: no lock of its own; one thread at a time. All operations may block but the constructors.
class RETICOR_API CDefaultStorDev : public CNStorDev_IF {
public:
    /// Without memory, be it here or in the copy, there is no stream, and `Open` gives -1.
    CDefaultStorDev();
    /// The copy shares the stream, which is closed when the last of them is gone.
    CDefaultStorDev(const CDefaultStorDev& other);
    /// Lets go of the own stream and shares the other's.
    CDefaultStorDev& operator=(const CDefaultStorDev& other);
    /// Closes the stream unless a copy shares it. A failure is logged at level 2.
    ~CDefaultStorDev() override;

    /// fopen(3) of the first 255 bytes of `path`, close-on-exec. Result: 0; -1 with a line at level 2.
    int Open(const char* path, const char* mode) override;

    /// Deletes the object, which must have been made by `new`.
    void Close() override;

    /// fwrite(3). Result: bytes taken, less than `len` or 0 where the disk is full; never -1. 0 without an
    /// open stream.
    int Write(const char* data, unsigned len) override;

    /// fread(3). Result: bytes read; 0 at the end of the file and where reading fails. 0 without an open
    /// stream.
    int Read(char* dst, unsigned len) override;

    /// Any 64-bit offset. `whence` 0 or 1; others give -1, as does a closed stream.
    int Seek(long long offset, int whence) override;

    /// stat(2) of the path. Result: 0; -1 with a line at level 2.
    int Stat(NFile_Info* info) override;

    /// fdatasync(2) with `sync`, then fclose(3) unless a copy shares the stream. Result: 0; -1 if one of them
    /// failed, with a line at level 2. The device has no stream from then on.
    int Finish(bool sync) override;

private:
    struct State;
    State* m_state;  ///< Owned.
};

}  // namespace Orvex::Reticor
