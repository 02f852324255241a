/* Red-black trees: ordered maps from 64-bit keys to items, walked by ranges of keys.
 *
 *   ZelRedBlackTree* tree = __ZelCreateRedBlackTree(category, NULL, free, NULL);
 *   __ZelInsertRedBlackEntry(tree, 0x1000, item);
 *   ZelRedBlackNode* node = __ZelGetRedBlackRangeStart(tree, 0x1000, 0x2000);
 *   for (; node != NULL; node = __ZelGetRedBlackRangeNext(node, 0x2000)) Use(node);
 *   __ZelDestroyRedBlackTree(tree);
 *
 * Keys may be equal; they stay in the order in which they were inserted. Inserting, finding and
 * removing take time logarithmic in the number of nodes, a step to a neighbour takes constant time.
 *
 * A node, the handle of one key and its item, is valid until that very node is removed, whatever
 * else is inserted or removed. "None" is a null handle. Keys and items are the caller's: the tree
 * looks at neither, but passes keys to its compare callback.
 *
 * No locks: a tree with its nodes is used by one thread at a time. Callbacks run on the calling
 * thread, in the middle of the operation, and must not change the same tree. Nothing is logged.
 * Using a node after its removal is not detected. */
#ifndef ZELRT_RED_BLACK_TREE_H
#define ZELRT_RED_BLACK_TREE_H

#include "zelrt/base.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ZelRedBlackTree ZelRedBlackTree;
typedef struct ZelRedBlackNode ZelRedBlackNode;

/* Negative when a orders before b, 0 when they are equal, positive when a orders after b; a total
 * order. The searched or new key is the first argument, a key in the tree the second; only
 * validation passes two keys of the tree. */
typedef int32_t (*ZelRedBlackCompare)(uint64_t a, uint64_t b);

/* What a node held when it was destroyed: first the item, then the key. In
 * __ZelDestroyRedBlackRange both are called when the node has left the tree. */
typedef void (*ZelRedBlackFreeItem)(void* item);
typedef void (*ZelRedBlackFreeKey)(uint64_t key);

/* Returns an empty tree. It and its nodes are allocated under memoryCategory (zelrt/memory.h). A
 * null `compare` orders keys as unsigned integers, which is faster than any callback; a null
 * freeItem or freeKey is not called. */
ZEL_API ZelRedBlackTree* __ZelCreateRedBlackTree(uint32_t memoryCategory,
                                                 ZelRedBlackCompare compare,
                                                 ZelRedBlackFreeItem freeItem,
                                                 ZelRedBlackFreeKey freeKey);

/* Adds a node, after those with an equal key. A tree holds at most 2^32 - 1; not checked. */
ZEL_API void __ZelInsertRedBlackEntry(ZelRedBlackTree* tree, uint64_t key, void* item);

/* Takes the node out and frees it. Item and key stay the caller's: neither is freed. Null is
 * ignored. */
ZEL_API void __ZelRemoveRedBlackEntry(ZelRedBlackNode* node);

/* Ranges. Forwards: take the start, then step with `next` until it returns null. Backwards: take
 * the end, then step with `prev`. The four treat their bounds differently. A null tree has no
 * nodes. */

/* The first node with the key `low`, whatever `high` is. If there is none, the first node after
 * `low`, provided that its key is strictly before `high`; null otherwise. */
ZEL_API ZelRedBlackNode* __ZelGetRedBlackRangeStart(const ZelRedBlackTree* tree, uint64_t low,
                                                    uint64_t high);

/* The last node whose key is at or before `high`, or null. There is no lower bound. */
ZEL_API ZelRedBlackNode* __ZelGetRedBlackRangeEnd(const ZelRedBlackTree* tree, uint64_t high);

/* The node after this one if its key is at or before `high`; null otherwise, at the end, and for
 * null. */
ZEL_API ZelRedBlackNode* __ZelGetRedBlackRangeNext(const ZelRedBlackNode* node, uint64_t high);

/* The node before this one if its key is at or after `low`; null otherwise, at the beginning, and
 * for null. */
ZEL_API ZelRedBlackNode* __ZelGetRedBlackRangePrev(const ZelRedBlackNode* node, uint64_t low);

/* Store what the node holds and return 1. They touch nothing and return 0 when the node or the
 * out-parameter is null, or when the node is the tree's sentinel. */
ZEL_API uint32_t __ZelGetRedBlackItem(const ZelRedBlackNode* node, void** item);
ZEL_API uint32_t __ZelGetRedBlackKey(const ZelRedBlackNode* node, uint64_t* key);

/* Removes and destroys the nodes that a forward walk over the range visits, in that order: nothing
 * if the start is null, else the start and all that follow at or before `high`. A null tree is
 * ignored. */
ZEL_API void __ZelDestroyRedBlackRange(ZelRedBlackTree* tree, uint64_t low, uint64_t high);

/* Destroys all nodes, in order, and the tree. Null is ignored. */
ZEL_API void __ZelDestroyRedBlackTree(ZelRedBlackTree* tree);

/* Returns 1 when no red node has a red child, all paths from the root down have as many black
 * nodes, keys are in order, and the nodes are as many as were counted; 0 when the tree is damaged,
 * or null. Visits every node. */
ZEL_API uint32_t __ZelValidateRedBlack(const ZelRedBlackTree* tree);

#ifdef __cplusplus
}
#endif

#endif
