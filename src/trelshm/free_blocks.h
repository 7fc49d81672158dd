// Free memory by size: best fit, merged at once when it comes back. The caller holds heapLatch.
#pragma once

#include "trelshm/free_lists.h"

namespace trel {

// A block that is to be taken off free memory, or to be given back, and what that does to the free
// lists. Nothing is done before change.apply().
struct BlockChange {
  uint64_t offset, size;
  FreeNode fit;  // carving: the block that it comes from
  FreeChange change;

  explicit BlockChange(Heap* heap) : offset(0), size(0), fit(), change(heap) {}
};

// The smallest block that fits, or its top end if it is larger. The rest keeps node and place.
uint32_t carve(const Heap& heap, uint64_t size, BlockChange* carved);

// What lies around a block that comes back: free blocks that touch it, and the free node in front
// of it by offset, which need not touch. No node: 0.
struct Surroundings {
  FreeNode before, after;
  FreeRef previous;
};

// By a search of the free lists.
uint32_t findSurroundings(const Heap& heap, uint64_t offset, uint64_t size, Surroundings* found);
// Merges the block with what touches it. TREL_RC_SPACE_FULL: it needs a node, and there is no room.
uint32_t coalesce(const Surroundings& around, bool tight, BlockChange* block);

}  // namespace trel
