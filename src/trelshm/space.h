// The size of the space for skip-list nodes: how it grows, shrinks and is rebuilt. The caller holds
// heapLatch, and the heap is open.
#pragma once

#include "trelshm/free_lists.h"

namespace trel {

// A block that is on no list for the moment. A change of space can move its start.
struct InFlight {
  uint64_t offset;
  uint64_t size;
};

// Makes room for a new allocated node, so that afterwards findRoom() finds it and every block can
// come back. Places of nodes may change, and free blocks. Of the block `kept`, at least `size`
// stays.
uint32_t makeRoom(Heap* heap, const FreeNode& kept, uint64_t size);
// Whether every block could come back with `more` nodes than there are.
bool hasRoomForReturns(const Heap& heap, uint64_t more);
// For a free node of a block that comes back: space from the free block behind, then a rebuild, at
// last one with all nodes at level 0. Behind that there is room.
uint32_t makeRoomForReturn(Heap* heap, uint32_t attempt);

// Guarded insertions. A free block's start can move with the end of the space.
uint32_t insertFreeGuarded(Heap* heap, InFlight* block, bool tight);
uint32_t insertAllocGuarded(Heap* heap, const AllocNode_t& fields, uint64_t* node);
// The same without a guard. TREL_RC_SPACE_FULL: no room, nothing changed.
uint32_t insertFree(Heap* heap, uint64_t blockOffset, uint64_t blockSize, bool tight = false);
uint32_t insertAlloc(Heap* heap, const AllocNode_t& fields, uint64_t* node);

// Chooses between rebuild and change of space.
uint32_t defragment(Heap* heap, InFlight* block);
enum class Direction : uint32_t { grow = 1, shrink = 2 };
// A failure leaves everything as it was.
uint32_t changeSpace(Heap* heap, uint64_t newSize, Direction direction, InFlight* block);
// Moves all nodes together, so that no hole is left. A failure leaves everything as it was.
uint32_t rebuild(Heap* heap);

}  // namespace trel
