// Space for skip-list nodes: the guard that every placing of a node passes, and its two remedies, a
// rebuild and a change of the space's size. The caller holds heapLatch, and the heap is open.
#pragma once

#include "trelshm/skip_list.h"

namespace trel {

// The block whose node is about to be inserted: on no list for the moment. A change of space can
// move its start.
struct InFlight {
  uint64_t offset;
  uint64_t size;
};

// Guarded insertion of a free block. With `tight`, the last resort is a level 0 node in the
// reserve. `previous` as for insertFree.
uint32_t insertFreeGuarded(Heap* heap, InFlight* block, bool tight, uint64_t* node = nullptr,
                           uint64_t previous = 0);
// Guarded insertion of an allocated block, which no change of space touches.
uint32_t insertAllocGuarded(Heap* heap, const AllocNode_t& record, uint64_t* node);

// Chooses between rebuild and change of space.
uint32_t defragment(Heap* heap, InFlight* block);
enum class Direction : uint32_t { grow = 1, shrink = 2 };
uint32_t changeSpace(Heap* heap, uint64_t newSize, Direction direction, InFlight* block);
// Enters every live node anew. On failure nothing has changed.
uint32_t rebuild(Heap* heap);

}  // namespace trel
