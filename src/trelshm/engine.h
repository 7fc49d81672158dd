// The one engine by which both heap kinds hand out and take back memory.
#pragma once

#include "treli/flow.h"
#include "trelshm/pads.h"

namespace trel {

struct Allocation {
  uint64_t requested;  // what the caller will use
  uint64_t options;    // 0
  uint64_t extra;      // what a domain's caller adds to it
  uint64_t size;       // both, rounded; comes back with the pads added
  uint64_t blockOffset, dataOffset;
};

// Takes the block, writes its pads. Enters debugLatch, then heapLatch. A failure leaves every block
// on a list, and of *wanted writes at most the size.
uint32_t allocate(Heap* heap, Allocation* wanted, const Caller& caller);

// Checks the pads, gives the block back, marks it as freed. Enters heapLatch unless `latched`. A
// failure leaves the block allocated and its bytes as they were.
uint32_t release(Heap* heap, uint64_t blockOffset, uint64_t dataOffset, bool latched,
                 const Caller& caller);

// The check of one allocation against its pads and its node, under heapLatch. Findings go to the
// assertion report; a code tells that the check could not go on. fileName, if not null, gets the 24
// bytes of a file field.
uint32_t checkAllocation(const Heap& heap, uint64_t dataOffset, char* fileName,
                         const Caller& caller);

// From a block's address in a pool to its offsets, with the tests that a free makes of them.
uint32_t locateBlock(const Flow& flow, const Heap& pool, const void* block, uint64_t* blockOffset,
                     uint64_t* dataOffset);

}  // namespace trel
