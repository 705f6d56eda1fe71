// CFileSlots: the buffers of one file, each in one place, and in the order in which they were submitted.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <Infra/LockClasses.h>
#include <Infra/Mutex.h>
#include <Reticor/FileBuf.h>

#include "Tool/file/SlotSet.h"

namespace Orvex::Reticor {

/// Where a buffer is: the caller's side has it, with nothing in it, with bytes that are on the device too, or
/// with some that are not; or the pass has it, to write it out or to load it.
enum class SlotPlace : uint8_t { unused, clean, dirty, to_write, to_load };

/// A buffer, and what its file knows of it.
struct FileSlot : CNFileBuf {
    unsigned m_index = 0;
    SlotPlace m_place = SlotPlace::unused;  ///< Under the order mutex.
    bool m_in_windows = false;              ///< Likewise.
    uint64_t m_stamp = 0;                   ///< Order of submission. Likewise.
    bool m_stale = false;     ///< Its load brings bytes that were overwritten meanwhile. Likewise.
    bool m_outgrown = false;  ///< The file may have become longer beyond it since its load began. Likewise.
    bool m_ahead = false;     ///< To be loaded although no Read waits for it. Likewise.
    bool m_begun = false;     ///< The pass has begun to load it. Likewise.
    unsigned m_written =
        0;  ///< Bytes that the device has taken since it last stood at the first. The pass's.

    /// Whether `offset` lies in the window of a buffer that holds something.
    bool covers(long long offset) const {
        return m_file_offset >= 0 && offset >= m_file_offset && offset - m_file_offset < m_buf_size;
    }
    /// Whether the window has bytes of the one that begins at `offset`.
    bool overlaps(long long offset) const {
        return m_file_offset < offset + m_buf_size && offset < m_file_offset + m_buf_size;
    }
    long long end() const { return m_file_offset + m_buf_offset; }

    /// The block, taken from the pool, or from the system where there is no pool. Null without memory.
    char* block() {
        if (Malloc() == nullptr) {
            m_node = CNBufPool::NewNode();
            m_data = m_node != nullptr ? m_node->m_buf : nullptr;
        }
        return m_data;
    }
};

/// What came of a wish to read a place ahead.
enum class AheadPlace : uint8_t {
    submitted,
    there,  ///< It is loaded, or will be.
    none,   ///< It is after the end of the file, overlaps another window, or there is no buffer for it.
};

/// Every buffer is found by its place, or by the offset of its window, without a look at the others, so that
/// a call costs the same with 4 buffers and with 4096. The windows of the caller's side are disjoint.
///
/// A buffer that the caller's side has is taken by its TryLock, by one of the Take operations, and given back
/// by its UnLock; what it holds is changed in between, and the change of its place is told here.
///
/// Thread safety: `Allocate` and `Clear` with the file's API mutex and pass mutex held. Operations of the
/// caller's side with the API mutex held, those of the pass with the pass mutex. The order mutex guards the
/// places; it is a leaf but for the mutexes of buffers and of their pool.
class CFileSlots {
public:
    static constexpr unsigned DEFAULT_COUNT = 4;
    static constexpr unsigned MOST = 4096;

    CFileSlots() = default;
    ~CFileSlots() { Clear(); }
    CFileSlots(const CFileSlots&) = delete;
    CFileSlots& operator=(const CFileSlots&) = delete;

    /// `count` new buffers, up to MOST, in place of what was there. False, and none, if memory has no room.
    bool Allocate(unsigned count);
    void Clear();

    /// Whether anything is submitted that has to be written.
    bool HasWrites();

    unsigned count() const { return m_buf_count; }
    FileSlot& at(unsigned index) { return m_bufs[index]; }

    // ---- the caller's side

    /// The buffer whose window has `offset`, taken; or null.
    FileSlot* TakeAt(long long offset);
    /// The first buffer with nothing in it, taken; or null.
    FileSlot* TakeUnused();
    /// The first clean buffer from the one with that index on, in turn, taken; or null.
    FileSlot* TakeClean(unsigned from);

    /// The buffer, which is taken and empty, is now the window that begins at `offset`.
    void Occupy(FileSlot& slot, long long offset);
    /// The buffer, which is taken, has got bytes that are not on the device.
    void Changed(FileSlot& slot);
    /// The buffer, which is taken, holds nothing any more.
    void Forget(FileSlot& slot);

    /// Hands a buffer, which is taken, to the pass.
    void Submit(FileSlot& slot, CNFileBuf::SUBMIT_EVENT event);
    /// The same for an empty one that is to be loaded from `offset` on. What is read ahead and overlaps it is
    /// given up.
    void SubmitLoad(FileSlot& slot, long long offset);

    /// The window that begins at `offset` is to be loaded although no Read waits for it, into a buffer with
    /// nothing in it or, the first by offset, a clean one that is not within [`keep_from`, `offset`).
    AheadPlace LoadAhead(long long offset, long long keep_from);
    /// Whether a load that has `offset` is under way, and will not come out stale.
    bool HasLoad(long long offset);
    /// A Read waits for that load from now on. False if it has ended meanwhile.
    bool AwaitLoad(long long offset);
    /// Gives up what is to be read ahead, and, if `awaited_too`, what a Read waits for. The load that the
    /// pass has begun goes on.
    void DropLoads(bool awaited_too);
    /// Submits whatever is dirty, to be written and freed. Result: whether there was any.
    bool SubmitDirty();

    /// A write is about to use the window that starts at `offset`. Loads that are under way there come out
    /// stale; loads and buffers in front of it must not say any more that the file ends with them.
    void OutdateReads(long long offset);

    // ---- the pass

    /// What is submitted to be written: by offset, or, if the ranges of two overlap, in the order of
    /// submission, so that the newest bytes land last. Good until the next call.
    const std::vector<FileSlot*>& CollectWrites();
    /// The buffer that is to be loaded next: of those that have not been begun and were submitted before the
    /// last CollectWrites, so that what had to be written before them is on the device, the one that waits
    /// longest. Null if there is none.
    FileSlot* BeginLoad();

    /// The end of a write: the bytes are on the device. The slot is empty, or clean if its contents are kept.
    void EndWrite(FileSlot& slot);
    /// The end of a load: the slot has `bytes` valid bytes, and is clean. What has become outdated is
    /// forgotten instead. What was to be read ahead after the end of the file is given up. Result: whether a
    /// Read waits for it.
    bool EndLoad(FileSlot& slot, unsigned bytes, bool eof);
    /// The load has failed; nothing more is read ahead now. True if no Read waits for it: it is forgotten,
    /// and a Read that comes to its place asks the device again.
    bool FailAhead(FileSlot& slot);

private:
    using Windows = std::vector<FileSlot*>;

    SlotSet& in(SlotPlace place)INFRA_REQUIRES(m_order_mutex) { return m_in[static_cast<size_t>(place)]; }
    Windows::iterator after(long long offset) INFRA_REQUIRES(m_order_mutex);
    void move(FileSlot& slot, SlotPlace place) INFRA_REQUIRES(m_order_mutex);
    void submit(FileSlot& slot, CNFileBuf::SUBMIT_EVENT event) INFRA_REQUIRES(m_order_mutex);
    void reset(FileSlot& slot) INFRA_REQUIRES(m_order_mutex);
    FileSlot* take_next(SlotPlace place, unsigned from) INFRA_REQUIRES(m_order_mutex);
    FileSlot* load_at(long long offset) INFRA_REQUIRES(m_order_mutex);
    AheadPlace look_ahead(long long offset) INFRA_REQUIRES(m_order_mutex);
    FileSlot* take_for_ahead(long long from, long long to) INFRA_REQUIRES(m_order_mutex);
    void drop_load(FileSlot& slot) INFRA_REQUIRES(m_order_mutex);
    void drop_ahead(long long from) INFRA_REQUIRES(m_order_mutex);
    bool make_room(unsigned count);

    unsigned m_buf_count = 0;
    std::unique_ptr<FileSlot[]> m_bufs;
    std::vector<FileSlot*> m_to_write;  ///< Scratch of the pass.

    Infra::CMutex m_order_mutex{Infra::LockClass::FILE_ORDER};
    uint64_t m_last_stamp INFRA_GUARDED_BY(m_order_mutex) = 0;
    uint64_t m_collected INFRA_GUARDED_BY(m_order_mutex) = 0;     ///< The last stamp before CollectWrites.
    std::array<SlotSet, 5> m_in INFRA_GUARDED_BY(m_order_mutex);  ///< By place.
    SlotSet m_at_end INFRA_GUARDED_BY(m_order_mutex);             ///< Clean, and the end of the file.
    Windows m_windows INFRA_GUARDED_BY(m_order_mutex);            ///< Clean or dirty, by offset.
};

}  // namespace Orvex::Reticor
