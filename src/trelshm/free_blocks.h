// Free memory by size: best fit, merged at once when it comes back. The caller holds heapLatch.
#pragma once

#include "trelshm/space.h"

namespace trel {

// What takeBlock took, with what it needs to undo that.
struct TakenBlock {
  uint64_t offset, size;
  uint64_t node;       // the free node that it came from
  uint64_t remainder;  // the free node of what was left, 0 if nothing was
  uint64_t rebuilds;
};

// The smallest block that fits, its top end if it is larger. A failure changes nothing.
uint32_t takeBlock(Heap* heap, uint64_t size, TakenBlock* taken);
// Puts everything back as it was.
uint32_t untakeBlock(Heap* heap, const TakenBlock& taken);
// Gives a block back and merges it with its neighbours. A failure changes nothing.
uint32_t giveBlock(Heap* heap, uint64_t offset, uint64_t size);

}  // namespace trel
