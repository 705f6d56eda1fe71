// BTreeModel: the plain tree. BTreeText: a tree as text, and its invariants.
#include "support/core/BTreeModel.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Orvex::Testing {

using Reticor::BTree;

// ---- the model -------------------------------------------------------------------------------------------

BTreeModel::BTreeModel(int order) : m_order(static_cast<size_t>(order)), m_root(new Node) {}

void BTreeModel::splitChild(Node& parent, size_t place) {
    Node& child = *parent.children[place];
    const size_t half = (child.keys.size() + 1) / 2 - 1;
    Child left(new Node);
    left->keys.assign(child.keys.begin(), child.keys.begin() + static_cast<long>(half));
    const int64_t median = child.keys[half];
    child.keys.erase(child.keys.begin(), child.keys.begin() + static_cast<long>(half) + 1);
    if (!child.leaf()) {
        const auto end = child.children.begin() + static_cast<long>(half) + 1;
        std::move(child.children.begin(), end, std::back_inserter(left->children));
        child.children.erase(child.children.begin(), end);
    }
    parent.keys.insert(parent.keys.begin() + static_cast<long>(place), median);
    parent.children.insert(parent.children.begin() + static_cast<long>(place), std::move(left));
}

void BTreeModel::Insert(int64_t key) {
    if (full(*m_root)) {
        Child root(new Node);
        root->children.push_back(std::move(m_root));
        m_root = std::move(root);
        splitChild(*m_root, 0);
    }
    Node* node = m_root.get();
    while (!node->leaf()) {
        size_t place = 0;
        while (place < node->keys.size() && node->keys[place] <= key) {
            ++place;
        }
        if (full(*node->children[place])) {
            splitChild(*node, place);
            place += key < node->keys[place] ? 0 : 1;
        }
        node = node->children[place].get();
    }
    node->keys.insert(std::lower_bound(node->keys.begin(), node->keys.end(), key), key);
}

bool BTreeModel::Remove(int64_t key) {
    const bool found = removeFrom(*m_root, key);
    m_old_root.reset();
    return found;
}

bool BTreeModel::removeFrom(Node& node, int64_t key) {
    size_t place = 0;
    while (place < node.keys.size() && node.keys[place] < key) {
        ++place;
    }
    if (place < node.keys.size() && node.keys[place] == key) {
        removeAt(node, place);
        return true;
    }
    if (node.leaf()) {
        return false;
    }
    Node& child = *node.children[place];
    return removeFrom(minimal(child) ? fill(node, place) : child, key);
}

void BTreeModel::removeAt(Node& node, size_t place) {
    if (node.leaf()) {
        node.keys.erase(node.keys.begin() + static_cast<long>(place));
        return;
    }
    Node& left = *node.children[place];
    Node& right = *node.children[place + 1];
    if (minimal(left) && minimal(right)) {
        const size_t inside = left.keys.size();
        removeAt(mergeAround(node, place), inside);
    } else if (minimal(left)) {
        const int64_t successor = smallest(right);
        removeFrom(right, successor);
        node.keys[place] = successor;
    } else {
        const int64_t predecessor = greatest(left);
        removeFrom(left, predecessor);
        node.keys[place] = predecessor;
    }
}

BTreeModel::Node& BTreeModel::fill(Node& parent, size_t place) {
    Node& child = *parent.children[place];
    if (place > 0 && !minimal(*parent.children[place - 1])) {
        Node& left = *parent.children[place - 1];
        child.keys.insert(child.keys.begin(), parent.keys[place - 1]);
        parent.keys[place - 1] = left.keys.back();
        left.keys.pop_back();
        if (!left.leaf()) {
            child.children.insert(child.children.begin(), std::move(left.children.back()));
            left.children.pop_back();
        }
        return child;
    }
    if (place < parent.keys.size() && !minimal(*parent.children[place + 1])) {
        Node& right = *parent.children[place + 1];
        child.keys.push_back(parent.keys[place]);
        parent.keys[place] = right.keys.front();
        right.keys.erase(right.keys.begin());
        if (!right.leaf()) {
            child.children.push_back(std::move(right.children.front()));
            right.children.erase(right.children.begin());
        }
        return child;
    }
    return mergeAround(parent, place > 0 ? place - 1 : place);
}

BTreeModel::Node& BTreeModel::mergeAround(Node& parent, size_t place) {
    Child left = std::move(parent.children[place]);
    Child right = std::move(parent.children[place + 1]);
    left->keys.push_back(parent.keys[place]);
    left->keys.insert(left->keys.end(), right->keys.begin(), right->keys.end());
    std::move(right->children.begin(), right->children.end(), std::back_inserter(left->children));
    parent.keys.erase(parent.keys.begin() + static_cast<long>(place));
    parent.children.erase(parent.children.begin() + static_cast<long>(place));
    Node& merged = *left;
    if (parent.keys.empty()) {
        m_old_root = std::move(m_root);
        m_root = std::move(left);
    } else {
        parent.children[place] = std::move(left);
    }
    return merged;
}

int64_t BTreeModel::smallest(const Node& node) {
    return node.leaf() ? node.keys.front() : smallest(*node.children.front());
}

int64_t BTreeModel::greatest(const Node& node) {
    return node.leaf() ? node.keys.back() : greatest(*node.children.back());
}

std::string BTreeModel::shapeOf(const Node& node) {
    std::string text = "(";
    for (size_t i = 0; i < node.keys.size(); ++i) {
        text += i > 0 ? " " : "";
        text += node.leaf() ? "" : shapeOf(*node.children[i]) + " ";
        text += std::to_string(node.keys[i]);
    }
    return text + (node.leaf() ? "" : " " + shapeOf(*node.children.back())) + ")";
}

// ---- the tree's own nodes --------------------------------------------------------------------------------

namespace {

void appendShape(const BTree::Node& node, std::string& text) {
    text += '(';
    for (const BTree::KeyNode* key = node.m_head; key != nullptr; key = key->m_next) {
        text += key != node.m_head ? " " : "";
        if (key->m_left != nullptr) {
            appendShape(*key->m_left, text);
            text += ' ';
        }
        text += std::to_string(BTree::key_of(key->m_data));
    }
    if (node.m_right != nullptr) {
        text += ' ';
        appendShape(*node.m_right, text);
    }
    text += ')';
}

class Inspector {
public:
    explicit Inspector(int order) : m_order(order) {}

    /// Looks at the subtree of `node`. Result: its depth.
    int visit(const BTree::Node& node, bool root) {
        visitList(node);
        const int most = m_order - 1;
        const int least = root ? 0 : m_order / 2 - 1;
        fail(node.m_count > most || node.m_count < least, "a node holds " + std::to_string(node.m_count));
        fail(node.m_leaf > 1, "the leaf mark is not 0 or 1");
        if (node.m_leaf != 0) {
            fail(node.m_right != nullptr, "a leaf has a right child");
        } else {
            fail(node.m_head == nullptr, "an inner node has no key");
            fail(node.m_right == nullptr, "an inner node has no right child");
        }
        return visitChildren(node);
    }

    std::string faults;

private:
    void fail(bool broken, const std::string& what) { faults += broken ? what + "\n" : ""; }

    void visitList(const BTree::Node& node) {
        int length = 0;
        const BTree::KeyNode* last = nullptr;
        for (const BTree::KeyNode* key = node.m_head; key != nullptr; key = key->m_next) {
            fail(last != nullptr && key->m_prev != last, "a predecessor link is wrong");
            fail((key->m_left == nullptr) != (node.m_leaf != 0), "a left child does not fit the leaf mark");
            last = key;
            ++length;
        }
        fail(node.m_head != nullptr && node.m_head->m_prev != last,
             "the first keynode does not lead to the last");
        fail(length != node.m_count, "the count is not the length of the list");
    }

    int visitChildren(const BTree::Node& node) {
        int depth = -1;
        for (const BTree::KeyNode* key = node.m_head; key != nullptr; key = key->m_next) {
            visitChild(key->m_left, depth);
            const int64_t value = BTree::key_of(key->m_data);
            fail(m_any && value < m_last, "keys do not ascend");
            m_any = true;
            m_last = value;
        }
        visitChild(node.m_right, depth);
        return depth + 1;
    }

    void visitChild(const BTree::Node* child, int& depth) {
        if (child != nullptr) {
            const int below = visit(*child, false);
            fail(depth != -1 && depth != below, "leaves have different depths");
            depth = below;
        }
    }

    const int m_order;
    bool m_any = false;
    int64_t m_last = 0;
};

}  // namespace

std::string shapeOf(BTree& tree) {
    tree.ReadLock();
    std::string text;
    appendShape(*tree.root(), text);
    tree.Unlock();
    return text;
}

std::string faultsOf(BTree& tree, int order) {
    tree.ReadLock();
    Inspector inspector(order);
    inspector.visit(*tree.root(), true);
    tree.Unlock();
    return inspector.faults;
}

}  // namespace Orvex::Testing
