// The shape of a BTree: what splits, borrows and merges make of it, by hand and against the model.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <numeric>
#include <set>
#include <string>
#include <vector>

#include "Core/watch/BTree.h"
#include "support/SeededRandom.h"
#include "support/core/BTreeModel.h"
#include "support/core/CountingAllocator.h"

namespace Orvex::Reticor {

struct BTreeProbe {
    static BTree::Node* root(BTree& tree) INFRA_NO_THREAD_SAFETY_ANALYSIS { return tree.m_root; }
    static int order(const BTree& tree) { return tree.m_order; }
};

}  // namespace Orvex::Reticor

namespace {

using Orvex::Reticor::BTree;
using Orvex::Reticor::BTreeProbe;
using Orvex::Testing::BTreeModel;
using Orvex::Testing::CountingAllocator;
using Orvex::Testing::faultsOf;
using Orvex::Testing::SeededRandom;
using Orvex::Testing::shapeOf;

struct Payload {
    int64_t m_key;
    int m_serial;
};

/// A tree of plain payloads, which are taken out before it goes: it would delete some of them.
class PlainTree {
public:
    explicit PlainTree(int order) : m_order(order), m_tree(static_cast<short>(order)) {}
    ~PlainTree() {
        std::vector<int64_t> keys;
        m_tree.ReadLock();
        m_tree.ForEach([&keys](void* payload) { keys.push_back(BTree::key_of(payload)); });
        m_tree.Unlock();
        for (const int64_t key : keys) {
            m_tree.Remove(key);
        }
    }
    PlainTree(const PlainTree&) = delete;
    PlainTree& operator=(const PlainTree&) = delete;

    Payload* insert(int64_t key) {
        m_payloads.push_back(Payload{key, static_cast<int>(m_payloads.size())});
        return m_tree.Insert(&m_payloads.back()) ? &m_payloads.back() : nullptr;
    }
    void insertAll(const std::vector<int64_t>& keys) {
        for (const int64_t key : keys) {
            insert(key);
        }
    }
    Payload* remove(int64_t key) { return static_cast<Payload*>(m_tree.Remove(key)); }

    std::string shape() { return shapeOf(m_tree); }
    std::string faults() { return faultsOf(m_tree, m_order); }
    BTree& tree() { return m_tree; }

private:
    const int m_order;
    BTree m_tree;
    std::deque<Payload> m_payloads;
};

std::vector<int64_t> ascending(int64_t first, int64_t last) {
    std::vector<int64_t> keys(static_cast<size_t>(last - first + 1));
    std::iota(keys.begin(), keys.end(), first);
    return keys;
}

/// A tree of order 4, so of one to three keys a node, with the keys from 1 to `last`.
struct SmallTree : PlainTree {
    explicit SmallTree(int64_t last) : PlainTree(4) { insertAll(ascending(1, last)); }
};

TEST(BTreeShape, OddOrderIsRaisedByOne) {
    EXPECT_EQ(8, BTreeProbe::order(BTree(7)));
    EXPECT_EQ(8, BTreeProbe::order(BTree(8)));
    EXPECT_EQ(6, BTreeProbe::order(BTree(5)));
}

TEST(BTreeShape, EmptyTreeHasAnEmptyLeafAndGivesNull) {
    PlainTree tree(8);
    EXPECT_EQ("()", tree.shape());
    EXPECT_EQ("", tree.faults());
    EXPECT_EQ(nullptr, tree.remove(1));
    EXPECT_EQ(nullptr, tree.tree().Find(1));
    EXPECT_EQ(nullptr, tree.tree().Find(-1));
    EXPECT_EQ(nullptr, tree.tree().Find(0));
}

TEST(BTreeShape, SevenKeysAreOneLeafAndTheEighthSplitsIt) {
    PlainTree tree(8);
    tree.insertAll(ascending(1, 7));
    EXPECT_EQ("(1 2 3 4 5 6 7)", tree.shape());
    tree.insert(8);
    EXPECT_EQ("((1 2 3) 4 (5 6 7 8))", tree.shape());
    PlainTree low(8);
    low.insertAll(ascending(1, 7));
    low.insert(0);
    EXPECT_EQ("((0 1 2 3) 4 (5 6 7))", low.shape());
}

TEST(BTreeShape, SplitPutsTheMedianAheadOfItsNode) {
    PlainTree tree(8);
    tree.insertAll({10, 20, 30, 40, 50, 60, 70, 80});
    tree.insertAll({1, 2, 3, 4, 5});
    EXPECT_EQ("((1 2 3) 4 (5 10 20 30) 40 (50 60 70 80))", tree.shape());
    tree.insertAll({21, 22, 23, 24});
    EXPECT_EQ("((1 2 3) 4 (5 10 20) 21 (22 23 24 30) 40 (50 60 70 80))", tree.shape())
        << "a leaf of seven keys splits before the next one goes in";
}

TEST(BTreeShape, DuplicateGoesAheadOfItsEqualInALeaf) {
    PlainTree tree(8);
    Payload* first = tree.insert(5);
    tree.insert(7);
    Payload* second = tree.insert(5);
    EXPECT_EQ("(5 5 7)", tree.shape());
    EXPECT_EQ(tree.remove(5), second);
    EXPECT_EQ(tree.remove(5), first);
}

TEST(BTreeShape, DuplicateOfAnInnerKeyGoesIntoTheChildBehindIt) {
    PlainTree tree(8);
    tree.insertAll(ascending(1, 8));
    tree.insert(4);
    EXPECT_EQ("((1 2 3) 4 (4 5 6 7 8))", tree.shape());
}

TEST(BTreeShape, DuplicateOfTheMedianGoesIntoTheUpperHalf) {
    PlainTree tree(8);
    tree.insertAll(ascending(1, 7));
    tree.insert(4);
    EXPECT_EQ("((1 2 3) 4 (4 5 6 7))", tree.shape());
}

TEST(BTreeShape, AscendingInDescendingOutLeavesAnEmptyLeaf) {
    for (const int order : {4, 6, 8}) {
        PlainTree tree(order);
        tree.insertAll(ascending(1, 200));
        EXPECT_EQ("", tree.faults());
        for (int64_t key = 200; key >= 1; --key) {
            ASSERT_EQ(tree.remove(key)->m_key, key);
            ASSERT_EQ("", tree.faults());
        }
        EXPECT_EQ("()", tree.shape());
    }
}

TEST(BTreeShape, DescendingInAscendingOutLeavesAnEmptyLeaf) {
    for (const int order : {4, 6, 8}) {
        PlainTree tree(order);
        for (int64_t key = 200; key >= 1; --key) {
            tree.insert(key);
        }
        EXPECT_EQ("", tree.faults());
        for (int64_t key = 1; key <= 200; ++key) {
            ASSERT_EQ(tree.remove(key)->m_key, key);
            ASSERT_EQ("", tree.faults());
        }
        EXPECT_EQ("()", tree.shape());
    }
}

TEST(BTreeShape, TreeLosesALevelWhenTheRootsLastKeyGoesIntoAMerge) {
    PlainTree tree(8);
    tree.insertAll(ascending(1, 8));
    tree.remove(8);
    EXPECT_EQ("((1 2 3) 4 (5 6 7))", tree.shape());
    tree.remove(6);
    EXPECT_EQ("(1 2 3 4 5 7)", tree.shape());
}

TEST(BTreeShape, RootKeyBetweenMinimalChildrenGoesIntoTheirMerge) {
    PlainTree tree(8);
    tree.insertAll(ascending(1, 8));
    tree.remove(8);
    tree.remove(4);
    EXPECT_EQ("(1 2 3 5 6 7)", tree.shape());
}

TEST(BTreeShape, InnerKeyIsReplacedByItsPredecessorIfTheLeftChildCanSpareOne) {
    PlainTree tree(8);
    tree.insertAll(ascending(1, 8));
    tree.insert(0);
    ASSERT_EQ("((0 1 2 3) 4 (5 6 7 8))", tree.shape());
    EXPECT_EQ(4, tree.remove(4)->m_key);
    EXPECT_EQ("((0 1 2) 3 (5 6 7 8))", tree.shape()) << "also when the right one could too";
    EXPECT_EQ(3, tree.remove(3)->m_key);
    EXPECT_EQ("((0 1 2) 5 (6 7 8))", tree.shape()) << "the successor only if the left child is minimal";
}

TEST(BTreeShape, InnerKeyIsPushedDownThroughTwoLevelsOfMinimalChildren) {
    SmallTree tree(10);
    ASSERT_EQ("(((1) 2 (3)) 4 ((5) 6 (7) 8 (9 10)))", tree.shape());
    tree.remove(10);
    tree.remove(9);
    ASSERT_EQ("(((1) 2 (3)) 4 ((5) 6 (7 8)))", tree.shape());
    EXPECT_EQ(4, tree.remove(4)->m_key);
    EXPECT_EQ("((1) 2 (3 5) 6 (7 8))", tree.shape());
    EXPECT_EQ("", tree.faults());
}

TEST(BTreeShape, ReplacementFillsTheNodesOnItsWay) {
    SmallTree tree(10);
    ASSERT_EQ("(((1) 2 (3)) 4 ((5) 6 (7) 8 (9 10)))", tree.shape());
    EXPECT_EQ(4, tree.remove(4)->m_key);
    EXPECT_EQ("(((1) 2 (3)) 5 ((6 7) 8 (9 10)))", tree.shape()) << "the successor's leaf was minimal";
}

TEST(BTreeShape, FillBorrowsFromTheLeftNeighbourThroughThePredecessorOfTheLeadingKey) {
    PlainTree tree(4);
    tree.insertAll({10, 20, 30, 40, 50, 60});
    tree.insert(5);
    ASSERT_EQ("((5 10) 20 (30) 40 (50 60))", tree.shape());
    // 40 leads to the leaf of 30; 20 stands between it and the left neighbour.
    EXPECT_EQ(30, tree.remove(30)->m_key);
    EXPECT_EQ("((5) 10 (20) 40 (50 60))", tree.shape());
    EXPECT_EQ("", tree.faults());
}

TEST(BTreeShape, RightMostChildBorrowsThroughTheLastKey) {
    PlainTree tree(4);
    tree.insertAll({10, 20, 30, 40, 50, 35});
    ASSERT_EQ("((10) 20 (30 35) 40 (50))", tree.shape());
    EXPECT_EQ(50, tree.remove(50)->m_key);
    EXPECT_EQ("((10) 20 (30) 35 (40))", tree.shape());
    EXPECT_EQ("", tree.faults());
}

TEST(BTreeShape, FillBorrowsFromTheRightNeighbourIfTheLeftOneIsMinimal) {
    PlainTree tree(4);
    tree.insertAll({10, 20, 30, 40, 50, 60});
    ASSERT_EQ("((10) 20 (30) 40 (50 60))", tree.shape());
    EXPECT_EQ(30, tree.remove(30)->m_key);
    EXPECT_EQ("((10) 20 (40) 50 (60))", tree.shape());
    EXPECT_EQ("", tree.faults());
}

TEST(BTreeShape, FillMergesWithTheLeftNeighbourIfThereIsOne) {
    PlainTree tree(4);
    tree.insertAll({10, 20, 30, 40, 50, 60});
    tree.remove(60);
    ASSERT_EQ("((10) 20 (30) 40 (50))", tree.shape());
    EXPECT_EQ(nullptr, tree.remove(35));
    EXPECT_EQ("((10 20 30) 40 (50))", tree.shape());
    EXPECT_EQ("", tree.faults());
}

TEST(BTreeShape, FirstChildMergesWithTheRightNeighbour) {
    PlainTree tree(4);
    tree.insertAll({10, 20, 30, 40, 50, 60});
    tree.remove(60);
    ASSERT_EQ("((10) 20 (30) 40 (50))", tree.shape());
    EXPECT_EQ(nullptr, tree.remove(5));
    EXPECT_EQ("((10 20 30) 40 (50))", tree.shape());
    EXPECT_EQ("", tree.faults());
}

TEST(BTreeShape, RightMostChildHasNoRightNeighbourAndMergesWithTheLeftOne) {
    PlainTree tree(4);
    tree.insertAll({10, 20, 30, 40, 50, 60});
    tree.remove(60);
    ASSERT_EQ("((10) 20 (30) 40 (50))", tree.shape());
    EXPECT_EQ(nullptr, tree.remove(99));
    EXPECT_EQ("((10) 20 (30 40 50))", tree.shape());
    EXPECT_EQ("", tree.faults());
}

TEST(BTreeShape, RemovalOfAnAbsentKeyFillsOnItsWayToo) {
    PlainTree tree(8);
    tree.insertAll(ascending(1, 8));
    tree.remove(8);
    ASSERT_EQ("((1 2 3) 4 (5 6 7))", tree.shape());
    EXPECT_EQ(nullptr, tree.remove(100));
    EXPECT_EQ("(1 2 3 4 5 6 7)", tree.shape()) << "the tree even loses a level";
    EXPECT_EQ(nullptr, tree.remove(100));
    EXPECT_EQ("(1 2 3 4 5 6 7)", tree.shape());
}

TEST(BTreeShape, BorrowedSubtreeChangesItsParent) {
    // The left neighbour of an inner node lends: its right-most child moves over.
    PlainTree tree(4);
    for (const int64_t key : {50, 60, 70, 80, 90, 40, 30, 20, 10, 100, 5, 4, 3, 2}) {
        tree.insert(key);
    }
    BTreeModel model(4);
    for (const int64_t key : {50, 60, 70, 80, 90, 40, 30, 20, 10, 100, 5, 4, 3, 2}) {
        model.Insert(key);
    }
    ASSERT_EQ(tree.shape(), model.Shape());
    for (const int64_t key : {100, 90, 80, 70}) {
        tree.remove(key);
        model.Remove(key);
        ASSERT_EQ(tree.shape(), model.Shape());
        ASSERT_EQ("", tree.faults());
    }
}

TEST(BTreeShape, PredecessorStepWorksAfterEveryKindOfChangeToAList) {
    // Each key that is asked for leads to the right-most child, by the last keynode of its node: a ring that
    // is not closed after a borrow or a merge shows here.
    for (const int order : {4, 6, 8}) {
        PlainTree tree(order);
        BTreeModel model(order);
        SeededRandom random(static_cast<uint64_t>(order));
        std::vector<int64_t> keys = ascending(1, 300);
        std::shuffle(keys.begin(), keys.end(), random.engine());
        for (const int64_t key : keys) {
            tree.insert(key);
            model.Insert(key);
        }
        for (const int64_t key : keys) {
            EXPECT_EQ(nullptr, tree.remove(1000));
            EXPECT_FALSE(model.Remove(1000));
            ASSERT_EQ(tree.remove(key)->m_key, key);
            ASSERT_TRUE(model.Remove(key));
            ASSERT_EQ(tree.shape(), model.Shape());
            ASSERT_EQ("", tree.faults());
        }
    }
}

TEST(BTreeShape, NegativeAndOtherKeysSortBySignedComparison) {
    PlainTree tree(4);
    const std::vector<int64_t> keys = {5, -6553600, 0, INT64_MAX, -1, 1, INT64_MIN, -6552832};
    tree.insertAll(keys);
    std::vector<int64_t> walked;
    tree.tree().ReadLock();
    tree.tree().ForEach([&walked](void* payload) { walked.push_back(BTree::key_of(payload)); });
    tree.tree().Unlock();
    std::vector<int64_t> sorted = keys;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(walked, sorted);
    EXPECT_EQ("", tree.faults());
}

// ---- against the model -----------------------------------------------------------------------------------

/// Random insertions and removals, of present and absent keys, in phases that grow and shrink the tree.
void compareWithModel(int order, int64_t span, int steps) {
    SeededRandom random;
    PlainTree tree(order);
    BTreeModel model(order);
    std::vector<Payload*> present(static_cast<size_t>(span), nullptr);
    unsigned int removals = 2;  // One step in so many removes.
    for (int step = 0; step < steps; ++step) {
        if (step % 250 == 0) {
            removals = random.between(1U, 6U);
        }
        const int64_t key = random.between(int64_t{0}, span - 1) - span / 2;
        Payload*& known = present[static_cast<size_t>(key + span / 2)];
        if (known == nullptr && !random.oneIn(removals)) {
            known = tree.insert(key);
            model.Insert(key);
        } else {
            ASSERT_EQ(tree.remove(key), known) << "step " << step;
            ASSERT_EQ(model.Remove(key), known != nullptr) << "step " << step;
            known = nullptr;
        }
        ASSERT_EQ(tree.shape(), model.Shape()) << "step " << step;
        ASSERT_EQ("", tree.faults()) << "step " << step;
    }
}

TEST(BTreeShape, AnyMixOfChangesGivesTheShapeOfTheModelInOrder4) {
    compareWithModel(4, 200, 2500);
}
TEST(BTreeShape, AnyMixOfChangesGivesTheShapeOfTheModelInOrder6) {
    compareWithModel(6, 300, 2500);
}
TEST(BTreeShape, AnyMixOfChangesGivesTheShapeOfTheModelInOrder8) {
    compareWithModel(8, 500, 2500);
}

// A node of the greatest order holds as many keys as its count can say.
TEST(BTreeShape, AnyMixOfChangesGivesTheShapeOfTheModelInTheGreatestOrder) {
    compareWithModel(128, 3000, 4000);
}
TEST(BTreeShape, ANodeOfTheGreatestOrderHolds127Keys) {
    PlainTree tree(128);
    tree.insertAll(ascending(1, 127));
    EXPECT_EQ(127, BTreeProbe::root(tree.tree())->m_count);
    EXPECT_EQ(1, BTreeProbe::root(tree.tree())->m_leaf);
    tree.insert(128);
    EXPECT_EQ(1, BTreeProbe::root(tree.tree())->m_count);
    EXPECT_EQ("", tree.faults());
}

TEST(BTreeShape, LargeTreeGivesTheShapeOfTheModel) {
    SeededRandom random;
    PlainTree tree(8);
    BTreeModel model(8);
    std::vector<int64_t> keys = ascending(1, 4000);
    std::shuffle(keys.begin(), keys.end(), random.engine());
    for (const int64_t key : keys) {
        tree.insert(key);
        model.Insert(key);
    }
    EXPECT_EQ(tree.shape(), model.Shape());
    std::shuffle(keys.begin(), keys.end(), random.engine());
    for (size_t i = 0; i < keys.size(); ++i) {
        tree.remove(keys[i]);
        model.Remove(keys[i]);
        if (i % 100 == 0) {
            ASSERT_EQ(tree.shape(), model.Shape());
            ASSERT_EQ("", tree.faults());
        }
    }
    EXPECT_EQ("()", tree.shape());
}

// ---- memory ----------------------------------------------------------------------------------------------

TEST(BTreeMemory, NodesAreFreedAsTheTreeShrinksAndWithIt) {
    const long before = CountingAllocator::blocksInUse();
    {
        PlainTree tree(8);
        EXPECT_EQ(CountingAllocator::blocksInUse(), before + 1) << "the empty root";
        tree.insertAll(ascending(-1000, -1));
        for (int64_t key = -1000; key < 0; ++key) {
            tree.remove(key);
        }
        EXPECT_EQ(CountingAllocator::blocksInUse(), before + 1);
        tree.insertAll(ascending(-1000, -1));
    }
    EXPECT_EQ(CountingAllocator::blocksInUse(), before);
    Payload payloads[100];
    {
        BTree tree(8);
        for (int i = 0; i < 100; ++i) {
            payloads[i].m_key = -i;
            tree.Insert(&payloads[i]);
        }
    }
    EXPECT_EQ(CountingAllocator::blocksInUse(), before)
        << "payloads of 0 and below stay, their keynodes do not";
}

TEST(BTreeMemory, RemovalNeedsNone) {
    PlainTree tree(4);
    tree.insertAll(ascending(1, 1000));
    const CountingAllocator::NoMemory no_memory;
    for (int64_t key = 1; key <= 1000; ++key) {
        ASSERT_NE(nullptr, tree.remove(key));
    }
    EXPECT_EQ("()", tree.shape());
}

TEST(BTreeMemory, InsertionWithoutMemoryIsRefusedAndLeavesASoundTree) {
    const long at_first = CountingAllocator::blocksInUse();
    for (const long grace : {0L, 1L, 2L, 3L}) {
        for (int64_t size = 0; size < 60; ++size) {
            ASSERT_EQ(CountingAllocator::blocksInUse(), at_first) << "before size " << size;
            PlainTree tree(4);
            tree.insertAll(ascending(1, size));
            const long before = CountingAllocator::blocksInUse();
            bool inserted = false;
            {
                const CountingAllocator::NoMemory no_memory(grace);
                inserted = tree.insert(size + 1) != nullptr;
            }
            ASSERT_EQ("", tree.faults());
            if (grace == 0) {
                ASSERT_FALSE(inserted);
                ASSERT_EQ(CountingAllocator::blocksInUse(), before);
            }
            ASSERT_EQ(tree.remove(size + 1) != nullptr, inserted);
            int64_t count = 0;
            tree.tree().ReadLock();
            tree.tree().ForEach([&count](void* payload) {
                ++count;
                EXPECT_EQ(BTree::key_of(payload), count);
            });
            tree.tree().Unlock();
            ASSERT_EQ(count, size);
        }
    }
}

TEST(BTreeMemory, TreeWithoutAnyForItsFirstLeafMakesItLater) {
    const long before = CountingAllocator::blocksInUse();
    {
        auto no_memory = std::make_unique<CountingAllocator::NoMemory>();
        PlainTree tree(8);
        EXPECT_EQ(nullptr, BTreeProbe::root(tree.tree()));
        EXPECT_EQ(nullptr, tree.remove(1));
        EXPECT_EQ(nullptr, tree.tree().Find(1));
        EXPECT_EQ(nullptr, tree.insert(1));
        no_memory.reset();
        no_memory = std::make_unique<CountingAllocator::NoMemory>(1);  // for the key, but not for the leaf
        EXPECT_EQ(nullptr, tree.insert(1));
        no_memory.reset();
        EXPECT_EQ(before, CountingAllocator::blocksInUse()) << "and the key's memory went back";
        EXPECT_NE(nullptr, tree.insert(1));
        EXPECT_EQ("(1)", tree.shape());
    }
    EXPECT_EQ(before, CountingAllocator::blocksInUse());
}

// What was refused is not there, all else is, and each step leaves a sound tree.
TEST(BTreeMemory, AnyMixOfChangesMatchesASetWhileMemoryFailsNowAndThen) {
    SeededRandom random;
    PlainTree tree(4);
    std::set<int64_t> model;
    int refused = 0;
    for (int step = 0; step < 8000; ++step) {
        const int64_t key = random.between(int64_t{-150}, int64_t{150});
        if (model.count(key) != 0) {
            model.erase(key);
            const CountingAllocator::NoMemory no_memory;
            ASSERT_NE(nullptr, tree.remove(key));
        } else {
            const bool short_of_memory = random.oneIn(3);
            const long grace = random.between(0L, 4L);
            Payload* inserted = nullptr;
            if (short_of_memory) {
                const CountingAllocator::NoMemory no_memory(grace);
                inserted = tree.insert(key);
            } else {
                inserted = tree.insert(key);
                ASSERT_NE(nullptr, inserted);
            }
            if (inserted != nullptr) {
                model.insert(key);
            } else {
                ++refused;
            }
        }
        ASSERT_EQ("", tree.faults()) << "step " << step;
        std::vector<int64_t> keys;
        tree.tree().ReadLock();
        tree.tree().ForEach([&keys](void* payload) { keys.push_back(BTree::key_of(payload)); });
        tree.tree().Unlock();
        ASSERT_EQ(std::vector<int64_t>(model.begin(), model.end()), keys) << "step " << step;
    }
    EXPECT_GT(refused, 0);
}

// ---- a broken tree ---------------------------------------------------------------------------------------

TEST(BTreeDeath, NodeBelowTheRootThatLosesItsLastKeyFiresTheAssertion) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            SmallTree tree(10);
            // A wrong count keeps the inner node from being filled on the way to its only key.
            BTree::Node* inner = BTreeProbe::root(tree.tree())->m_head->m_left;
            inner->m_count = 2;
            tree.remove(1);
        },
        "m_root == parent");
}

}  // namespace
