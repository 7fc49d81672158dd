#include "trelshm/free_blocks.h"

namespace trel {
namespace {

// A free node taken off for a while. Back at its old place if no rebuild came in between, and after
// a rebuild, which leaves room, at a new one.
struct Removed {
  uint64_t node = 0;
  uint64_t offset = 0, size = 0;

  uint32_t remove(const Heap& heap, uint64_t freeNode) {
    const FreeNode_t& n = *heap.free(freeNode);
    offset = n.blockOffset;
    size = n.blockSize;
    if (!heap.containsBlock(offset, size)) return heap.kind().rcState;
    if (const uint32_t rc = deleteFree(heap, freeNode)) return rc;
    node = freeNode;
    return 0;
  }
  void restore(const Heap& heap, bool rebuilt) const {
    if (node == 0) return;
    if (rebuilt)
      insertFree(heap, offset, size, {Placement::Rule::tight, 0});
    else
      relinkFree(heap, node);
  }
};

}  // namespace

uint32_t takeBlock(Heap* heap, uint64_t size, TakenBlock* taken) {
  uint64_t node = 0;
  if (const uint32_t rc = searchFreeBySize(*heap, size, &node)) return rc;
  if (node == heap->freeTail()) return heap->kind().rcNoBlock;
  Removed whole;
  const uint64_t available = heap->free(node)->blockSize;
  if (available < size) return heap->kind().rcNodeSmall;
  const uint64_t rebuilds = heap->rebuilds();
  uint64_t previous = 0;
  if (const uint32_t rc = previousFree(*heap, node, &previous)) return rc;
  if (const uint32_t rc = whole.remove(*heap, node)) return rc;
  *taken = {whole.offset + available - size, size, node, 0, rebuilds};
  if (available == size) return 0;

  const Spare spare(heap, whole.offset, available);
  InFlight rest = {whole.offset, available - size};
  const uint32_t rc = insertFreeGuarded(heap, &rest, false, &taken->remainder, previous);
  if (rc) {
    // A change of space may have moved the start of what was in flight.
    whole.size -= rest.offset - whole.offset;
    whole.offset = rest.offset;
    whole.restore(*heap, heap->rebuilds() != rebuilds);
  }
  return rc;
}

uint32_t untakeBlock(Heap* heap, const TakenBlock& taken) {
  if (heap->rebuilds() != taken.rebuilds) return giveBlock(heap, taken.offset, taken.size);
  if (taken.remainder)
    if (const uint32_t rc = deleteFree(*heap, taken.remainder)) return rc;
  relinkFree(*heap, taken.node);
  return 0;
}

uint32_t giveBlock(Heap* heap, uint64_t offset, uint64_t size) {
  if (!heap->containsBlock(offset, size)) return heap->kind().rcState;
  uint64_t next = 0, previous = 0;
  if (const uint32_t rc = searchFreeByOffset(*heap, offset, &next)) return rc;
  if (const uint32_t rc = previousFree(*heap, next, &previous)) return rc;
  Removed before, after;
  InFlight merged = {offset, size};
  const uint64_t rebuilds = heap->rebuilds();
  uint32_t rc = 0;
  if (previous != heap->freeHead()) {
    const FreeNode_t& p = *heap->free(previous);
    if (p.blockOffset + p.blockSize > offset) return heap->kind().rcState;
    if (p.blockOffset + p.blockSize == offset) {
      const uint64_t touching = previous;
      if ((rc = previousFree(*heap, touching, &previous))) return rc;
      if ((rc = before.remove(*heap, touching))) return rc;
      merged = {before.offset, before.size + size};
    }
  }
  if (next != heap->freeTail()) {
    const uint64_t nextOffset = heap->free(next)->blockOffset;
    if (nextOffset < offset + size) rc = heap->kind().rcState;
    if (nextOffset == offset + size && (rc = after.remove(*heap, next)) == 0)
      merged.size += after.size;
  }
  if (rc == 0) {
    const Spare spare(heap, merged.offset, merged.size);
    rc = insertFreeGuarded(heap, &merged, true, nullptr, previous);
  }
  if (rc) {
    const bool rebuilt = heap->rebuilds() != rebuilds;
    after.restore(*heap, rebuilt);
    before.restore(*heap, rebuilt);
  }
  return rc;
}

}  // namespace trel
