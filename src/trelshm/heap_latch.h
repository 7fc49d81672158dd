// Entry to the latches of a heap.
#pragma once

#include "platsvc/latch.h"
#include "trelshm/flow.h"
#include "trelshm/heap_view.h"
#include "trelshm/latch_failure.h"

namespace trel {

inline uint32_t enterLatch(ExclusiveLatch_t* record, uint32_t* ownerDied) {
  if (TREL_UNLIKELY(record->version != TREL_STRUCTURE_VERSION)) return TREL_RC_LATCH_VERSION;
  const uint32_t rc = plat::latchGet(record->latch, ownerDied);
  return TREL_UNLIKELY(rc != 0) ? latchFailure(rc) : 0;
}

inline uint32_t leaveLatch(ExclusiveLatch_t* record) {
  if (TREL_UNLIKELY(record->version != TREL_STRUCTURE_VERSION)) return TREL_RC_LATCH_VERSION;
  return TREL_UNLIKELY(plat::latchRelease(record->latch) != 0) ? uint32_t{TREL_RC_LATCH} : 0;
}

// While it lives, the heap's version is odd: what is read without the latch does not count. The
// outermost one of an operation counts. The caller holds heapLatch, and the header is open.
class HeapChange {
 public:
  TREL_INLINE explicit HeapChange(const Heap& heap) : version_(&heap.aside()->version) {
    const uint32_t before = loadOnce(version_);
    if (before % 2 != 0)
      version_ = nullptr;
    else
      storeLast(version_, before + 1);
  }
  TREL_INLINE ~HeapChange() {
    if (version_) storeLast(version_, loadOnce(version_) + 1);
  }
  HeapChange(const HeapChange&) = delete;
  HeapChange& operator=(const HeapChange&) = delete;

 private:
  TrelU32* version_;
};

// Repairs a heap whose latch the caller holds, and that nobody has repaired since an owner died.
uint32_t repairHeld(Heap* heap);

// For operations whose caller holds heapLatch. The header has been opened.
inline uint32_t repairIfDue(Heap* heap) {
  return TREL_LIKELY(!(heap->intent()->allocating & TREL_REPAIR_DUE)) ? 0 : repairHeld(heap);
}

// The rest of enterHeap(), once the latch is held, if its last owner died or the heap ended while
// the caller waited: repairs the heap, or leaves the latch with a code.
uint32_t enterDamagedHeap(Heap* heap, bool ownerDied);

// heapLatch, with the repair of what a dead owner left. The header has been opened.
TREL_INLINE uint32_t enterHeap(Heap* heap) {
  if (TREL_UNLIKELY(heap->isReadOnly())) return TREL_RC_READING_ONLY;
  uint32_t ownerDied = 0;
  HeapHeader_t* header = heap->header();
  if (const uint32_t rc = enterLatch(&header->heapLatch, &ownerDied)) return rc;
  if (TREL_LIKELY(ownerDied == 0 && heap->intent()->allocating == 0 &&
                  header->heapState == heap->kind().state))
    return 0;
  return enterDamagedHeap(heap, ownerDied != 0);
}

inline uint32_t leaveHeap(const Heap& heap) { return leaveLatch(&heap.header()->heapLatch); }

// Runs work() inside heapLatch. The first failure counts.
template <class Work>
TREL_INLINE uint32_t insideHeap(Heap* heap, Work&& work) {
  if (const uint32_t rc = enterHeap(heap)) return rc;
  uint32_t rc = 0;
  {
    const HeapChange change(*heap);
    rc = work();
  }
  return firstOf(rc, leaveHeap(*heap));
}

// debugLatch. A record that a dead owner left half written is sound in each of its words.
template <class Work>
TREL_INLINE uint32_t insideDebug(const Heap& heap, Work&& work) {
  if (TREL_UNLIKELY(heap.isReadOnly())) return TREL_RC_READING_ONLY;
  ExclusiveLatch_t* latch = &heap.tail()->debugLatch;
  uint32_t ownerDied = 0;
  if (const uint32_t rc = enterLatch(latch, &ownerDied)) return rc;
  const uint32_t rc = work();
  return firstOf(rc, leaveLatch(latch));
}

// An operation on a heap that its caller names by base, kind and offset: work(flow, &heap).
template <class Work>
uint32_t onHeap(uint32_t function, void* base, uint32_t heapKind, uint64_t heapOffset,
                Work&& work) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (!base) return flow.logged(TREL_RC_BASE_NULL, base);
    const HeapKind* kind = heapKindOf(heapKind);
    if (!kind) return flow.fail(TREL_RC_HEAP_KIND, &heapKind, sizeof heapKind);
    Heap heap(base, heapOffset, *kind);
    return work(flow, &heap);
  });
}

// The tests that most operations on a heap begin with.
inline uint32_t checkHeap(const Heap& heap) {
  if (TREL_UNLIKELY(loadOnce(&heap.header()->heapState) != heap.kind().state))
    return heap.kind().rcState;
  if (TREL_UNLIKELY(loadOnce(&heap.header()->heapOffset) != heap.offset()))
    return heap.kind().rcOffset;
  return 0;
}

}  // namespace trel
