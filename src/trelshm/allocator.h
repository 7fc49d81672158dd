// The one engine by which both heap kinds hand out and take back memory.
#pragma once

#include "trel/storage.h"
#include "trelshm/flow.h"
#include "trelshm/pads.h"

namespace trel {

// A word of shared memory that names a block by the offset of its data, 0 for none. It is written
// inside heapLatch together with the block's state: while that latch is free, the word names an
// allocated block or none. Null where nobody wants to know.
using BlockName = TrelU64*;

struct Allocation {
  uint64_t requested;  // what the caller will use
  uint64_t options;    // 0
  uint64_t extra;      // what a domain's caller adds to it
  uint64_t size;       // both, rounded; comes back with the pads added
  uint64_t blockOffset, dataOffset;
  BlockName name = nullptr;  // gets the new block
  // Work on the new block while a death still takes it back, inside heapLatch. May be null.
  void (*work)(void* context, uint64_t dataOffset) = nullptr;
  void* context = nullptr;
  // The heap is being made: its maker holds heapLatch, and it has no heapState yet.
  bool inNewHeap = false;
};

// Takes the block, writes its pads. Enters debugLatch, then heapLatch. A failure leaves every block
// on a list, and of *wanted writes at most the size.
uint32_t allocate(Heap* heap, Allocation* wanted, const Caller& caller);

// Checks the pads, gives the block back, marks it as freed. Enters heapLatch unless `latched`. A
// failure leaves the block allocated and its bytes as they were. *name, which names it, becomes 0.
uint32_t release(Heap* heap, uint64_t blockOffset, uint64_t dataOffset, bool latched,
                 const Caller& caller, BlockName name = nullptr);

// The check of one allocation against its pads and its node, under heapLatch. Findings go to the
// assertion report; a code tells that the check could not go on. fileName, if not null, gets the 24
// bytes of a file field.
uint32_t checkAllocation(const Heap& heap, uint64_t dataOffset, char* fileName,
                         const Caller& caller);

// From a block's address in a pool to its offsets, with the tests that a free makes of them.
uint32_t locateBlock(const Flow& flow, const Heap& pool, const void* block, uint64_t* blockOffset,
                     uint64_t* dataOffset);

// _trelAllocateShmBlock and _trelFreeShmBlock, with a name for the block.
uint32_t allocateBlock(void** block, ShmPoolHandle_t* handle, uint32_t size, uint32_t options,
                       const Caller& caller, BlockName name = nullptr);
uint32_t freeBlock(void** block, ShmPoolHandle_t* handle, const Caller& caller,
                   BlockName name = nullptr);

}  // namespace trel
