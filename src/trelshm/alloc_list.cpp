#include "trelshm/alloc_list.h"

#include "trelshm/flow.h"
#include "trelshm/walk_budget.h"

namespace trel {
namespace {

TREL_INLINE bool containsSlot(const Heap& heap, uint64_t slot, uint64_t level) {
  return heap.containsNode(nodeOfSlot(slot, level), allocNodeSize(level));
}

TREL_INLINE uint32_t search(const Heap& heap, uint64_t key, AllocPath* path, uint64_t* found) {
  uint64_t level = loadOnce(&heap.list()->allocListLevel);
  if (TREL_UNLIKELY(level >= heap.maxLevel())) return heap.kind().rcState;
  path->levels = level + 1;
  uint64_t here = heap.allocHead(), next = 0;
  WalkBudget budget(heap);
  for (;; --level) {
    for (;;) {
      const uint64_t slot = heap.load(slotOfNode(here, level));
      if (slot == 0) {
        next = 0;
        break;
      }
      next = nodeOfSlot(slot, level);
      if (TREL_UNLIKELY(!containsSlot(heap, slot, level) || budget.exhausted()))
        return heap.kind().rcState;
      if (heap.load(next) >= key) break;  // blockOffset is the first field
      here = next;
    }
    path->node[level] = here;
    if (level == 0) break;
  }
  *found = next;
  return 0;
}

}  // namespace

uint32_t findAllocPath(const Heap& heap, uint64_t blockOffset, AllocPath* path) {
  uint64_t found = 0;
  return search(heap, blockOffset, path, &found);
}

uint32_t findAlloc(const Heap& heap, uint64_t blockOffset, AllocPath* path, AllocRef* found) {
  if (const uint32_t rc = search(heap, blockOffset, path, &found->node)) return rc;
  if (found->node == 0) return heap.kind().rcListEnd;
  found->fields = heap.loadAlloc(found->node);
  if (found->fields.blockOffset != blockOffset) return heap.kind().rcNotFound;
  const uint64_t level = found->fields.level;
  return level < path->levels && heap.containsNode(found->node, allocNodeSize(level))
             ? 0
             : heap.kind().rcState;
}

uint32_t nextAlloc(const Heap& heap, uint64_t node, AllocRef* next) {
  const uint64_t slot = heap.load(slotOfNode(node, 0));
  *next = {};
  if (slot == 0) return 0;
  if (!containsSlot(heap, slot, 0)) return heap.kind().rcState;
  *next = {nodeOfSlot(slot, 0), heap.loadAlloc(nodeOfSlot(slot, 0))};
  return 0;
}

void resetAllocList(const Heap& heap) {
  SkipListHeader_t* list = heap.list();
  list->allocNodeCount = 0;
  list->allocListLevel = 0;
  list->allocHead = AllocNode_t{};
  list->allocHead.level = heap.maxLevel() - 1;
  for (uint64_t i = 0; i < heap.maxLevel(); ++i) heap.store(slotOfNode(heap.allocHead(), i), 0);
}

void linkAlloc(Heap* heap, const NodeRoom& room, const AllocNode_t& fields, const AllocPath& path) {
  SkipListHeader_t* list = heap->list();
  takeRoom(heap, NodeKind::allocated, room);
  AllocNode_t* n = heap->alloc(room.node);
  *n = fields;
  n->level = room.level;
  heap->header()->allocatedBytes += fields.blockSize;
  list->allocNodeCount += 1;
  if (path.levels <= room.level) list->allocListLevel = room.level;
  for (uint64_t i = room.level + 1; i-- > 0;) {
    TrelU64* before =
        heap->at<TrelU64>(slotOfNode(i < path.levels ? path.node[i] : heap->allocHead(), i));
    heap->store(slotOfNode(room.node, i), *before);
    storeLast(before, slotOfNode(room.node, i));
  }
}

void unlinkAlloc(const Heap& heap, const AllocRef& ref, const AllocPath& path) {
  SkipListHeader_t* list = heap.list();
  for (uint64_t i = 0; i <= ref.fields.level; ++i) {
    TrelU64* before = heap.at<TrelU64>(slotOfNode(path.node[i], i));
    if (loadOnce(before) != slotOfNode(ref.node, i)) break;
    storeLast(before, heap.load(slotOfNode(ref.node, i)));
  }
  heap.header()->allocatedBytes -= ref.fields.blockSize;
  list->allocNodeCount -= 1;
  uint64_t inUse = path.levels - 1;
  while (inUse > 0 && heap.load(slotOfNode(heap.allocHead(), inUse)) == 0) --inUse;
  list->allocListLevel = inUse;
}

}  // namespace trel
