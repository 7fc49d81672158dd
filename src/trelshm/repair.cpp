// A heap whose latch was taken over from a dead owner.
//
// Free and allocated blocks tile the managed memory, so the allocated list at level 0 and the size
// of the node space tell all there is to know: what lies between allocated blocks is free. An
// insertion links level 0 last and a deletion unlinks it first, so at every instant but in a
// rebuild that list is whole, and a rebuild keeps records. All else is written anew from it. The
// repair is a rebuild itself, so whoever dies in it is followed by another who begins again.
#include "treli/store.h"
#include "trelshm/heap.h"
#include "trelshm/heap_latch.h"
#include "trelshm/live_nodes.h"

namespace trel {
namespace {

uint32_t repair(Heap* heap) {
  LiveNodes nodes;
  if (const uint32_t rc = nodes.recover(heap)) return rc;
  HeapIntent_t* intent = heap->intent();
  const uint32_t allocating = intent->allocating & ~TREL_REPAIR_DUE;
  if (allocating) nodes.drop(heap->offset() + allocating);  // nobody has seen it
  if (const AllocNode_t* chunk = intent->freeing ? nodes.find(intent->freeing) : nullptr) {
    endPool(*heap, chunk->dataOffset, chunk->blockOffset + chunk->blockSize - chunk->dataOffset);
    nodes.drop(intent->freeing);
  }
  if (const uint32_t rc = nodes.findGaps(*heap)) return rc;
  nodes.flatten();
  if (!nodes.fit(*heap, heap->space())) return heap->kind().rcState;
  nodes.commit(heap, heap->space());
  storeLast(&intent->freeing, 0);
  storeLast(&intent->allocating, 0);
  return 0;
}

}  // namespace

uint32_t enterDamagedHeap(Heap* heap, bool ownerDied) {
  HeapHeader_t* header = heap->header();
  uint32_t rc = heap->kind().rcState;
  if (header->heapState == heap->kind().state) {
    if (ownerDied) heap->intent()->allocating |= TREL_REPAIR_DUE;
    rc = repair(heap);
    // Without process memory the next one tries again. Any other failure means that the heap is not
    // sound, and nothing can be done but to say so.
    if (rc && rc != TREL_RC_REBUILD_NO_MEMORY) storeLast(&header->heapState, 0);
  }
  if (rc) leaveHeap(*heap);
  return rc;
}

}  // namespace trel
