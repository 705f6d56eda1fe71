// CNFileBuf: a window of a file in memory. CNBufPool: the blocks that windows use.
#pragma once

#include <Infra/Mutex.h>
#include <Reticor/Export.h>

namespace Orvex::Reticor {

/// A block of the pool: 131072 bytes.
struct buffer_node {
    char* m_buf = nullptr;          ///< Its bytes.
    buffer_node* m_next = nullptr;  ///< The next one in the pool.
};

/// Keeps blocks that are not in use, up to 257 of them: 32 MiB and a little over. A new pool holds one, or
/// none if there is no memory.
///
/// Thread safety: every operation on any thread. Nothing blocks but the allocation of memory.
class RETICOR_API CNBufPool {
public:
    /// The size of a block.
    static constexpr unsigned BLOCK_BYTES = 131072;

    /// Holds one block.
    CNBufPool();
    /// Frees the blocks in the pool; those that are out belong to whoever took them.
    ~CNBufPool();
    CNBufPool(const CNBufPool&) = delete;
    CNBufPool& operator=(const CNBufPool&) = delete;

    /// Gives a block back; what the pool has no room for is freed. Ownership: the pool's from now on.
    void Push(buffer_node* node);

    /// The block that has waited longest, or a new one. Ownership: the caller's, until Push or `FreeNode`.
    /// Null if there is no memory.
    buffer_node* Pop();

    /// Blocks that wait in the pool.
    int Size();

    /// A block and its node from the system, null if there is no memory; and back.
    static buffer_node* NewNode();
    /// Gives back to the system what NewNode made.
    static void FreeNode(buffer_node* node);

private:
    Infra::CMutex m_mutex;
    buffer_node* m_head INFRA_GUARDED_BY(m_mutex) = nullptr;
    buffer_node* m_tail INFRA_GUARDED_BY(m_mutex) = nullptr;
    int m_count INFRA_GUARDED_BY(m_mutex) = 0;
};

/// 131072 bytes of a file from a known offset on, with a small lock and a note of what a file worker is to do
/// with them. A block is held only while there is something in it.
///
/// Whoever has set `m_busy`, by `TryLock`, owns the contents, and nobody ever waits for that. `Submit` hands
/// them over to the worker with `m_busy` left set; the worker ends that by `UnLock`. The public fields belong
/// to the owner of the contents.
///
/// Thread safety: `TryLock`, `UnLock`, `Submit` and `GetSubmitType` on any thread; all others by the owner of
/// the contents.
class RETICOR_API CNFileBuf {
public:
    /// What a file worker is to do with the block.
    enum SUBMIT_EVENT {
        SUBMIT_NONE = 0,        ///< Nothing to do; set by `UnLock` and `Reset`.
        SUBMIT_READ = 1,        ///< Fill the block from the device at `m_file_offset`.
        SUBMIT_WRITE = 2,       ///< Write out and keep the contents.
        SUBMIT_WRITE_FREE = 3,  ///< Write out, forget the contents and give the block back.
    };

    /// The first buffer makes the pool of the process, if there is memory for it.
    CNFileBuf();
    /// Gives the block back, or frees it where there is no pool. A pool does not count the buffers that use
    /// it: it goes with the first buffer that is destroyed, and comes again with the next one that is made.
    /// Buffers that live on keep their blocks meanwhile.
    ~CNFileBuf();
    CNFileBuf(const CNFileBuf&) = delete;
    CNFileBuf& operator=(const CNFileBuf&) = delete;

    /// True if the buffer was free, and is the caller's from now on.
    bool TryLock();

    /// The buffer is free again, and nothing is submitted any more.
    void UnLock();

    /// Tells the worker what to do, and makes the contents its own. Asserts that the buffer is busy.
    void Submit(SUBMIT_EVENT event);

    /// What was submitted and is not done: a `SUBMIT_EVENT`.
    int GetSubmitType();

    /// Forgets the contents. The block stays.
    void Reset();

    /// Takes a block from the pool unless one is held. Result: its bytes; null if there is no pool, or no
    /// memory.
    char* Malloc();

    /// Gives the block back to the pool; without a pool it stays.
    void Free();

    /// Copies up to `len` bytes to the place of `file_offset`, which must lie within the valid bytes or just
    /// after them; assertions say so. `full` tells whether the window's last byte was written. Result: bytes
    /// copied.
    int Write(const char* data, unsigned len, bool& full, long long file_offset);

    /// Copies up to `len` valid bytes from the place of `file_offset` on. `drained` tells whether none are
    /// left after them, and `eof` whether that is the end of the file. Result: bytes copied.
    int Read(char* dst, unsigned len, bool& drained, bool& eof, long long file_offset);

private:
    Infra::CMutex m_mutex;
    bool m_busy INFRA_GUARDED_BY(m_mutex) = false;
    SUBMIT_EVENT m_submit INFRA_GUARDED_BY(m_mutex) = SUBMIT_NONE;

public:
    long long m_file_offset = -1;                  ///< Of the first byte; -1 while the buffer holds nothing.
    unsigned m_buf_size = CNBufPool::BLOCK_BYTES;  ///< Bytes of the window.
    unsigned m_buf_offset = 0;                     ///< Valid bytes, from the start of the block.
    bool m_dirty = false;                          ///< There are bytes that are not on the device.
    bool m_eof = false;             ///< The file ended after the valid bytes when they were read.
    buffer_node* m_node = nullptr;  ///< The block in use.
    char* m_data = nullptr;         ///< Its bytes; null while no block is held.

private:
    RETICOR_HIDDEN static CNBufPool* m_buf_pool;
    /// Guards the pool's life, and is held while it is used.
    RETICOR_HIDDEN static Infra::CMutex m_pool_mutex;
    /// One up for each pool made, one down for each buffer destroyed.
    RETICOR_HIDDEN static int m_pool_ref_cnt;

    friend struct FileBufProbe;  // tests
};

}  // namespace Orvex::Reticor
