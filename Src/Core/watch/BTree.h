// BTree: a map from a signed 64-bit key to a record, whose lookup pins what it finds.
#pragma once

#include <cstdint>

#include <Infra/LockClasses.h>
#include <Infra/ReadWriteMutex.h>

namespace Orvex::Reticor {

/// A B-tree of minimum degree order / 2. Insertion splits full nodes on the way down and removal fills
/// minimal ones on the way down, so neither walks back up. A payload is any record whose first field is its
/// signed 64-bit key, which does not change while the record is in the tree. The tree keeps a pointer to it
/// and does not own it, but for socket records that are left at the end.
///
/// Thread safety: Insert, Remove and Find on any thread. The forms with `Locked`, the walks, and what `root`
/// gives need the lock, which WriteLock and ReadLock take: the former for changes, either for the rest. A
/// thread that holds it takes it no second time, in no way.
///
/// Order of locks: the tree's lock comes before the mutex of a record in it.
///
/// Invariants, at any time when nobody holds the lock for writing:
///  - `m_count` is the length of a node's list, and the keys of a list ascend.
///  - A node with n keys has n + 1 children, or none at all in a leaf; all leaves have the same depth.
///  - No node holds more than order - 1 keys, and none but the root fewer than order / 2 - 1.
///
/// The shape that the algorithms give to the tree is part of their contract, also what the removal of an
/// absent key does to it: the listing of a pool's sockets leaves out whole subtrees.
class BTree {
public:
    struct KeyNode;

    struct Node {
        int8_t m_count = 0;         ///< Keys in this node.
        KeyNode* m_head = nullptr;  ///< The smallest key, null in an empty node.
        Node* m_right = nullptr;    ///< The child with the keys above all keys here. Null in a leaf.
        uint8_t m_leaf = 1;         ///< 1 in a leaf.
    };

    struct KeyNode {
        void* m_data = nullptr;     ///< The payload.
        Node* m_left = nullptr;     ///< The child with the keys below this key. Null in a leaf.
        KeyNode* m_next = nullptr;  ///< The next greater key of the node, null at the end.
        KeyNode* m_prev = nullptr;  ///< The next smaller key; in the first keynode, the last one of the node.
    };

    /// `order` is raised to an even number. From 4 to 128. Without memory for its first leaf the tree makes
    /// that at the first insertion that finds some.
    explicit BTree(short order);

    /// Frees the nodes, and deletes the payloads with a key above 0, which are socket records. Other payloads
    /// stay.
    ~BTree();

    BTree(const BTree&) = delete;
    BTree& operator=(const BTree&) = delete;

    /// Adds a payload. There is no test for a key that is there already: a duplicate goes ahead of its equal.
    /// False, with the payload not added, if there is no memory.
    bool Insert(void* payload) INFRA_EXCLUDES(m_lock);
    bool InsertLocked(void* payload) INFRA_REQUIRES(m_lock);

    /// Takes the payload with that key out of the tree. Null if there is none. Needs no memory.
    void* Remove(int64_t key) INFRA_EXCLUDES(m_lock);
    void* RemoveLocked(int64_t key) INFRA_REQUIRES(m_lock);

    /// The payload with that key, pinned before the lock is left; or null. With a key of 0 or more it is a
    /// CEvent whose `m_mutex` the caller now holds and leaves. With a negative key it is an ObjectEntry, and
    /// the caller owes its owner a DecRef.
    void* Find(int64_t key) INFRA_EXCLUDES(m_lock);

    /// The same for callers that hold the lock, either way.
    void* FindLocked(int64_t key) INFRA_REQUIRES_SHARED(m_lock);

    void WriteLock() INFRA_ACQUIRE(m_lock) { m_lock.enterWriting(); }
    void ReadLock() INFRA_ACQUIRE_SHARED(m_lock) { m_lock.enterReading(); }
    /// Ends what WriteLock or ReadLock began.
    void Unlock() INFRA_RELEASE_GENERIC(m_lock) { m_lock.leave(); }

    /// Calls `visit(void* payload)` for every payload in the order of the keys. `visit` may not change the
    /// tree.
    template <class Visitor>
    void ForEach(Visitor visit) const INFRA_REQUIRES_SHARED(m_lock) {
        for_each_below(m_root, visit);
    }

    /// For walks of the caller's own. An empty tree has an empty leaf, or null if there was no memory for it.
    const Node* root() const INFRA_REQUIRES_SHARED(m_lock) { return m_root; }

    static int64_t key_of(const void* payload) { return *static_cast<const int64_t*>(payload); }

private:
    /// The neighbours of a node under its parent, with the keynodes that stand between. Null where there is
    /// none.
    struct Neighbours {
        Node* left = nullptr;
        KeyNode* left_separator = nullptr;
        Node* right = nullptr;
        KeyNode* right_separator = nullptr;
    };

    template <class Visitor>
    static void for_each_below(const Node* node, Visitor& visit) {
        if (node == nullptr) {
            return;
        }
        for (const KeyNode* key = node->m_head; key != nullptr; key = key->m_next) {
            for_each_below(key->m_left, visit);
            visit(key->m_data);
        }
        for_each_below(node->m_right, visit);
    }

    int maximum() const { return m_order - 1; }
    int minimum() const { return m_order / 2 - 1; }

    void* find(int64_t key) const INFRA_REQUIRES_SHARED(m_lock);
    Node* split(Node* child, Node* parent, int64_t key) INFRA_REQUIRES(m_lock);
    void* remove_below(Node* node, int64_t key) INFRA_REQUIRES(m_lock);
    void* remove_from_inner(Node* node, KeyNode* key_node) INFRA_REQUIRES(m_lock);
    Node* fill(Node* child, KeyNode* key_node, Node* parent) INFRA_REQUIRES(m_lock);
    Node* merge(Node* a, Node* b, KeyNode* separator, Node* parent) INFRA_REQUIRES(m_lock);

    static Neighbours neighbours_of(const Node* child, KeyNode* key_node, const Node* parent);
    static void free_below(Node* node);

    Node* m_root INFRA_GUARDED_BY(m_lock);  ///< Null until there is memory for the first leaf.
    const int16_t m_order;
    mutable Infra::CReadWriteMutex m_lock{Infra::LockClass::SOCKET_TREE};  ///< Guards the whole tree.

    friend struct BTreeProbe;  // tests
};

}  // namespace Orvex::Reticor
