// BTreeModel: the key tree once more, slow and plain, to compare shapes with. BTreeText: the shape of a BTree
// as text, and a check of its invariants.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Core/watch/BTree.h"

namespace Orvex::Testing {

/// Nodes are arrays of keys and children; every step copies what it moves. Written from the rules, not from
/// the tree's source, so that a slip in either shows.
class BTreeModel {
public:
    explicit BTreeModel(int order);

    void Insert(int64_t key);
    bool Remove(int64_t key);

    /// "((1 2 3) 4 (5 6 7))"; "()" for an empty tree.
    std::string Shape() const { return shapeOf(*m_root); }

private:
    struct Node;
    using Child = std::unique_ptr<Node>;

    struct Node {
        std::vector<int64_t> keys;
        std::vector<Child> children;
        bool leaf() const { return children.empty(); }
    };

    bool full(const Node& node) const { return node.keys.size() == m_order - 1; }
    bool minimal(const Node& node) const { return node.keys.size() == m_order / 2 - 1; }

    static void splitChild(Node& parent, size_t place);
    static int64_t smallest(const Node& node);
    static int64_t greatest(const Node& node);
    static std::string shapeOf(const Node& node);

    bool removeFrom(Node& node, int64_t key);
    void removeAt(Node& node, size_t place);
    Node& fill(Node& parent, size_t place);
    Node& mergeAround(Node& parent, size_t place);

    const size_t m_order;
    Child m_root;
    Child m_old_root;  ///< Kept until the operation ends, since callers still refer to it.
};

/// The shape of `tree` in the model's words. The caller lets nobody change the tree meanwhile.
std::string shapeOf(Reticor::BTree& tree);

/// What is wrong with the tree's nodes and lists; empty if all invariants hold.
std::string faultsOf(Reticor::BTree& tree, int order);

}  // namespace Orvex::Testing
