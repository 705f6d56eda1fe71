// What a CNFile holds behind its pointer. The calls of the file are in NFile.cpp, its buffers as the caller's
// side uses them in NFileBuffers.cpp, the worker's side in NFilePass.cpp, and its end at teardown in
// NFileEnd.cpp.
#pragma once

#include <Reticor/NFile.h>

#include <atomic>
#include <climits>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>

#include "Core/handle/HandlerPin.h"
#include "Tool/file/FileSlots.h"

namespace Orvex::Reticor {

class CThreadPool;

/// Bytes go two ways between a caller and the device, and each buffer belongs to one side at a time: to the
/// caller's (under `m_api_mutex`, by `TryLock`) or, from `Submit` to `UnLock`, to the pass that runs on a
/// worker. A file has one pass at a time: it writes out what is submitted and then loads what is asked for,
/// so that a load never overtakes the bytes that it must bring, and nobody else moves the device's position.
///
/// Order of the locks: `m_api_mutex`, `m_pass_mutex`, then one of the others. Workers never take
/// `m_api_mutex`. Only `m_pass_mutex` is held over calls of the device, and `m_msg_mutex` over posting.
struct __attribute__((visibility("hidden"))) CNFile::State {
    /// The highest position from which a whole window still has an end.
    static constexpr long long LAST_WINDOW = LLONG_MAX - CNBufPool::BLOCK_BYTES;

    explicit State(CNFile& file, long handler_id, CNStorDev_IF* dev);
    ~State();

    // Constant after Open, but for the end.
    CNFile& m_file;
    const long m_handler_id;  ///< Receiver of all messages.
    CNStorDev_IF* m_dev;      ///< Null after its Close.
    bool m_opened = false;    ///< The device is open, and is to be finished before its Close.
    bool m_needs_aio = true;  ///< As the device said when it was opened.

    Infra::CMutex m_info_mutex{Infra::LockClass::FILE_INFO};
    /// As the device said last; all 0 while it does not know.
    NFile_Info m_info INFRA_GUARDED_BY(m_info_mutex);

    /// Held by Read, Write and Seek while there are buffers.
    Infra::CMutex m_api_mutex{Infra::LockClass::FILE_API};
    CFileSlots m_slots;
    /// As `m_slots.count()`; 0 is direct mode. Written under `m_api_mutex`, read without it.
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
    /// The owner has called Close. Set under `m_api_mutex`.
    std::atomic<bool> m_closed{false};
    /// Teardown has taken the file out of its pool; Close drops the owner's reference. Set likewise.
    bool m_orphan INFRA_GUARDED_BY(m_api_mutex) = false;
    /// Teardown has given the device Close. Set likewise.
    std::atomic<bool> m_ended{false};

    /// Held over a whole pass, over a Stat of the device, and over its Close.
    Infra::CMutex m_pass_mutex{Infra::LockClass::FILE_PASS};
    /// Where the device stands, as far as its results tell.
    long long m_dev_pos INFRA_GUARDED_BY(m_pass_mutex) = 0;
    /// The device is to bring the file to the medium at its end.
    std::atomic<bool> m_sync{false};
    /// SetBufferSize waits to drop the buffers: the pass ends after the call of the device that it is in.
    std::atomic<bool> m_discard{false};

    Infra::CMutex m_write_mutex{Infra::LockClass::FILE_WRITE};
    bool m_writing INFRA_GUARDED_BY(m_write_mutex) = false;       ///< A pass runs.
    bool m_again INFRA_GUARDED_BY(m_write_mutex) = false;         ///< It is to look for writes once more.
    bool m_load_wanted INFRA_GUARDED_BY(m_write_mutex) = false;   ///< It, or the next one, is to load.
    bool m_flush_wanted INFRA_GUARDED_BY(m_write_mutex) = false;  ///< It is to look again and pay message 6.
    /// Write tasks with argument 1 that are queued and have not begun: a further one would do nothing that
    /// these do not.
    int m_flush_tasks INFRA_GUARDED_BY(m_write_mutex) = 0;

    Infra::CMutex m_read_mutex{Infra::LockClass::FILE_READ};
    bool m_reading INFRA_GUARDED_BY(m_read_mutex) = false;  ///< A load was asked for and is not over.

    Infra::CMutex m_msg_mutex{Infra::LockClass::FILE_MESSAGES};
    bool m_wait_read INFRA_GUARDED_BY(m_msg_mutex) = false;     ///< The caller is owed message 7.
    bool m_wait_write INFRA_GUARDED_BY(m_msg_mutex) = false;    ///< The caller is owed message 6.
    bool m_read_stalled INFRA_GUARDED_BY(m_msg_mutex) = false;  ///< A pass that writes is to pay message 7.

    // The list of all files; see NFileEnd.cpp.
    State* m_next_file = nullptr;
    State** m_link_to_me = nullptr;
    bool m_end_seen = false;

    // ---- NFile.cpp: any thread
    void tell(unsigned int msg) { m_file.Notify(m_handler_id, msg, 0); }
    bool over() const { return m_closed.load() || m_ended.load(); }
    void ask_device();
    bool known_info(NFile_Info& info);
    int stat(NFile_Info& info);
    void close_device();
    void replace_buffers(unsigned count);
    int write_directly(const char* data, unsigned len);
    int read_directly(char* dst, unsigned len, bool& eof);

    bool waiting_read_message();
    bool waiting_write_message();
    void need_read_message();
    void need_write_message();
    void need_read_message_from_pass();
    void notify_read_message();
    void notify_write_message();
    void notify_stalled_read();
    bool read_start();
    void read_end();
    bool reading();

    // ---- NFileBuffers.cpp: under the API mutex
    int write_buffered(const char* data, unsigned len) INFRA_REQUIRES(m_api_mutex);
    int read_buffered(char* dst, unsigned len, bool& eof) INFRA_REQUIRES(m_api_mutex);
    int seek_buffered(long long offset, int whence) INFRA_REQUIRES(m_api_mutex);
    void submit_all_buffer() INFRA_REQUIRES(m_api_mutex);

    // ---- NFilePass.cpp
    int write_pass(long long arg);
    int read_pass();
    bool write_out_at_end() INFRA_REQUIRES(m_api_mutex);

    // ---- NFileEnd.cpp
    void enter_list();
    void leave_list();
    static HandlerPin next_to_end(CThreadPool& pool);
    static void end(CNFile& file, CThreadPool& pool);

private:
    enum class Outcome { done, failed, cut };
    /// What a round of a pass is asked for besides writing.
    struct Wanted {
        bool load = false;
        bool flush = false;
    };

    // The caller's side.
    bool hold_write_buffer() INFRA_REQUIRES(m_api_mutex);
    int put_bytes(const char* data, unsigned len) INFRA_REQUIRES(m_api_mutex);
    FileSlot* find_write_buffer() INFRA_REQUIRES(m_api_mutex);
    FileSlot* writable_at_position(bool& pushed) INFRA_REQUIRES(m_api_mutex);
    FileSlot* take_unused_or_clean() INFRA_REQUIRES(m_api_mutex);
    FileSlot* find_read_buffer() INFRA_REQUIRES(m_api_mutex);
    FileSlot* readable_at_position() INFRA_REQUIRES(m_api_mutex);
    FileSlot* take_unused() INFRA_REQUIRES(m_api_mutex);
    FileSlot* take_victim() INFRA_REQUIRES(m_api_mutex);
    void start_load(FileSlot& slot) INFRA_REQUIRES(m_api_mutex);
    void stall_read() INFRA_REQUIRES(m_api_mutex);
    void clean_overlap(long long end) INFRA_REQUIRES(m_api_mutex);
    bool push_out(FileSlot& slot) INFRA_REQUIRES(m_api_mutex);
    void post_write();
    void post_flush();

    // The worker's side.
    bool begin_write_pass(long long arg, bool& counted);
    bool begin_read_pass();
    bool next_round(Wanted& wanted, int round);
    void end_pass(const Wanted& left, Outcome outcome, bool comes_again);
    bool serve_rounds() INFRA_REQUIRES(m_pass_mutex);
    bool cut_short() const;
    bool seek_to(long long position) INFRA_REQUIRES(m_pass_mutex);
    bool seek_to_block(FileSlot& slot) INFRA_REQUIRES(m_pass_mutex);
    Outcome write_out() INFRA_REQUIRES(m_pass_mutex);
    Outcome write_slot(FileSlot& slot) INFRA_REQUIRES(m_pass_mutex);
    Outcome load() INFRA_REQUIRES(m_pass_mutex);
    Outcome load_slot(FileSlot& slot) INFRA_REQUIRES(m_pass_mutex);
};

}  // namespace Orvex::Reticor
