// BTree: lookup, insertion, removal.
#include "Core/watch/BTree.h"

#include <cassert>
#include <new>

#include "Core/handle/HandlerInternal.h"
#include "Core/record/Event.h"
#include "Core/record/GeneralAllocator.h"

namespace Orvex::Reticor {

namespace {

using Node = BTree::Node;
using KeyNode = BTree::KeyNode;

template <class Record>
Record* make() {
    void* memory = general_allocate(sizeof(Record));
    return memory != nullptr ? new (memory) Record : nullptr;
}

int64_t key_in(const KeyNode* key_node) {
    return BTree::key_of(key_node->m_data);
}

// ---- the list of a node ----------------------------------------------------------------------------------

KeyNode* last_of(const Node* node) {
    return node->m_head != nullptr ? node->m_head->m_prev : nullptr;
}

/// Links `key_node` ahead of `place`, or at the end if `place` is null.
void link(Node* node, KeyNode* place, KeyNode* key_node) {
    KeyNode* head = node->m_head;
    key_node->m_next = place;
    ++node->m_count;
    if (head == nullptr) {
        key_node->m_prev = key_node;
        node->m_head = key_node;
        return;
    }
    KeyNode* after = place != nullptr ? place : head;  // Whose m_prev leads to the new one from now on.
    key_node->m_prev = after->m_prev;
    after->m_prev = key_node;
    if (place == head) {
        node->m_head = key_node;
    } else {
        key_node->m_prev->m_next = key_node;
    }
}

void unlink(Node* node, KeyNode* key_node) {
    KeyNode* next = key_node->m_next;
    --node->m_count;
    if (key_node == node->m_head) {
        node->m_head = next;
    } else {
        key_node->m_prev->m_next = next;
    }
    if (KeyNode* after = next != nullptr ? next : node->m_head) {
        after->m_prev = key_node->m_prev;
    }
    key_node->m_next = nullptr;
    key_node->m_prev = nullptr;
}

/// Puts the whole list of `from` in front of that of `to`.
void prepend(Node* from, Node* to) {
    if (from->m_head == nullptr) {
        return;
    }
    KeyNode* last = last_of(to);
    KeyNode* middle = last_of(from);
    middle->m_next = to->m_head;
    to->m_head->m_prev = middle;
    to->m_head = from->m_head;
    to->m_head->m_prev = last;
    to->m_count = static_cast<int8_t>(to->m_count + from->m_count);
    from->m_head = nullptr;
    from->m_count = 0;
}

/// The first keynode with this key or a greater one, or null.
KeyNode* not_below(const Node* node, int64_t key) {
    KeyNode* key_node = node->m_head;
    while (key_node != nullptr && key_in(key_node) < key) {
        key_node = key_node->m_next;
    }
    return key_node;
}

/// The child that stands ahead of `key_node`, or the last one if `key_node` is null.
Node* child_at(const Node* node, const KeyNode* key_node) {
    return key_node != nullptr ? key_node->m_left : node->m_right;
}

/// The child in which a new `key` belongs: after its equals, if there are any.
Node* child_for_new(const Node* node, int64_t key) {
    const KeyNode* key_node = node->m_head;
    while (key_node != nullptr && key_in(key_node) <= key) {
        key_node = key_node->m_next;
    }
    return child_at(node, key_node);
}

int64_t smallest_below(const Node* node) {
    while (node->m_leaf == 0) {
        node = node->m_head->m_left;
    }
    return key_in(node->m_head);
}

int64_t greatest_below(const Node* node) {
    while (node->m_leaf == 0) {
        node = node->m_right;
    }
    return key_in(last_of(node));
}

void* take_from(Node* leaf, KeyNode* key_node) {
    void* payload = key_node->m_data;
    unlink(leaf, key_node);
    general_free(key_node);
    return payload;
}

// ---- borrowing -------------------------------------------------------------------------------------------

// A payload moves from the neighbour up into the separator, and the separator's down into `child`. The
// keynode that becomes free on the one side serves on the other, so that a removal never needs memory.

void borrow_from_left(Node* left, KeyNode* separator, Node* child) {
    KeyNode* moved = last_of(left);
    unlink(left, moved);
    Node* between = moved->m_left;
    moved->m_left = left->m_right;
    left->m_right = between;
    void* up = moved->m_data;
    moved->m_data = separator->m_data;
    separator->m_data = up;
    link(child, child->m_head, moved);
}

void borrow_from_right(Node* child, KeyNode* separator, Node* right) {
    KeyNode* moved = right->m_head;
    unlink(right, moved);
    Node* between = moved->m_left;
    moved->m_left = child->m_right;
    child->m_right = between;
    void* up = moved->m_data;
    moved->m_data = separator->m_data;
    separator->m_data = up;
    link(child, nullptr, moved);
}

}  // namespace

// ---- life ------------------------------------------------------------------------------------------------

BTree::BTree(short order)
    : m_root(make<Node>()), m_order(static_cast<int16_t>(order % 2 == 0 ? order : order + 1)) {}

BTree::~BTree() {
    free_below(m_root);
}

void BTree::free_below(Node* node) {
    if (node == nullptr) {
        return;
    }
    while (KeyNode* key_node = node->m_head) {
        free_below(key_node->m_left);
        if (key_in(key_node) > 0) {
            delete static_cast<CEvent*>(key_node->m_data);
        }
        take_from(node, key_node);
    }
    free_below(node->m_right);
    general_free(node);
}

// ---- lookup ----------------------------------------------------------------------------------------------

void* BTree::find(int64_t key) const {
    for (const Node* node = m_root; node != nullptr;) {
        KeyNode* key_node = not_below(node, key);
        if (key_node != nullptr && key_in(key_node) == key) {
            return key_node->m_data;
        }
        node = child_at(node, key_node);
    }
    return nullptr;
}

// The mutex of a record stays entered, which depends on the key's sign: nothing that the analysis could
// follow.
void* BTree::FindLocked(int64_t key) INFRA_NO_THREAD_SAFETY_ANALYSIS {
    void* payload = find(key);
    if (payload == nullptr) {
        return nullptr;
    }
    if (key >= 0) {
        static_cast<CEvent*>(payload)->m_mutex.enter();
    } else {
        HandlerInternal::Of(*static_cast<ObjectEntry*>(payload)->m_owner).AddRef();
    }
    return payload;
}

void* BTree::Find(int64_t key) {
    Infra::CReadGuard guard(m_lock);
    return FindLocked(key);
}

// ---- insertion -------------------------------------------------------------------------------------------

bool BTree::Insert(void* payload) {
    Infra::CWriteGuard guard(m_lock);
    return InsertLocked(payload);
}

bool BTree::InsertLocked(void* payload) {
    const int64_t key = key_of(payload);
    KeyNode* key_node = make<KeyNode>();
    if (m_root == nullptr) {
        m_root = make<Node>();
    }
    if (key_node == nullptr || m_root == nullptr) {
        general_free(key_node);
        return false;
    }
    key_node->m_data = payload;
    Node* node = m_root->m_count == maximum() ? split(m_root, nullptr, key) : m_root;
    while (node != nullptr && node->m_leaf == 0) {
        Node* child = child_for_new(node, key);
        node = child->m_count == maximum() ? split(child, node, key) : child;
    }
    if (node == nullptr) {
        general_free(key_node);
        return false;
    }
    link(node, not_below(node, key), key_node);
    return true;
}

/// Splits the full node `child`: the lower half goes to a new node on its left, and the median up into
/// `parent`, or into a new root if there is none. Result: the half in which `key` belongs, or null with
/// nothing changed if there is no memory.
BTree::Node* BTree::split(Node* child, Node* parent, int64_t key) {
    Node* left = make<Node>();
    Node* new_root = parent == nullptr ? make<Node>() : nullptr;
    if (left == nullptr || (parent == nullptr && new_root == nullptr)) {
        general_free(left);
        general_free(new_root);
        return nullptr;
    }
    for (int half = (child->m_count + 1) / 2 - 1; half > 0; --half) {
        KeyNode* moved = child->m_head;
        unlink(child, moved);
        link(left, nullptr, moved);
    }
    KeyNode* median = child->m_head;
    unlink(child, median);
    left->m_leaf = child->m_leaf;
    left->m_right = median->m_left;
    median->m_left = left;
    if (parent == nullptr) {
        parent = new_root;
        parent->m_right = child;
        parent->m_leaf = 0;
        m_root = parent;
    }
    KeyNode* place = parent->m_head;
    while (place != nullptr && place->m_left != child) {
        place = place->m_next;
    }
    link(parent, place, median);
    return key < key_in(median) ? left : child;
}

// ---- removal ---------------------------------------------------------------------------------------------

void* BTree::Remove(int64_t key) {
    Infra::CWriteGuard guard(m_lock);
    return RemoveLocked(key);
}

void* BTree::RemoveLocked(int64_t key) {
    return remove_below(m_root, key);
}

/// Takes `key` out of the subtree of `node`, which can spare a key or is the root.
void* BTree::remove_below(Node* node, int64_t key) {
    while (node != nullptr && node->m_head != nullptr) {
        KeyNode* key_node = not_below(node, key);
        if (key_node != nullptr && key_in(key_node) == key) {
            return node->m_leaf != 0 ? take_from(node, key_node) : remove_from_inner(node, key_node);
        }
        Node* child = child_at(node, key_node);
        if (child != nullptr && child->m_count == minimum()) {
            child = fill(child, key_node != nullptr ? key_node : last_of(node), node);
        }
        node = child;
    }
    return nullptr;
}

/// Takes the payload of `key_node` out of `node`, which is no leaf: pushes it down as long as both children
/// are minimal, and else puts the next key of a child in its place, the successor only if the left child is
/// minimal.
void* BTree::remove_from_inner(Node* node, KeyNode* key_node) {
    Node* left = key_node->m_left;
    Node* right = child_at(node, key_node->m_next);
    while (left->m_count == minimum() && right->m_count == minimum()) {
        node = merge(left, right, key_node, node);
        if (node->m_leaf != 0) {
            return take_from(node, key_node);
        }
        left = key_node->m_left;
        right = child_at(node, key_node->m_next);
    }
    void* payload = key_node->m_data;
    key_node->m_data = left->m_count <= minimum() ? remove_below(right, smallest_below(right))
                                                  : remove_below(left, greatest_below(left));
    return payload;
}

/// `key_node` leads to `child`, which is its left child or the right-most one of `parent`.
BTree::Neighbours BTree::neighbours_of(const Node* child, KeyNode* key_node, const Node* parent) {
    Neighbours found;
    if (key_node->m_left != child) {
        found.left = key_node->m_left;
        found.left_separator = key_node;
        return found;
    }
    if (key_node != parent->m_head) {
        found.left = key_node->m_prev->m_left;
        found.left_separator = key_node->m_prev;
    }
    found.right = child_at(parent, key_node->m_next);
    found.right_separator = key_node;
    return found;
}

/// Gives the minimal node `child` one key more, or merges it. Result: the node with the keys of `child`.
BTree::Node* BTree::fill(Node* child, KeyNode* key_node, Node* parent) {
    const Neighbours by = neighbours_of(child, key_node, parent);
    if (by.left != nullptr && by.left->m_count > minimum()) {
        borrow_from_left(by.left, by.left_separator, child);
        return child;
    }
    if (by.right != nullptr && by.right->m_count > minimum()) {
        borrow_from_right(child, by.right_separator, by.right);
        return child;
    }
    return by.left != nullptr ? merge(by.left, child, by.left_separator, parent)
                              : merge(child, by.right, by.right_separator, parent);
}

/// Joins `a`, the one with the smaller keys, `separator` and `b` into `b`. A root that lost its last key
/// goes, and the tree is one level lower.
BTree::Node* BTree::merge(Node* a, Node* b, KeyNode* separator, Node* parent) {
    unlink(parent, separator);
    separator->m_left = a->m_right;
    link(b, b->m_head, separator);
    prepend(a, b);
    general_free(a);
    if (parent->m_head == nullptr) {
        assert(m_root == parent);
        general_free(parent);
        m_root = b;
    }
    return b;
}

}  // namespace Orvex::Reticor
