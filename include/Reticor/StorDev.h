// CNStorDev_IF: the device under a CNFile. NFile_Info: what a device knows of its file.
#pragma once

#include <cstdint>

#include <Reticor/Export.h>

namespace Orvex::Reticor {

/// A file's times, in seconds since 1970, and its size.
struct NFile_Info {
    int64_t time_create = 0;  ///< Last change of the file's status.
    int64_t time_access = 0;  ///< Last access.
    int64_t time_write = 0;   ///< Last modification of the contents.
    int64_t size = 0;         ///< Bytes.
    int32_t attrib = 0;       ///< 0 from the library's own devices.
    char name[256] = {};      ///< The path, cut to 255 bytes.
};

/// What `CNFile` reads from and writes to. A product that derives from it puts storage of its own under the
/// same asynchronous file: a cache, an archive, an encryption.
///
/// Order of the calls: `Open` once, `Stat` right after it, then `Seek`, `Read` and `Write`, `Finish` once,
/// and `Close` once and last. `Open` that fails is followed by `Close` alone.
///
/// Threads: a `CNFile` makes one call at a time, but not always on the same thread: on file workers while it
/// has buffers, else on the thread that calls the file; `Stat` and `NeedAIO` on the caller's thread in any
/// case. What else uses the device is the device's own affair.
///
/// No operation may throw. They may block; that is what the file workers are for.
class RETICOR_API CNStorDev_IF {
public:
    CNStorDev_IF();
    /// Copies nothing.
    CNStorDev_IF(const CNStorDev_IF& other);
    /// Copies nothing.
    CNStorDev_IF& operator=(const CNStorDev_IF& other);
    virtual ~CNStorDev_IF();

    /// Opens `path` in a mode of fopen(3). Result: 0 or more; negative on failure.
    virtual int Open(const char* path, const char* mode) = 0;

    /// The last call that the device gets: it releases the device. Whether it deletes the object is between
    /// the device and whoever made it; a `CNFile` never touches the pointer again.
    virtual void Close() = 0;

    /// Writes at the position and moves it. Result: bytes written, 1 to `len`; -1 on failure. A file takes
    /// any other result for a failure too. `len` is never above INT_MAX.
    virtual int Write(const char* data, unsigned len) = 0;

    /// Reads at the position and moves it. Result: bytes read, 0 at the end of the file, -1 on failure.
    virtual int Read(char* dst, unsigned len) = 0;

    /// Moves the position; `whence` 0 counts from the start of the file, 1 from the position. Result: 0 on
    /// success. A device without positions fails here, and is still written and read in order.
    virtual int Seek(long long offset, int whence) = 0;

    /// Fills `info`. Result: 0 on success.
    virtual int Stat(NFile_Info* info) = 0;

    /// Whether calls of this device may block and are to be made on file workers. Asked once, after the first
    /// `Stat`. True unless overridden. A device that answers false is called directly, on the thread of the
    /// file's caller.
    virtual bool NeedAIO();

    /// Right before `Close`, on the same thread: everything in closing that can fail. With `sync` (see
    /// `CNFile::SetSync`) what was written is to be on the storage medium before this returns. Result: 0;
    /// negative if bytes that `Write` took may not have arrived, and the file's owner gets message 8. The
    /// base class does nothing and gives 0.
    virtual int Finish(bool sync);
};

}  // namespace Orvex::Reticor
