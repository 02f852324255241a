// Queues: singly linked lists behind a dummy node, with a lock for each end if asked for.
//
// While no thread holds a lock of the queue:
//   - head points to dummy; from there each node leads to the next, in order of arrival;
//   - tail is the last node, dummy when the queue is empty; its next is null, and no other's is.
//
// Locks: head before tail. Neither has a rank among the library's own, since callbacks run under
// the head lock, and where that stands among other locks is the client's business. Nodes are freed
// under it, so it goes before the allocator's inner locks.
//   - The head lock guards dummy.next and the removal of nodes.
//   - The tail lock guards tail, and the next of the last node for as long as that is null.
// A node is appended in two steps, the link from the one before and then tail. Who holds the head
// lock alone may see the first without the second, so nobody compares with tail there: a node that
// has a successor is left alone by enqueuers, and can be unlinked even if tail is still to move on;
// a node without one is the last, or is just being appended, and takes the tail lock to unlink.
// An empty queue, where both ends meet at dummy, changes under both locks only.

#include "zelrt/queue.h"

#include <cstddef>

#include "containers/internal.h"
#include "runtime/internal.h"
#include "runtime/locks.h"
#include "zelrt/memory.h"

struct ZelQueueNode {
  uintptr_t value;
  ZelQueueNode* next;  // read under the head lock alone while an enqueuer sets it
};

struct ZelQueue {
  ZelQueueNode* head;
  ZelQueueNode* tail;
  ZelQueueNode dummy;
  ZelSpinLock headLock;
  ZelSpinLock tailLock;
  uint32_t flags;  // bits 4-11: memory category; the others are the caller's
  uint32_t queueFlag;
};

namespace zelrt {
namespace {

constexpr uint32_t kCategoryShift = 4;
constexpr uint32_t kCategoryMask = 0xFF;
static_assert(sizeof(ZelQueueNode) == 16 && offsetof(ZelQueue, tail) == 8 &&
              offsetof(ZelQueue, dummy) == 16 && offsetof(ZelQueue, headLock) == 32 &&
              offsetof(ZelQueue, tailLock) == 56 && offsetof(ZelQueue, flags) == 80 &&
              offsetof(ZelQueue, queueFlag) == 84 && sizeof(ZelQueue) == 88);

bool IsLocking(const ZelQueue* queue) { return (queue->flags & ZEL_QUEUE_FLAG_LOCKING) != 0; }
uint32_t CategoryOf(const ZelQueue* queue) {
  return queue->flags >> kCategoryShift & kCategoryMask;
}

// The calling thread as an owner of the queue's locks, which is asked for once in an operation;
// nobody in a queue without.
uint64_t SelfFor(const ZelQueue* queue) { return IsLocking(queue) ? CallingOwner() : kNoOwner; }

// Holds one of the queue's locks, or does nothing for nobody.
class Hold {
 public:
  Hold(ZelSpinLock* lock, uint64_t self) : lock_(self != kNoOwner ? lock : nullptr) {
    if (lock_ != nullptr) AcquireSpinLock(lock_, self);
  }
  ~Hold() {
    if (lock_ != nullptr) ReleaseHeldSpinLock(lock_);
  }
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;

 private:
  ZelSpinLock* const lock_;
};

// To be called with both locks held, where there are locks. It takes none itself: it would put
// operations in order that have nothing else between them, and hide from a race detector.
void AssertIsConsistentLocked(const ZelQueue* queue) { ZEL_ASSERT(QueueIsConsistent(queue)); }

void AppendLocked(ZelQueue* queue, ZelQueueNode* node) {
  StoreRelease(queue->tail->next, node);  // with what the node holds
  queue->tail = node;
}

void AppendUnderLocks(ZelQueue* queue, ZelQueueNode* node, uint64_t self) {
  AcquireSpinLock(&queue->tailLock, self);
  const bool meetsHead = queue->tail == &queue->dummy;
  // Waiting for the head lock with the tail lock held would be the wrong order.
  if (meetsHead && !TryToAcquireSpinLock(&queue->headLock, 0, self)) {
    ReleaseHeldSpinLock(&queue->tailLock);
    AcquireSpinLock(&queue->headLock, self);
    AcquireSpinLock(&queue->tailLock, self);
  }
  AppendLocked(queue, node);
  if (meetsHead) {
    AssertIsConsistentLocked(queue);
    ReleaseHeldSpinLock(&queue->headLock);
  }
  ReleaseHeldSpinLock(&queue->tailLock);
}

// Unlinks a node that may be the last one.
void UnlinkWithTail(ZelQueue* queue, ZelQueueNode* previous, ZelQueueNode* node, uint64_t self) {
  const Hold tail(&queue->tailLock, self);
  ZelQueueNode* const next = LoadRelaxed(node->next);
  // Both before the lock is given back: from then on enqueuers link to `previous`.
  StoreRelaxed(previous->next, next);
  if (next == nullptr) queue->tail = previous;
  AssertIsConsistentLocked(queue);
}

// Takes out the node behind `previous`, frees it and returns its value. Under the head lock.
uintptr_t RemoveLocked(ZelQueue* queue, ZelQueueNode* previous, ZelQueueNode* node, uint64_t self) {
  const uintptr_t value = node->value;
  ZelQueueNode* const next = LoadAcquire(node->next);
  if (next != nullptr) [[likely]] {
    StoreRelaxed(previous->next, next);
    if (!IsLocking(queue)) AssertIsConsistentLocked(queue);
  } else {
    UnlinkWithTail(queue, previous, node, self);
  }
  __ZelFree(node);
  return value;
}

}  // namespace

bool QueueIsConsistent(const ZelQueue* queue) {
  const ZelQueueNode* last = &queue->dummy;
  if (queue->head != last || last->value != 0) return false;
  while (last->next != nullptr && last != queue->tail) last = last->next;
  return last == queue->tail && last->next == nullptr;
}

}  // namespace zelrt

using namespace zelrt;

ZelQueue* __ZelCreateQueue(uint32_t flags, uint32_t memoryCategory) {
  auto* const queue = static_cast<ZelQueue*>(__ZelMalloc(memoryCategory, sizeof(ZelQueue), 0));
  if (queue == nullptr) return nullptr;
  const uint32_t categoryBits = (memoryCategory & kCategoryMask) << kCategoryShift;
  *queue = {.head = &queue->dummy,
            .tail = &queue->dummy,
            .dummy = {.value = 0, .next = nullptr},
            .headLock = {},
            .tailLock = {},
            .flags = (flags & ~(kCategoryMask << kCategoryShift)) | categoryBits,
            .queueFlag = 0};
  return queue;
}

void __ZelEnqueue(ZelQueue* queue, uintptr_t value) {
  void* const block = __ZelMalloc(CategoryOf(queue), sizeof(ZelQueueNode), 0);
  if (block == nullptr) return;
  auto* const node = static_cast<ZelQueueNode*>(block);
  *node = {.value = value, .next = nullptr};
  if (IsLocking(queue)) return AppendUnderLocks(queue, node, CallingOwner());
  AppendLocked(queue, node);
  AssertIsConsistentLocked(queue);
}

uintptr_t __ZelDequeue(ZelQueue* queue) {
  const uint64_t self = SelfFor(queue);
  const Hold head(&queue->headLock, self);
  ZelQueueNode* const first = queue->dummy.next;
  return first != nullptr ? RemoveLocked(queue, &queue->dummy, first, self) : 0;
}

uintptr_t __ZelPeekQueue(ZelQueue* queue, ZelQueueMatch match, uint32_t argument1,
                         uintptr_t argument2, uint32_t remove) {
  const uint64_t self = SelfFor(queue);
  const Hold head(&queue->headLock, self);
  ZelQueueNode* previous = &queue->dummy;
  ZelQueueNode* node = previous->next;
  while (node != nullptr && match != nullptr && match(argument1, argument2, node->value) != 1) {
    previous = node;
    node = LoadAcquire(node->next);
  }
  if (node == nullptr) return 0;
  return remove != 0 ? RemoveLocked(queue, previous, node, self) : node->value;
}

uint32_t __ZelIsQueueEmpty(const ZelQueue* queue) {
  return LoadRelaxed(queue->dummy.next) == nullptr ? 1 : 0;
}

void __ZelSetQueueFlag(ZelQueue* queue, uint32_t value) { StoreRelaxed(queue->queueFlag, value); }

void __ZelDestroyQueue(ZelQueue* queue) {
  while (ZelQueueNode* const first = queue->dummy.next) {
    queue->dummy.next = first->next;
    __ZelFree(first);
  }
  queue->tail = &queue->dummy;
}
