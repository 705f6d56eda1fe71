// CFileSlots: the buffers of one file, in the order in which they were submitted.
#pragma once

#include <cstddef>
#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/FileBuf.h>

namespace Orvex::Reticor {

/// Where the arrays of a file's buffers come from: malloc. Tests put one here that fails.
extern void* (*TEST_allocate_file_slots)(size_t size);

/// A buffer, and what its file knows of it.
struct FileSlot : CNFileBuf {
    uint64_t m_stamp = 0;  ///< Order of submission. Under the order mutex.
    bool m_stale = false;  ///< Its load brings bytes that were overwritten meanwhile. Under the order mutex.
    bool m_outgrown = false;  ///< The file may have become longer behind it since its load began. Likewise.
    unsigned m_written =
        0;  ///< Bytes that the device has taken since it last stood at the first. The pass's.

    /// Whether `offset` lies in the window of a buffer that holds something.
    bool covers(long long offset) const {
        return m_file_offset >= 0 && offset >= m_file_offset && offset - m_file_offset < m_buf_size;
    }
    long long end() const { return m_file_offset + m_buf_offset; }

    /// The block, taken from the pool, or from the system where there is no pool. Null without memory.
    char* block();
};

/// A place in the list of what a pass is to write.
struct SortNode {
    FileSlot* m_slot = nullptr;
    SortNode* m_next = nullptr;
};

/// Thread safety: `Allocate` and `Clear` with the file's API mutex and pass mutex held. The slots of a free
/// or submitted buffer belong to who holds it, as `CNFileBuf` says. The order mutex is a leaf but for the
/// mutex of a buffer.
class CFileSlots {
public:
    static constexpr unsigned DEFAULT_COUNT = 4;

    CFileSlots() = default;
    ~CFileSlots() { Clear(); }
    CFileSlots(const CFileSlots&) = delete;
    CFileSlots& operator=(const CFileSlots&) = delete;

    /// `count` new buffers in place of what was there. False, and none, if memory has no room.
    bool Allocate(unsigned count);
    void Clear();

    unsigned count() const { return m_buf_count; }
    FileSlot& at(unsigned index) { return *m_bufs[index]; }

    /// Hands a buffer, which the caller holds, to the worker.
    void Submit(FileSlot& slot, CNFileBuf::SUBMIT_EVENT event);

    /// Submits whatever is dirty and free, to be written and freed. Result: whether there was any.
    bool SubmitDirty();

    /// What is submitted to be written: by offset, or, if the ranges of two overlap, in the order of
    /// submission, so that the newest bytes land last. For the pass; good until the next call.
    SortNode* CollectWrites();

    /// A write is about to use the window that starts at `offset`. Loads that are under way there come out
    /// stale; loads and buffers in front of it must not say any more that the file ends with them.
    void OutdateReads(long long offset);

    /// The end of a load: the slot has `bytes` valid bytes, and is free again. What has become outdated is
    /// forgotten instead.
    void EndLoad(FileSlot& slot, unsigned bytes, bool eof);

private:
    void insert(SortNode* node, SortNode** list, bool by_stamp);
    bool submitted_to_write(FileSlot& slot);

    unsigned m_buf_count = 0;
    FileSlot** m_bufs = nullptr;
    SortNode* m_sort_nodes = nullptr;  ///< One per buffer; scratch of the pass.

    Infra::CMutex m_order_mutex{Infra::LockClass::FILE_ORDER};
    uint64_t m_last_stamp INFRA_GUARDED_BY(m_order_mutex) = 0;
};

}  // namespace Orvex::Reticor
