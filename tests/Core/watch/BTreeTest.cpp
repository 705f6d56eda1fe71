// BTree: what a lookup pins, what the lock allows side by side, what the tree's end deletes.
#include "Core/watch/BTree.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <deque>
#include <thread>
#include <vector>

#include <Reticor/NetHandler.h>
#include <Reticor/NetThread.h>

#include "Core/handle/HandlerInternal.h"
#include "Core/pool/PoolTable.h"
#include "Core/record/Event.h"
#include "Core/record/SockRecord.h"
#include "support/Eventually.h"
#include "support/KernelThread.h"
#include "support/SeededRandom.h"
#include "support/core/BTreeModel.h"

namespace {

using Orvex::Reticor::BTree;
using Orvex::Reticor::CEvent;
using Orvex::Reticor::CNetHandler;
using Orvex::Reticor::ObjectEntry;
using Orvex::Reticor::PoolTable;
using Orvex::Reticor::RecordPin;
using Orvex::Testing::faultsOf;
using Orvex::Testing::SeededRandom;
using Orvex::Testing::sleepsInFutex;

CEvent* newRecord(int64_t key) {
    auto* ev = new CEvent;
    ev->m_key = key;
    return ev;
}

/// Whether another thread could enter the record's mutex now.
bool freeForOthers(CEvent* ev) {
    bool entered = false;
    std::thread other([&] {
        if (ev->m_mutex.tryEnter()) {
            ev->m_mutex.leave();
            entered = true;
        }
    });
    other.join();
    return entered;
}

/// Leaves the mutex of a record that a lookup has pinned.
void unpin(void* payload) {
    RecordPin::Adopt(static_cast<CEvent*>(payload));
}

// ---- pins ------------------------------------------------------------------------------------------------

TEST(BTreePin, LookupOfAHandleComesBackWithTheRecordsMutexHeld) {
    for (const int64_t key : {0, 1, 77}) {
        BTree tree(8);
        CEvent* record = newRecord(key);
        tree.Insert(record);
        EXPECT_TRUE(freeForOthers(record));
        EXPECT_EQ(tree.Find(key), record);
        EXPECT_FALSE(freeForOthers(record));
        unpin(record);
        EXPECT_TRUE(freeForOthers(record)) << "entered once";
        EXPECT_EQ(tree.Remove(key), record);
        EXPECT_TRUE(freeForOthers(record)) << "a removal pins nothing";
        delete record;
    }
}

TEST(BTreePin, LookupUnderTheWriteLockPinsAndLeavesTheLockAlone) {
    BTree tree(8);
    CEvent* record = newRecord(5);
    tree.WriteLock();
    tree.InsertLocked(record);
    EXPECT_EQ(tree.FindLocked(5), record);
    EXPECT_EQ(nullptr, tree.FindLocked(6));
    EXPECT_FALSE(freeForOthers(record));
    std::atomic<bool> found{false};
    std::atomic<int> thread_id{0};
    std::thread other([&] {
        thread_id = Orvex::Testing::kernelThreadId();
        unpin(tree.Find(5));
        found = true;
    });
    EXPECT_EVENTUALLY(thread_id != 0 && sleepsInFutex(thread_id));
    unpin(record);
    EXPECT_TRUE(sleepsInFutex(thread_id)) << "the lock is still the caller's";
    EXPECT_FALSE(found);
    EXPECT_EQ(tree.RemoveLocked(5), record);
    tree.InsertLocked(record);
    tree.Unlock();
    other.join();
    EXPECT_TRUE(found);
}

TEST(BTreePin, LookupUnderTheReadLockPinsToo) {
    BTree tree(8);
    CEvent* record = newRecord(5);
    tree.Insert(record);
    tree.ReadLock();
    EXPECT_EQ(tree.FindLocked(5), record);
    tree.Unlock();
    EXPECT_FALSE(freeForOthers(record));
    unpin(record);
}

/// Deletes itself as it should, and says so.
class Handler : public CNetHandler {
public:
    explicit Handler(std::atomic<int>& closed) : m_closed(closed) {}
    int handle_close(CNetHandler* self) override {
        ++m_closed;
        delete self;
        return 0;
    }

private:
    std::atomic<int>& m_closed;
};

class BTreeHandlerPin : public testing::Test {
protected:
    void SetUp() override { Orvex::Reticor::CreateThreadPool(1, false); }
    void TearDown() override { Orvex::Reticor::DestroyThreadPool(); }

    std::atomic<int> m_closed{0};
};

TEST_F(BTreeHandlerPin, LookupOfAnIdAddsOneReferenceThatKeepsTheHandler) {
    auto* handler = new Handler(m_closed);
    ObjectEntry entry{handler->GetID(), handler};
    BTree tree(8);
    tree.Insert(&entry);
    EXPECT_EQ(tree.Find(entry.m_id), &entry);
    handler->Close();
    EXPECT_EVENTUALLY(!PoolTable::FindHandler(entry.m_id));
    EXPECT_EQ(0, m_closed) << "detached, but pinned";
    EXPECT_EQ(tree.Remove(entry.m_id), &entry);
    EXPECT_EQ(0, m_closed);
    handler->DecRef();
    EXPECT_EQ(1, m_closed) << "it was one reference";
}

TEST_F(BTreeHandlerPin, LookupThatFindsNothingPinsNothing) {
    auto* handler = new Handler(m_closed);
    ObjectEntry entry{handler->GetID(), handler};
    BTree tree(8);
    tree.Insert(&entry);
    EXPECT_EQ(nullptr, tree.Find(entry.m_id + 1)) << "another generation";
    EXPECT_EQ(nullptr, tree.Find(entry.m_id - 65536));
    tree.Remove(entry.m_id);
    EXPECT_EQ(nullptr, tree.Find(entry.m_id));
    handler->Close();
    EXPECT_EVENTUALLY(m_closed == 1);
}

// ---- the lock --------------------------------------------------------------------------------------------

TEST(BTreeLock, PinIsTakenUnderTheTreesLock) {
    BTree tree(8);
    CEvent* record = newRecord(5);
    tree.Insert(record);
    record->m_mutex.enter();
    std::atomic<int> finder_id{0};
    std::atomic<int> remover_id{0};
    std::atomic<CEvent*> removed{nullptr};
    std::thread finder([&] {
        finder_id = Orvex::Testing::kernelThreadId();
        auto* found = static_cast<CEvent*>(tree.Find(5));
        EXPECT_EQ(found, record);
        unpin(found);
    });
    EXPECT_EVENTUALLY(finder_id != 0 && sleepsInFutex(finder_id));
    std::thread remover([&] {
        remover_id = Orvex::Testing::kernelThreadId();
        removed = static_cast<CEvent*>(tree.Remove(5));
    });
    EXPECT_EVENTUALLY(remover_id != 0 && sleepsInFutex(remover_id));
    EXPECT_EQ(nullptr, removed) << "nobody takes a record out before who found it has pinned it";
    record->m_mutex.leave();
    finder.join();
    remover.join();
    EXPECT_EQ(removed, record);
    delete record;
}

TEST(BTreeLock, LookupsRunWhileOthersReadAndChangesDoNot) {
    BTree tree(8);
    for (int64_t key = 1; key <= 100; ++key) {
        tree.Insert(newRecord(key));
    }
    tree.ReadLock();
    std::thread finder([&] {
        for (int64_t key = 1; key <= 100; ++key) {
            unpin(tree.Find(key));
        }
    });
    finder.join();
    std::atomic<int> writer_id{0};
    std::thread writer([&] {
        writer_id = Orvex::Testing::kernelThreadId();
        tree.Insert(newRecord(101));
    });
    EXPECT_EVENTUALLY(writer_id != 0 && sleepsInFutex(writer_id));
    int count = 0;
    tree.ForEach([&count](void*) { ++count; });
    EXPECT_EQ(100, count);
    tree.Unlock();
    writer.join();
    EXPECT_EQ("", faultsOf(tree, 8));
}

TEST(BTreeLock, ThreadsChangeAndLookUpSideBySide) {
    constexpr int64_t SPAN = 64;  // Keys of each changing thread.
    BTree tree(4);
    std::atomic<bool> stop{false};
    std::deque<CEvent> sets[2];  // they outlive the finder, which may be at a record that was removed
    std::vector<std::thread> threads;
    SeededRandom random;
    for (int64_t t = 0; t < 2; ++t) {
        threads.emplace_back([&tree, &records = sets[t], t, mine = random.fork()]() mutable {
            records.resize(SPAN);
            for (int64_t i = 0; i < SPAN; ++i) {
                records[static_cast<size_t>(i)].m_key = t * SPAN + i;
            }
            std::vector<bool> present(SPAN, false);
            for (int step = 0; step < 5000; ++step) {
                const int64_t i = mine.between(int64_t{0}, SPAN - 1);
                CEvent& record = records[static_cast<size_t>(i)];
                if (present[static_cast<size_t>(i)]) {
                    EXPECT_EQ(tree.Remove(record.m_key), &record);
                    // A finder that pinned it in time may still be at it.
                    record.m_mutex.enter();
                    record.m_mutex.leave();
                } else {
                    EXPECT_TRUE(tree.Insert(&record));
                }
                present[static_cast<size_t>(i)] = !present[static_cast<size_t>(i)];
            }
            for (const CEvent& record : records) {
                tree.Remove(record.m_key);
            }
        });
    }
    std::thread finder([&tree, &stop, mine = random.fork()]() mutable {
        while (!stop) {
            const int64_t key = mine.between(int64_t{0}, 2 * SPAN - 1);
            if (auto* found = static_cast<CEvent*>(tree.Find(key))) {
                EXPECT_EQ(found->m_key, key);
                unpin(found);
            }
        }
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    stop = true;
    finder.join();
    EXPECT_EQ("()", Orvex::Testing::shapeOf(tree));
}

// ---- the end ---------------------------------------------------------------------------------------------

/// A tree with payloads of every kind lives and ends.
void treeComesAndGoes() {
    CEvent zero;
    zero.m_key = 0;
    ObjectEntry handler{-6553600, nullptr};
    {
        BTree tree(8);
        tree.Insert(&zero);
        tree.Insert(&handler);
        for (int64_t key = 1; key <= 1000; ++key) {
            tree.Insert(newRecord(key));
        }
    }
    EXPECT_EQ(0, zero.m_key);
    EXPECT_EQ(-6553600, handler.m_id);
}

TEST(BTreeEnd, DeletesSocketRecordsAboveZeroAndNothingElse) {
    treeComesAndGoes();  // The C library keeps some freed blocks at hand, the same ones each time.
    const size_t before = mallinfo2().uordblks;
    treeComesAndGoes();
    EXPECT_EQ(mallinfo2().uordblks, before);
}

TEST(BTreeEnd, WalkLetsAnOwnerTakeOutWhatTheTreeDoesNotDelete) {
    BTree tree(8);
    for (int64_t key = 0; key <= 20; ++key) {
        tree.Insert(newRecord(key));
    }
    std::vector<int64_t> keys;
    tree.ReadLock();
    tree.ForEach([&keys](void* payload) { keys.push_back(BTree::key_of(payload)); });
    tree.Unlock();
    ASSERT_EQ(21U, keys.size());
    for (int64_t key = 0; key <= 20; ++key) {
        EXPECT_EQ(keys[static_cast<size_t>(key)], key);
    }
    delete static_cast<CEvent*>(tree.Remove(0));
}

}  // namespace
