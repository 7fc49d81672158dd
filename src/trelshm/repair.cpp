// A heap whose latch was taken over from a dead owner.
//
// Free and allocated blocks tile the managed memory, so the allocated list at level 0 and the size
// of the node space tell all there is to know: what lies between allocated blocks is free. An
// insertion links level 0 last and a deletion unlinks it first, so at every instant that list is
// whole, but for a node that is being moved, of which the intent tells. All else is written anew
// from it; allocated nodes stay where they are, with their levels, if the free ones find room
// between them. So whoever dies in a repair is followed by another who begins again.
#include "trelshm/allocator.h"
#include "trelshm/heap.h"
#include "trelshm/heap_latch.h"
#include "trelshm/live_nodes.h"
#include "trelshm/store.h"

namespace trel {
namespace {

// Without process memory, or while the caller holds a latch out of order, the next one tries again.
bool canBeRetried(uint32_t rc) { return rc == TREL_RC_REBUILD_NO_MEMORY || rc == TREL_RC_LATCH; }

// A domain's word for a block on the way to a shared list or from one names an allocated block or
// none, as soon as the pool is in order. The domain's owner waits for the pool's latch, or is dead.
void settleName(const Heap& pool, const LiveNodes& nodes) {
  const uint64_t owner = pool.header()->topPool;
  if (owner > pool.offset() || pool.offset() - owner < TREL_HEAP_HEADER_SIZE) return;
  const Heap domain(pool.base(), owner, kDomainKind);
  if (checkHeap(domain)) return;
  HeapIntent_t* intent = domain.intent();
  const uint64_t node = intent->listNode;  // stored behind listPool, so read in front of it
  __atomic_thread_fence(__ATOMIC_ACQUIRE);
  if (node && intent->listPool == pool.offset() &&
      nodes.blockAround(node).fields.dataOffset != node)
    storeLast(&intent->listNode, 0);
}

// Gives that block back, unless a list or the description leads to it.
uint32_t settleListNode(const Heap& domain) {
  HeapIntent_t* intent = domain.intent();
  if (intent->listNode == 0) return 0;
  void* const base = const_cast<void*>(domain.base());
  ShmPoolHandle_t handle = {base, domain.offset(), intent->listPool, 0};
  Heap pool(base, handle.poolOffset, kPoolKind);
  if (handle.poolOffset >= domain.listOffset() &&
      handle.poolOffset <= domain.end() - TREL_HEAP_HEADER_SIZE && checkHeap(pool) == 0 &&
      pool.openHeader() == 0 && pool.end() <= domain.end()) {
    uint32_t rc = insideHeap(&pool, [] { return 0u; });  // puts it in order if that is due
    const uint64_t node = intent->listNode;
    void* block = domain.at<void>(node);
    if (rc == 0 && node && !isLedTo(domain, node))
      rc = freeBlock(&block, &handle, {0, 0, ""}, &intent->listNode);
    if (canBeRetried(rc)) return rc;
  }
  storeLast(&intent->listNode, 0);
  return 0;
}

// A block of a domain may hold a pool, whole or half made.
void takeBack(const Heap& heap, uint64_t blockOffset, LiveNodes* nodes) {
  const AllocRef block = nodes->blockAround(blockOffset);
  if (block.node == 0 || block.fields.blockOffset != blockOffset) return;
  const uint64_t pool = block.fields.dataOffset;
  if (heap.kind().kind == TREL_HEAP_DOMAIN && pool <= block.end() &&
      block.end() - pool >= TREL_HEAP_HEADER_SIZE)
    endPool(heap, pool, block.end() - pool);
  nodes->drop(block);
}

uint32_t repair(Heap* heap) {
  if (const uint32_t rc = heap->openHeader()) return rc;
  if (const uint32_t rc = heap->openLists()) return rc;
  // Odd, as its dead owner may have left it; even again only when the heap is in order.
  TrelU32* version = &heap->aside()->version;
  storeLast(version, loadOnce(version) | 1);
  LiveNodes nodes(heap);
  if (const uint32_t rc = nodes.recover()) return rc;
  HeapIntent_t* intent = heap->intent();
  // What was being handed out, which nobody has seen, and what was being given back.
  takeBack(*heap, heap->offset() + (loadOnce(&intent->allocating) & ~TREL_REPAIR_DUE), &nodes);
  takeBack(*heap, loadOnce(&intent->freeing), &nodes);
  if (const uint32_t rc = nodes.findGaps()) return rc;
  if (!nodes.placeBetween()) {
    if (!nodes.placeBehind(heap->space())) nodes.flatten();
    if (!nodes.placeBehind(heap->space())) return heap->kind().rcState;
    nodes.compact();
  }
  nodes.relist();
  storeLast(&intent->freeing, 0);
  if (heap->kind().kind == TREL_HEAP_POOL) {
    settleName(*heap, nodes);
  } else if (const uint32_t rc = settleListNode(*heap)) {
    return rc;
  }
  storeLast(version, loadOnce(version) + 1);
  storeLast(&intent->allocating, 0);
  return 0;
}

}  // namespace

uint32_t repairHeld(Heap* heap) {
  const uint32_t rc = repair(heap);
  // Any other failure means that the heap is not sound, and nothing can be done but to say so.
  if (rc && !canBeRetried(rc)) storeLast(&heap->header()->heapState, 0);
  return rc;
}

uint32_t enterDamagedHeap(Heap* heap, bool ownerDied) {
  uint32_t rc = heap->kind().rcState;
  if (heap->header()->heapState == heap->kind().state) {
    if (ownerDied) heap->intent()->allocating |= TREL_REPAIR_DUE;
    rc = repairHeld(heap);
  }
  if (rc) leaveHeap(*heap);
  return rc;
}

}  // namespace trel
