#include "trelshm/free_blocks.h"

namespace trel {

uint32_t carve(const Heap& heap, uint64_t size, BlockChange* carved) {
  FreeNode& fit = carved->fit;
  if (const uint32_t rc = findFit(heap, size, &fit)) return rc;
  carved->offset = fit.end() - size;
  carved->size = size;
  return fit.size == size ? carved->change.remove(fit)
                          : carved->change.resize(fit, fit.offset, fit.size - size);
}

uint32_t findSurroundings(const Heap& heap, uint64_t offset, uint64_t size, Surroundings* found) {
  *found = {};
  FreeNode before, after;
  if (const uint32_t rc = findAround(heap, offset, &before, &after)) return rc;
  found->previous = before.ref;
  if (before.ref.node != heap.freeHead()) {
    if (!heap.containsBlock(before.offset, before.size) || before.end() > offset)
      return heap.kind().rcState;
    if (before.end() == offset) found->before = before;
  }
  if (after.ref.node != heap.freeTail()) {
    if (!heap.containsBlock(after.offset, after.size) || after.offset < offset + size)
      return heap.kind().rcState;
    if (after.offset == offset + size) found->after = after;
  }
  return 0;
}

uint32_t coalesce(const Surroundings& around, bool tight, BlockChange* block) {
  const uint64_t size = around.before.size + block->size + around.after.size;
  if (around.before.ref.node) {
    if (around.after.ref.node)
      if (const uint32_t rc = block->change.remove(around.after)) return rc;
    return block->change.resize(around.before, around.before.offset, size);
  }
  if (around.after.ref.node) return block->change.resize(around.after, block->offset, size);
  return block->change.insert(block->offset, block->size, tight, around.previous);
}

}  // namespace trel
