// Looks at a heap without its latch, so that a right to read is enough and nobody waits for the
// looker. Who changes a heap counts its version, to odd and back to even (HeapChange); what was
// read between two equal even versions was so at one instant.
#pragma once

#include "platsvc/time.h"
#include "trelshm/heap_latch.h"

namespace trel {

constexpr uint64_t kLongestLook = 200;  // ms

// look() reads, within the bounds of the heap, and writes nothing that is shared; it may be called
// again. Its last result is final. Where the heap does not stand still for so long, it is read once
// more inside heapLatch, which also repairs what a dead writer left; who may not write gets
// TREL_RC_WRITER_INSIDE. Opens the header.
template <class Look>
uint32_t lookAtHeap(Heap* heap, Look&& look) {
  if (const uint32_t rc = heap->openHeader()) return rc;
  const TrelU32* version = &heap->aside()->version;
  uint64_t start = 0, now = 0;
  for (int tries = 0;; ++tries) {
    const uint32_t before = loadOnce(version);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    if (before % 2 == 0) {
      const uint32_t rc = look();
      __atomic_thread_fence(__ATOMIC_ACQUIRE);
      if (loadOnce(version) == before) return rc;
    }
    if (platTimeGetMonotonic(&now) != 0) now = start + kLongestLook;
    if (tries == 0) start = now;
    if (now - start >= kLongestLook) break;
    if (tries % 4 == 3) platSleep(1);
  }
  if (heap->isReadOnly()) return TREL_RC_WRITER_INSIDE;
  if (enterHeap(heap) != 0) return TREL_RC_WRITER_INSIDE;
  return firstOf(look(), leaveHeap(*heap));
}

}  // namespace trel
