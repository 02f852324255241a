// The records of a red-black tree, as the tree and its tests know them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zelrt/red_black_tree.h"

struct ZelRedBlackTree {
  ZelRedBlackNode* root;  // nil when the tree is empty
  ZelRedBlackNode* nil;   // the sentinel
  ZelRedBlackCompare compare;
  ZelRedBlackFreeItem freeItem;
  ZelRedBlackFreeKey freeKey;
  uint32_t memoryCategory;
  uint32_t count;
};

struct ZelRedBlackNode {
  ZelRedBlackTree* tree;
  ZelRedBlackNode* left;  // this link and the next four: nil for none
  ZelRedBlackNode* right;
  ZelRedBlackNode* parent;
  ZelRedBlackNode* prev;
  ZelRedBlackNode* next;
  uint64_t key;
  void* item;
  uint32_t colour;
};

static_assert(offsetof(ZelRedBlackTree, compare) == 16 &&
              offsetof(ZelRedBlackTree, memoryCategory) == 40 && sizeof(ZelRedBlackTree) == 48);
static_assert(offsetof(ZelRedBlackNode, parent) == 24 && offsetof(ZelRedBlackNode, key) == 48 &&
              offsetof(ZelRedBlackNode, colour) == 64 && sizeof(ZelRedBlackNode) == 72);

namespace zelrt {

inline constexpr uint32_t kBlack = 0;
inline constexpr uint32_t kRed = 1;

// Whether colours, links in both directions, the list and the count agree. Compares no keys.
bool RedBlackTreeIsConsistent(const ZelRedBlackTree* tree);

}  // namespace zelrt
