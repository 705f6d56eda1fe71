// CallerSide: a file's position, and its buffers as the calls use them.
#pragma once

#include <atomic>
#include <climits>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/FileBuf.h>

#include "Tool/file/DeviceSide.h"
#include "Tool/file/FileExchange.h"

namespace Orvex::Reticor {

/// Bytes go two ways between a caller and the device, and each buffer belongs to one side at a time: to this
/// one (under `m_api_mutex`, by `TryLock`) or, from `Submit` to `UnLock`, to the pass that runs on a worker.
/// Read, Write and Seek wait for no device.
///
/// Thread safety: every operation on any thread. Order of the locks: `m_api_mutex`, the pass mutex of the
/// device's side, then one of the others. Workers never take `m_api_mutex`.
class CallerSide {
public:
    /// The highest position from which a whole window still has an end.
    static constexpr long long LAST_WINDOW = LLONG_MAX - CNBufPool::BLOCK_BYTES;

    /// What is left to do of a Close.
    enum class Closing {
        nothing,   ///< It was not the first.
        handler,   ///< The device is closed; the handler is to be.
        by_task,   ///< A close task is to be posted.
        reference  ///< Teardown has done all of it; the owner's reference is to be dropped.
    };

    CallerSide(FileExchange& exchange, DeviceSide& device) : m_exchange(exchange), m_device(device) {}
    CallerSide(const CallerSide&) = delete;
    CallerSide& operator=(const CallerSide&) = delete;

    /// Without buffers calls go to the device.
    unsigned buffers() const { return m_buf_count.load(std::memory_order_relaxed); }

    // ---- with buffers

    int Write(const char* data, unsigned len) {
        Infra::CGuard guard(m_api_mutex);
        return m_exchange.over() ? 0 : write_buffered(data, len);
    }
    int Read(char* dst, unsigned len, bool& eof) {
        if (m_exchange.m_load.reading()) {
            return 0;
        }
        Infra::CGuard guard(m_api_mutex);
        return m_exchange.over() ? 0 : read_buffered(dst, len, eof);
    }
    int Seek(long long offset, int whence);

    /// Whether the windows after the position are loaded before a Read asks for them.
    void set_read_ahead(bool on);

    // ---- its life

    /// `count` buffers instead of those that there are, which are dropped with what they hold; 0 is none.
    /// Whoever waits for the old ones would wait for ever: he is told to look again. Waits for a device call
    /// that runs.
    void replace_buffers(unsigned count);

    /// The owner's Close, up to what its result says.
    Closing close();

    /// The last teardown takes the file out of its pool. True if the owner has not closed it yet: his Close
    /// will drop a reference, which is to be taken before this is left to others.
    bool detach();

    /// The last teardown writes out what the buffers hold, and closes the device. False if something could
    /// not be written. Nothing happens without buffers.
    bool end();

private:
    int write_buffered(const char* data, unsigned len) INFRA_REQUIRES(m_api_mutex);
    int read_buffered(char* dst, unsigned len, bool& eof) INFRA_REQUIRES(m_api_mutex);
    bool hold_write_buffer() INFRA_REQUIRES(m_api_mutex);
    int put_bytes(const char* data, unsigned len) INFRA_REQUIRES(m_api_mutex);
    FileSlot* find_write_buffer() INFRA_REQUIRES(m_api_mutex);
    FileSlot* writable_at_position(bool& pushed) INFRA_REQUIRES(m_api_mutex);
    FileSlot* take_unused_or_clean() INFRA_REQUIRES(m_api_mutex);
    FileSlot* find_read_buffer() INFRA_REQUIRES(m_api_mutex);
    FileSlot* readable_at_position() INFRA_REQUIRES(m_api_mutex);
    FileSlot* take_victim() INFRA_REQUIRES(m_api_mutex);
    void start_load(FileSlot& slot) INFRA_REQUIRES(m_api_mutex);
    void stall_read() INFRA_REQUIRES(m_api_mutex);
    void await_load() INFRA_REQUIRES(m_api_mutex);
    bool submit_ahead(long long from) INFRA_REQUIRES(m_api_mutex);
    void stop_ahead() INFRA_REQUIRES(m_api_mutex);
    void clean_overlap(long long end) INFRA_REQUIRES(m_api_mutex);
    bool push_out(FileSlot& slot) INFRA_REQUIRES(m_api_mutex);
    void submit_all_buffer() INFRA_REQUIRES(m_api_mutex);

    FileExchange& m_exchange;
    DeviceSide& m_device;

    Infra::CMutex m_api_mutex{Infra::LockClass::FILE_API};
    /// 0 is direct mode. Written under `m_api_mutex`, read without it.
    std::atomic<unsigned> m_buf_count{0};
    unsigned m_buf_size INFRA_GUARDED_BY(m_api_mutex) = 0;
    long long m_offset INFRA_GUARDED_BY(m_api_mutex) = 0;          ///< The position.
    FileSlot* m_read_buf INFRA_GUARDED_BY(m_api_mutex) = nullptr;  ///< The last Read left off in it, or null.
    long long m_read_mark INFRA_GUARDED_BY(m_api_mutex) = 0;       ///< The position after the last Read.
    FileSlot* m_write_buf INFRA_GUARDED_BY(m_api_mutex) = nullptr;  ///< The same for Write.
    long long m_write_mark INFRA_GUARDED_BY(m_api_mutex) = 0;
    unsigned m_next_evict INFRA_GUARDED_BY(m_api_mutex) = 0;  ///< Where the search for a victim begins.
    /// The last stalled Read got its message at once; the next one waits for a pass.
    bool m_told_at_once INFRA_GUARDED_BY(m_api_mutex) = false;
    bool m_read_ahead INFRA_GUARDED_BY(m_api_mutex) = false;
    long long m_ahead_end INFRA_GUARDED_BY(m_api_mutex) = 0;  ///< Up to here the read-ahead has asked.
    /// Teardown has taken the file out of its pool; Close drops the owner's reference.
    bool m_orphan INFRA_GUARDED_BY(m_api_mutex) = false;

    friend struct NFileProbe;  // tests
};

}  // namespace Orvex::Reticor
