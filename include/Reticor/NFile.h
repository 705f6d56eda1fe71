// CNFile: a file that a handler reads and writes without waiting for the disk.
#pragma once

#include <Reticor/Export.h>
#include <Reticor/NetHandler.h>
#include <Reticor/StorDev.h>

namespace Orvex::Reticor {

constexpr unsigned int FILE_MSG_WRITE = 6;  ///< There is room again: call `Write`.
constexpr unsigned int FILE_MSG_READ = 7;   ///< Data was loaded: call `Read`.
constexpr unsigned int FILE_MSG_ERROR = 8;  ///< The device failed, or an argument was null or empty.

/// An ordered stream of bytes with one position, shared by reads and writes. The calls copy between the
/// caller and a few buffers of 131072 bytes, and return; file workers do the disk's work. What a call could
/// not do now is told by a message to the handler whose id `Open` was given (sender is the file's id), and
/// the call is made again.
///
///     m_file = CNFile::Open(GetID(), path, "w", nullptr);
///     m_file->Write(data, len);             // taken: len, or less when all buffers are at the disk
///     ...                                   // handle_message: 6, then Write the rest
///     m_file->Close();                      // everything that was taken is written
///
/// Without file workers (the library was started without `file_io`, or anew after a full teardown, which is
/// said once in the log), and on a device that asks for none, the same calls go straight to the device, on
/// the caller's thread, and block as long as it does; there are no messages then but 8.
///
/// When is it with the system? When the device has got `Finish` and `Close`, which a file worker does after
/// the last write; on the storage medium, if `SetSync` was called. A failure of either is message 8 and a
/// line at level 2. That it went well nothing tells the caller of a file with the library's own devices; a
/// device of one's own sees it, and when the last `DestroyThreadPool` has returned it holds for every file.
///
/// Where the device fails: message 8, and what could not be written stays in memory. It is tried again with
/// the next write task of the file; one that the caller or `Close` waits for is repeated until it succeeds,
/// after 1 ms, 2 ms, and so on to 250 ms, with message 8 each time. A device that takes 0 bytes has failed as
/// well: no file worker waits inside a device that takes nothing. So a file on a full disk is not lost: it
/// goes on when there is room. What a full teardown still cannot write is lost, and logged at level 2. After
/// a failed load `Read` gives 0 for ever; `SetBufferSize` ends that, as it drops all buffers.
///
/// The end of the library: the last `DestroyThreadPool` writes out every file that has buffers, trying each
/// once, and gives its device `Close`. On a file that was still open `Write` and `Read` give 0 from then on,
/// `Seek` -1; its owner's `Close` deletes it, then or later. Files without buffers stay usable.
///
/// Threads: any that knows the file alive. Calls on one file are serialised by a lock that is held for the
/// time of a copy, never for the device's; only `SetBufferSize`, and a `Stat` that has to ask the device,
/// wait for device calls that are running. `Write`, `Read` and `Seek` of a file without buffers have no lock:
/// call them from one thread at a time. After `Close` the object may be gone.
class RETICOR_API CNFile : public CNetHandler {
public:
    /// Opens a file. `mode` is one of fopen(3); use "a" for `Write` alone. `dev` is the device, which must
    /// stay alive until it gets `Close`; null makes a `CDefaultStorDev`. Blocks for the opening. Needs the
    /// public pool. Result: the file, to be ended by `Close`; null if the device did not open, or, with a
    /// line at level 2, if there is no memory. The device has got `Close` then.
    static CNFile* Open(long handler_id, const char* path, const char* mode, CNStorDev_IF* dev);

    /// Takes up to `len` bytes (INT_MAX at most) at the position. Result: bytes taken; less than `len` means
    /// that message 6 comes, and until then 0 is given. A null or empty argument gives 0 and message 8, and
    /// so does a position at the largest number. A partly filled buffer stays in memory until it fills,
    /// `Seek`, or `Close`.
    ///
    /// Without buffers the device is called until it has taken everything, takes nothing, or fails. Less than
    /// `len` then means that it takes no more now (a full disk, with `CDefaultStorDev`), and no message
    /// comes: try again when there may be room. A failure is message 8, and the result is what was taken
    /// before it.
    int Write(const char* data, unsigned len);

    /// Delivers up to `len` bytes from the position. Result: bytes delivered; with `eof` set they are the
    /// last of the file. Less than `len` without `eof` means that message 7 comes, and until then 0 is given
    /// with `eof` untouched: set it to false before the call, and never loop on it without waiting for the
    /// message. A null or empty argument gives 0 and message 8.
    int Read(char* dst, unsigned len, bool& eof);

    /// Moves the position, and has everything written that was not. `whence` 1 counts from the position, any
    /// other value from the start: the end of the file is not offered. Result: 0; -1 for a position below 0
    /// or above LLONG_MAX - 131072, which changes nothing, and after `Close`. Without buffers it is the
    /// device's `Seek` with its result.
    int Seek(long long offset, int whence);

    /// What the device said when the file was opened: a size that has changed since is not seen. If the
    /// device did not know then it is asked again, on this thread, which waits for the calls of the device
    /// that are under way; after `Close` it is not, and the fields are 0. `info->name` is the path, cut to
    /// 255 bytes. Result: 0, or the device's error, which leaves `info` as it was.
    int Stat(NFile_Info* info);

    /// Gives the file `count` buffers, 4096 at most, of 131072 bytes each whatever `size` says; a `size` or
    /// `count` of 0 gives 4 buffers, as there are at the start, and so does a count that memory has no room
    /// for; if there is none for 4 either the file has no buffers. What a call costs does not depend on the
    /// count.
    /// Call it right after `Open`: data that is not on the device is lost, unless the count is the same.
    /// Messages that are owed are sent. Always 0.
    int SetBufferSize(unsigned size, unsigned count);

    /// Whether the file is to be brought to the storage medium before its device gets `Close`
    /// (`CNStorDev_IF::Finish`); false at the start. Any time before `Close`. Does not wait.
    void SetSync(bool on);

    /// Whether file workers load the blocks after the position before `Read` asks for them; false at the
    /// start. A `Read` that goes on where the last one ended is answered from them, and seldom has to
    /// wait. They take the file's other buffers, so memory stays bounded by `SetBufferSize`; workers are
    /// asked when half of those are used up: with 16 buffers (2 MiB) one call of 256 that read 4 KiB wakes
    /// a worker, with the 4 of the start one of 64.
    ///
    /// Results, messages and the order of the bytes are the same as without. `Seek`, and a `Write` that
    /// needs another buffer, give up what was not begun, and after `Seek` it begins anew with the second
    /// block: single reads here and there cause no further ones. A failure of the device, or of memory,
    /// while reading ahead is told by nothing: `Read` asks again when it comes to the place, and that
    /// failure is message 8. Bytes and an end of the file that others change on the device are seen as
    /// they were when the block was loaded, earlier than without.
    ///
    /// Any thread, any time before `Close`; does not wait; false gives up what was not begun. Without
    /// effect without buffers, and with one.
    void SetReadAhead(bool on);

    /// Ends the file: what was taken is written, then the device gets `Close`, on a file worker. Does not
    /// wait; without buffers the device's `Close` is called right here. Any number of times: only the first
    /// call counts.
    void Close() override;

    /// For the file workers. Writes out everything that was submitted; `arg` 1 sends message 6 if it is owed.
    /// Result: 1, or 0 if another worker is at it or the device failed.
    int handle_write_file(long long arg);

    /// For the file workers. Writes out, then loads what `Read` asked for. Result: 1, or 0 if the device
    /// failed.
    int handle_read_file();

    /// For the file workers. Gives the device `Close` and closes the handler. Always 1.
    int handle_close_file();

    /// The last reference is gone: frees everything. Always -1.
    int handle_close(CNetHandler* self) override;

    struct State;  ///< Private to the library.

private:
    RETICOR_HIDDEN CNFile();
    RETICOR_HIDDEN ~CNFile() override;

    State* m_state;  ///< Owned.
};

}  // namespace Orvex::Reticor
