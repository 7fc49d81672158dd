// A storage heap from its sizes to its first free block.
#pragma once

#include "trelshm/heap_view.h"

namespace trel {

struct HeapSizes {
  uint64_t nodeCount, maxLevel;  // given; a count of 0 follows from the size, both are clipped
  uint64_t headerSize, listHeaderSize, space;

  void compute(uint64_t heapSize, uint32_t kind, uint64_t userAreaSize);
};

// The levels of a heap whose maker names none: enough to halve that many nodes down to one.
uint64_t defaultMaxLevel(uint32_t kind, uint64_t nodeCount);

struct HeapPlan {
  uint64_t size;
  HeapSizes sizes;
  uint64_t granularity;
  uint64_t userAreaSize;
  const void* userData;
  uint64_t latchVersion, heapVersion, handleVersion;
  uint64_t flags, ownerOffset;
};

// Whether there is managed memory at all; without it there is perhaps no room for the header.
uint32_t checkPlan(const HeapKind& kind, const HeapPlan& plan);
// The steps of createHeap(), for who makes more than the heap before heapState tells of it: the
// latch of memory that nobody else uses made ready and taken; then all but heapState.
uint32_t takeFreshHeap(Heap* heap, uint64_t latchVersion);
uint32_t initHeap(Heap* heap, const HeapPlan& plan);
// Lays a heap out in memory that the caller has at its disposal; enters heapLatch for it.
uint32_t createHeap(void* base, uint64_t offset, const HeapKind& kind, const HeapPlan& plan);
// Counts a connection in, unless the heap is marked for deletion; and out.
uint32_t connectHeap(Heap* heap);
uint32_t disconnectHeap(Heap* heap);

// Ends a pool of that domain: nobody accepts it any more, and no list or tree of the domain leads
// into it. Can be done again. The caller holds the domain's heapLatch, and gives the memory back.
void endPool(const Heap& domain, uint64_t poolOffset, uint64_t poolSize);
// Whether a shared list or the description of the domain leads to that block. The caller holds the
// domain's heapLatch.
bool isLedTo(const Heap& domain, uint64_t node);

}  // namespace trel
