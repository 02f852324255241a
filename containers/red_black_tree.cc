// Red-black trees whose nodes are also threaded on a list.
//
// Between operations:
//   - the nodes are a red-black tree under `root`: no red node has a red child, and each path from
//     the root down meets as many black nodes; the root is black;
//   - the list through `next` is the in-order walk of the tree, `prev` goes the other way, and both
//     end at the sentinel; equal keys lie in the order of their insertion;
//   - the sentinel stands for every missing child, parent and neighbour. It is black, and its left
//     and right lead to itself. Its parent, prev and next are written where that saves a test, and
//     mean nothing afterwards.
//
// Removal relinks nodes and never moves what they hold, so that other nodes stay what they are to
// the caller.

#include "containers/red_black_tree.h"

#include <utility>

#include "runtime/internal.h"
#include "zelrt/memory.h"

namespace zelrt {
namespace {

using Tree = ZelRedBlackTree;
using Node = ZelRedBlackNode;

// Debug builds check a whole tree after each change as long as it has no more nodes than this.
constexpr uint32_t kCheckedCount = 1024;

constexpr uint32_t kAllocFlags = 0;

int32_t CompareUnsigned(uint64_t a, uint64_t b) { return a < b ? -1 : a > b; }

// Out of line, so that the usual order need not save registers for a call.
template <typename Operation>
[[gnu::noinline]] auto WithCallback(const Tree* tree, Operation operation) {
  return operation([compare = tree->compare](uint64_t a, uint64_t b) { return compare(a, b); });
}

// Calls `operation` with the tree's order: with the default itself when it is in force, so that the
// compiler can see through it.
template <typename Operation>
[[gnu::always_inline]] inline auto WithCompare(const Tree* tree, Operation operation) {
  if (tree->compare != CompareUnsigned) [[unlikely]]
    return WithCallback(tree, operation);
  return operation([](uint64_t a, uint64_t b) { return CompareUnsigned(a, b); });
}

bool IsSentinel(const Node* node) { return node == node->tree->nil; }
Node* OrNull(const Tree* tree, Node* node) { return node != tree->nil ? node : nullptr; }

Node* AllocateNode(Tree* tree, uint64_t key, void* item) {
  auto* const node =
      static_cast<Node*>(__ZelMalloc(tree->memoryCategory, sizeof(Node), kAllocFlags));
  Node* const nil = tree->nil;
  *node = {.tree = tree,
           .left = nil,
           .right = nil,
           .parent = nil,
           .prev = nil,
           .next = nil,
           .key = key,
           .item = item,
           .colour = kRed};
  return node;
}

// Searches
// ----------------------------------------------------------------------------------------

// The first node that is not before `key`, or nil. Among equal keys it goes down to the first,
// which takes no longer however many there are.
Node* LowerBound(const Tree* tree, uint64_t key) {
  return WithCompare(tree, [tree, key](auto compare) {
    Node* const nil = tree->nil;
    Node* found = nil;
    for (Node* node = tree->root; node != nil;) {
      const bool isBefore = compare(key, node->key) > 0;
      found = isBefore ? found : node;
      node = isBefore ? node->right : node->left;
    }
    return found;
  });
}

// The last node that is not after `key`, or nil.
Node* LastNotAfter(const Tree* tree, uint64_t key) {
  return WithCompare(tree, [tree, key](auto compare) {
    Node* const nil = tree->nil;
    Node* found = nil;
    for (Node* node = tree->root; node != nil;) {
      const bool isAfter = compare(key, node->key) < 0;
      found = isAfter ? found : node;
      node = isAfter ? node->left : node->right;
    }
    return found;
  });
}

Node* Leftmost(const Tree* tree) {
  Node* node = tree->root;
  while (node->left != tree->nil) node = node->left;
  return node;
}

Node* RangeStart(const Tree* tree, uint64_t low, uint64_t high) {
  Node* const node = LowerBound(tree, low);
  if (node == tree->nil) return nullptr;
  return WithCompare(tree, [=](auto compare) {
    // A key that was asked for is found even when `high` lies before it.
    const bool isInRange = compare(low, node->key) == 0 || compare(high, node->key) > 0;
    return isInRange ? node : nullptr;
  });
}

[[gnu::always_inline]] inline Node* RangeNext(const Node* node, uint64_t high) {
  const Tree* const tree = node->tree;
  Node* const next = node->next;
  if (node == tree->nil || next == tree->nil) return nullptr;
  return WithCompare(tree,
                     [=](auto compare) { return compare(high, next->key) < 0 ? nullptr : next; });
}

[[gnu::always_inline]] inline Node* RangePrev(const Node* node, uint64_t low) {
  const Tree* const tree = node->tree;
  Node* const prev = node->prev;
  if (node == tree->nil || prev == tree->nil) return nullptr;
  return WithCompare(tree,
                     [=](auto compare) { return compare(low, prev->key) > 0 ? nullptr : prev; });
}

// Balance
// -----------------------------------------------------------------------------------------

// A direction. Mirrored cases are written once, as templates over the two.
using Child = Node* Node::*;

// Puts `replacement` where `node` hangs. The replacement's own parent link is the caller's.
void ReplaceInParent(Tree* tree, const Node* node, Node* replacement) {
  Node* const parent = node->parent;
  if (parent == tree->nil) {
    tree->root = replacement;
  } else if (node == parent->left) {
    parent->left = replacement;
  } else {
    parent->right = replacement;
  }
}

// Moves `node` down to `side`; its child on the other side comes up. The sentinel's parent is left
// alone, for removal still needs it.
template <Child kSide, Child kOther>
void Rotate(Tree* tree, Node* node) {
  Node* const child = node->*kOther;
  Node* const inner = child->*kSide;
  node->*kOther = inner;
  if (inner != tree->nil) inner->parent = node;
  child->parent = node->parent;
  ReplaceInParent(tree, node, child);
  child->*kSide = node;
  node->parent = child;
}

// The node and its parent are red, and the parent is on kSide of its own. Returns the node that may
// now be red under a red parent.
template <Child kSide, Child kOther>
Node* LiftRed(Tree* tree, Node* node) {
  Node* parent = node->parent;
  Node* const grandparent = parent->parent;
  Node* const uncle = grandparent->*kOther;
  if (uncle->colour == kRed) {
    parent->colour = kBlack;
    uncle->colour = kBlack;
    grandparent->colour = kRed;
    return grandparent;
  }
  if (node == parent->*kOther) {
    Rotate<kSide, kOther>(tree, parent);
    std::swap(node, parent);
  }
  parent->colour = kBlack;
  grandparent->colour = kRed;
  Rotate<kOther, kSide>(tree, grandparent);
  return node;
}

// Paths through `node`, on kSide of its parent, lack a black node. Returns the node of which that
// is true now; it is cured by a red one, or when it is the root.
template <Child kSide, Child kOther>
Node* LiftLackOfBlack(Tree* tree, const Node* node) {
  Node* const parent = node->parent;
  Node* sibling = parent->*kOther;
  if (sibling->colour == kRed) {
    sibling->colour = kBlack;
    parent->colour = kRed;
    Rotate<kSide, kOther>(tree, parent);
    sibling = parent->*kOther;
  }
  if ((sibling->*kSide)->colour == kBlack && (sibling->*kOther)->colour == kBlack) {
    sibling->colour = kRed;
    return parent;
  }
  if ((sibling->*kOther)->colour == kBlack) {
    (sibling->*kSide)->colour = kBlack;
    sibling->colour = kRed;
    Rotate<kOther, kSide>(tree, sibling);
    sibling = parent->*kOther;
  }
  sibling->colour = parent->colour;
  parent->colour = kBlack;
  (sibling->*kOther)->colour = kBlack;
  Rotate<kSide, kOther>(tree, parent);
  return tree->root;
}

void RestoreAfterInsertion(Tree* tree, Node* node) {
  while (node->parent->colour == kRed) {
    node = node->parent == node->parent->parent->left
               ? LiftRed<&Node::left, &Node::right>(tree, node)
               : LiftRed<&Node::right, &Node::left>(tree, node);
  }
  tree->root->colour = kBlack;
}

void RestoreAfterRemoval(Tree* tree, Node* node) {
  while (node != tree->root && node->colour == kBlack) {
    node = node == node->parent->left ? LiftLackOfBlack<&Node::left, &Node::right>(tree, node)
                                      : LiftLackOfBlack<&Node::right, &Node::left>(tree, node);
  }
  node->colour = kBlack;
}

// Changes
// -----------------------------------------------------------------------------------------

void LinkBefore(Node* node, Node* parent) {
  parent->left = node;
  node->next = parent;
  node->prev = parent->prev;
  node->prev->next = node;
  parent->prev = node;
}

void LinkAfter(Node* node, Node* parent) {
  parent->right = node;
  node->prev = parent;
  node->next = parent->next;
  node->next->prev = node;
  parent->next = node;
}

// Equal keys go to the right, and so behind those that are there.
void Attach(Tree* tree, Node* node) {
  WithCompare(tree, [tree, node](auto compare) {
    Node* const nil = tree->nil;
    Node* parent = nil;
    bool isBefore = false;
    for (Node* next = tree->root; next != nil;) {
      parent = next;
      isBefore = compare(node->key, next->key) < 0;
      next = isBefore ? next->left : next->right;
    }
    node->parent = parent;
    if (parent == nil) {
      tree->root = node;
    } else if (isBefore) {
      LinkBefore(node, parent);
    } else {
      LinkAfter(node, parent);
    }
  });
}

void Detach(Tree* tree, Node* node) {
  Node* const nil = tree->nil;
  node->next->prev = node->prev;
  node->prev->next = node->next;

  // The place that falls empty is that of `leaving`, which has one child at most.
  Node* const leaving = node->left == nil || node->right == nil ? node : node->next;
  Node* const child = leaving->left != nil ? leaving->left : leaving->right;
  const uint32_t colourLost = leaving->colour;
  child->parent = leaving->parent;  // of the sentinel too: the repair below starts there
  ReplaceInParent(tree, leaving, child);

  if (leaving != node) {
    leaving->left = node->left;
    leaving->right = node->right;
    leaving->parent = node->parent;
    leaving->colour = node->colour;
    ReplaceInParent(tree, node, leaving);
    leaving->left->parent = leaving;
    // If `leaving` was the right child, this is `child`, perhaps the sentinel, which must not go on
    // to name the node that is going away.
    leaving->right->parent = leaving;
  }
  if (colourLost == kBlack) RestoreAfterRemoval(tree, child);
  --tree->count;
}

void AssertIsConsistent([[maybe_unused]] const Tree* tree) {
  ZEL_ASSERT(tree->count > kCheckedCount || RedBlackTreeIsConsistent(tree));
}

void Remove(Node* node) {
  Tree* const tree = node->tree;
  Detach(tree, node);
  __ZelFree(node);
  AssertIsConsistent(tree);
}

void CallFrees(const Tree* tree, void* item, uint64_t key) {
  if (tree->freeItem != nullptr) tree->freeItem(item);
  if (tree->freeKey != nullptr) tree->freeKey(key);
}

// Checks
// ------------------------------------------------------------------------------------------

// Black nodes on the path that always goes left; the sentinel is one.
uint32_t BlackHeight(const Tree* tree) {
  uint32_t blacks = 1;
  for (const Node* node = tree->root; node != tree->nil; node = node->left)
    blacks += node->colour == kBlack;
  return blacks;
}

// Whether the subtree has no red node under a red one, and `blacks` black ones on each path. It
// goes down no deeper than twice that.
bool ColoursAreRight(const Tree* tree, const Node* node, uint32_t blacks) {
  if (node == tree->nil) return blacks == 1;
  if (node->colour == kBlack) {
    if (--blacks == 0) return false;
  } else if (node->left->colour == kRed || node->right->colour == kRed) {
    return false;
  }
  return ColoursAreRight(tree, node->left, blacks) && ColoursAreRight(tree, node->right, blacks);
}
bool ColoursAreRight(const Tree* tree) {
  return ColoursAreRight(tree, tree->root, BlackHeight(tree));
}

// Compares the list with the subtree's in-order walk, of which `previous` is the node before.
bool LinksAgree(const Tree* tree, const Node* node, const Node* parent, const Node*& previous,
                uint32_t& count) {
  if (node == tree->nil) return true;
  if (node->tree != tree || node->parent != parent) return false;
  if (!LinksAgree(tree, node->left, node, previous, count)) return false;
  if (node->prev != previous || (previous != tree->nil && previous->next != node)) return false;
  previous = node;
  ++count;
  return LinksAgree(tree, node->right, node, previous, count);
}

bool SentinelIsConsistent(const Node* nil) {
  return nil->left == nil && nil->right == nil && nil->key == 0 && nil->item == nullptr &&
         nil->colour == kBlack && IsSentinel(nil);
}

bool KeysAreInOrder(const Tree* tree) {
  return WithCompare(tree, [tree](auto compare) {
    const Node* const nil = tree->nil;
    uint32_t count = 0;
    for (const Node* node = Leftmost(tree); node != nil; node = node->next) {
      if (++count > tree->count) return false;
      if (node->next != nil && compare(node->key, node->next->key) > 0) return false;
    }
    return count == tree->count;
  });
}

}  // namespace

bool RedBlackTreeIsConsistent(const ZelRedBlackTree* tree) {
  const Node* const nil = tree->nil;
  if (!SentinelIsConsistent(nil) || tree->root->colour != kBlack || !ColoursAreRight(tree))
    return false;
  const Node* last = nil;
  uint32_t count = 0;
  return LinksAgree(tree, tree->root, nil, last, count) && (last == nil || last->next == nil) &&
         count == tree->count;
}

}  // namespace zelrt

using namespace zelrt;

ZelRedBlackTree* __ZelCreateRedBlackTree(uint32_t memoryCategory, ZelRedBlackCompare compare,
                                         ZelRedBlackFreeItem freeItem, ZelRedBlackFreeKey freeKey) {
  auto* const tree = static_cast<Tree*>(__ZelMalloc(memoryCategory, sizeof(Tree), kAllocFlags));
  *tree = {.root = nullptr,
           .nil = nullptr,
           .compare = compare != nullptr ? compare : CompareUnsigned,
           .freeItem = freeItem,
           .freeKey = freeKey,
           .memoryCategory = memoryCategory,
           .count = 0};
  auto* const nil = static_cast<Node*>(__ZelMalloc(memoryCategory, sizeof(Node), kAllocFlags));
  *nil = {tree, nil, nil, nil, nil, nil, 0, nullptr, kBlack};
  tree->nil = nil;
  tree->root = nil;
  return tree;
}

void __ZelInsertRedBlackEntry(ZelRedBlackTree* tree, uint64_t key, void* item) {
  Node* const node = AllocateNode(tree, key, item);
  Attach(tree, node);
  ++tree->count;
  RestoreAfterInsertion(tree, node);
  AssertIsConsistent(tree);
}

void __ZelRemoveRedBlackEntry(ZelRedBlackNode* node) {
  if (node != nullptr) Remove(node);
}

ZelRedBlackNode* __ZelGetRedBlackRangeStart(const ZelRedBlackTree* tree, uint64_t low,
                                            uint64_t high) {
  return tree != nullptr ? RangeStart(tree, low, high) : nullptr;
}
ZelRedBlackNode* __ZelGetRedBlackRangeEnd(const ZelRedBlackTree* tree, uint64_t high) {
  return tree != nullptr ? OrNull(tree, LastNotAfter(tree, high)) : nullptr;
}
ZelRedBlackNode* __ZelGetRedBlackRangeNext(const ZelRedBlackNode* node, uint64_t high) {
  return node != nullptr ? RangeNext(node, high) : nullptr;
}
ZelRedBlackNode* __ZelGetRedBlackRangePrev(const ZelRedBlackNode* node, uint64_t low) {
  return node != nullptr ? RangePrev(node, low) : nullptr;
}

uint32_t __ZelGetRedBlackItem(const ZelRedBlackNode* node, void** item) {
  if (node == nullptr || item == nullptr || IsSentinel(node)) return 0;
  *item = node->item;
  return 1;
}
uint32_t __ZelGetRedBlackKey(const ZelRedBlackNode* node, uint64_t* key) {
  if (node == nullptr || key == nullptr || IsSentinel(node)) return 0;
  *key = node->key;
  return 1;
}

void __ZelDestroyRedBlackRange(ZelRedBlackTree* tree, uint64_t low, uint64_t high) {
  if (tree == nullptr) return;
  for (Node* node = RangeStart(tree, low, high); node != nullptr;) {
    Node* const next = RangeNext(node, high);
    void* const item = node->item;
    const uint64_t key = node->key;
    Remove(node);
    CallFrees(tree, item, key);
    node = next;
  }
}

void __ZelDestroyRedBlackTree(ZelRedBlackTree* tree) {
  if (tree == nullptr) return;
  for (Node* node = Leftmost(tree); node != tree->nil;) {
    Node* const next = node->next;
    CallFrees(tree, node->item, node->key);
    __ZelFree(node);
    node = next;
  }
  __ZelFree(tree->nil);
  __ZelFree(tree);
}

uint32_t __ZelValidateRedBlack(const ZelRedBlackTree* tree) {
  return tree != nullptr && ColoursAreRight(tree) && KeysAreInOrder(tree);
}
