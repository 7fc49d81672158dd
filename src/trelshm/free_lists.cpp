#include "trelshm/free_lists.h"

#include "trelshm/flow.h"
#include "trelshm/size_hints.h"
#include "trelshm/walk_budget.h"

namespace trel {

uint32_t sizeHints[kHintTables][kHintClasses];

namespace {

enum Side : uint64_t { forward = 0, backward = 1 };
constexpr Order kOrders[] = {byOffset, bySize};

constexpr uint64_t linkOf(const FreeRef& p, Order order, Side side, uint64_t level) {
  return p.node + kFreeLinks + 8 * (p.levels * (2 * order + side) + level);
}

FreeRef headOf(const Heap& heap) { return {heap.freeHead(), heap.maxLevel()}; }
FreeRef tailOf(const Heap& heap) { return {heap.freeTail(), heap.maxLevel()}; }

TREL_INLINE bool load(const Heap& heap, uint64_t node, uint64_t level, FreeRef* ref) {
  if (TREL_UNLIKELY(!heap.containsNode(node, freeNodeSize(0)))) return false;
  const uint64_t top = loadOnce(&heap.free(node)->level);
  // In one comparison: not below `level`, and below maxLevel.
  if (TREL_UNLIKELY(top - level >= heap.maxLevel() - level ||
                    !heap.containsNode(node, freeNodeSize(top))))
    return false;
  *ref = {node, top + 1};
  return true;
}

TREL_INLINE uint64_t loadLink(const Heap& heap, const FreeRef& p, Order order, Side side,
                              uint64_t level) {
  return heap.load(linkOf(p, order, side, level));
}
TREL_INLINE bool loadNeighbour(const Heap& heap, const FreeRef& p, Order order, Side side,
                               uint64_t level, FreeRef* ref) {
  return load(heap, loadLink(heap, p, order, side, level), level, ref);
}

FreeNode loadFields(const Heap& heap, const FreeRef& ref) {
  const FreeNode_t* n = heap.free(ref.node);
  return {ref, loadOnce(&n->blockOffset), loadOnce(&n->blockSize), 0};
}

TREL_INLINE uint64_t keyOf(const Heap& heap, const FreeRef& ref, Order order) {
  const FreeNode_t* n = heap.free(ref.node);
  return order == byOffset ? loadOnce(&n->blockOffset) : loadOnce(&n->blockSize);
}

// Goes right while the next key is below the one sought, then down. *last is the predecessor at
// level 0, *found the node behind it. A node that stopped it one level up is compared again, which
// costs less than a branch that nobody can predict.
template <Order order>
TREL_INLINE uint32_t search(const Heap& heap, uint64_t key, FreeRef* last, FreeRef* found) {
  const FreeRef tail = tailOf(heap);
  FreeRef here = headOf(heap);
  uint64_t level = loadOnce(&heap.freeListLevel());
  if (TREL_UNLIKELY(level >= heap.maxLevel())) return heap.kind().rcState;
  WalkBudget budget(heap);
  for (;;) {
    const uint64_t next = loadLink(heap, here, order, forward, level);
    FreeRef there = tail;
    if (next != tail.node) {
      if (TREL_UNLIKELY(!load(heap, next, level, &there) || budget.exhausted()))
        return heap.kind().rcState;
      if (keyOf(heap, there, order) < key) {
        here = there;
        continue;
      }
    }
    if (level == 0) {
      *last = here;
      *found = there;
      return 0;
    }
    --level;
  }
}

// A free node that is named by something that no list owner keeps true. It lies where nodes have
// been placed since the last rebuild: behind that, older ones still hang together.
bool loadPlaced(const Heap& heap, uint64_t node, FreeRef* ref) {
  const uint64_t end = heap.listOffset() + heap.nextNode();
  return node > heap.freeTail() && node < end && load(heap, node, 0, ref) &&
         freeNodeSize(ref->levels - 1) <= end - node;
}

constexpr int kNear = 6;  // steps from a hint that cost less than a search

// The same by size, from where this process was the last time that it looked for such a size. Each
// node on the way must be linked from both sides. False: search.
TREL_INLINE bool searchNear(const Heap& heap, uint64_t size, FreeRef* last, FreeRef* found) {
  const FreeRef head = headOf(heap), tail = tailOf(heap);
  const uint64_t hint = loadHint(heap, size);
  FreeRef here, there;
  if (!loadPlaced(heap, heap.listOffset() + hint, &here) ||
      !loadNeighbour(heap, here, bySize, backward, 0, &there) ||
      loadLink(heap, there, bySize, forward, 0) != here.node)
    return false;
  if (keyOf(heap, here, bySize) >= size) {
    for (int i = 0; i < kNear; ++i) {
      if (there.node == head.node || keyOf(heap, there, bySize) < size) {
        *last = there;
        *found = here;
        return true;
      }
      here = there;
      if (!loadNeighbour(heap, here, bySize, backward, 0, &there) ||
          loadLink(heap, there, bySize, forward, 0) != here.node)
        return false;
    }
    return false;
  }
  for (int i = 0; i < kNear; ++i) {
    if (!loadNeighbour(heap, here, bySize, forward, 0, &there) ||
        loadLink(heap, there, bySize, backward, 0) != here.node)
      return false;
    if (there.node == tail.node || keyOf(heap, there, bySize) >= size) {
      *last = here;
      *found = there;
      return true;
    }
    here = there;
  }
  return false;
}

TREL_INLINE uint32_t findBySize(const Heap& heap, uint64_t size, FreeRef* last, FreeRef* found) {
  if (!searchNear(heap, size, last, found))
    if (const uint32_t rc = search<bySize>(heap, size, last, found)) return rc;
  if (found->node != heap.freeTail()) storeHint(heap, size, found->node - heap.listOffset());
  return 0;
}

// Whether the node's neighbours in one order can be reached, and lead back to it.
TREL_INLINE bool isLinked(const Heap& heap, const FreeRef& p, Order order) {
  FreeRef before, after;
  for (uint64_t i = 0; i < p.levels; ++i)
    if (!loadNeighbour(heap, p, order, backward, i, &before) ||
        !loadNeighbour(heap, p, order, forward, i, &after) ||
        loadLink(heap, before, order, forward, i) != p.node ||
        loadLink(heap, after, order, backward, i) != p.node)
      return false;
  return true;
}

TREL_INLINE bool unlink(const Heap& heap, const FreeRef& p, Order order) {
  FreeRef before, after;
  for (uint64_t i = 0; i < p.levels; ++i) {
    if (!loadNeighbour(heap, p, order, backward, i, &before) ||
        !loadNeighbour(heap, p, order, forward, i, &after))
      return false;
    heap.store(linkOf(after, order, backward, i), before.node);
    heap.store(linkOf(before, order, forward, i), after.node);
  }
  return true;
}

TREL_INLINE bool link(const Heap& heap, const FreeRef& p, Order order, const FreeRef* before) {
  FreeRef after;
  for (uint64_t i = 0; i < p.levels; ++i) {
    if (!loadNeighbour(heap, before[i], order, forward, i, &after)) return false;
    heap.store(linkOf(p, order, forward, i), after.node);
    heap.store(linkOf(p, order, backward, i), before[i].node);
    heap.store(linkOf(after, order, backward, i), p.node);
    heap.store(linkOf(before[i], order, forward, i), p.node);
  }
  return true;
}

// Lets the block's last bytes name its node, so that a free of the block behind finds it.
void writeTail(const Heap& heap, const FreeRef& ref, uint64_t offset, uint64_t size) {
  if (size >= sizeof(PadTail_t) && heap.containsBlock(offset, size))
    *heap.at<PadTail_t>(offset + size - sizeof(PadTail_t)) = {ref.node, TREL_FREE_TAIL_MAGIC,
                                                              TREL_PAD_FREED};
}

}  // namespace

bool loadFree(const Heap& heap, uint64_t node, uint64_t level, FreeRef* ref) {
  return load(heap, node, level, ref);
}

uint32_t findFit(const Heap& heap, uint64_t size, FreeNode* found) {
  FreeRef last = {};
  *found = {};
  if (const uint32_t rc = findBySize(heap, size, &last, &found->ref)) return rc;
  if (found->ref.node == heap.freeTail()) return heap.kind().rcNoBlock;
  *found = loadFields(heap, found->ref);
  found->sought = size;
  if (found->size < size) return heap.kind().rcNodeSmall;
  return heap.containsBlock(found->offset, found->size) ? 0 : heap.kind().rcState;
}

uint32_t findAround(const Heap& heap, uint64_t offset, FreeNode* before, FreeNode* after) {
  if (const uint32_t rc = search<byOffset>(heap, offset, &before->ref, &after->ref)) return rc;
  *before = loadFields(heap, before->ref);
  *after = loadFields(heap, after->ref);
  return 0;
}

uint32_t findFree(const Heap& heap, uint64_t offset, FreeNode* found) {
  FreeNode before;
  if (const uint32_t rc = findAround(heap, offset, &before, found)) return rc;
  return found->ref.node != heap.freeTail() && found->offset == offset ? 0 : heap.kind().rcNotFound;
}

uint32_t firstFree(const Heap& heap, FreeNode* first) {
  return nextFree(heap, {headOf(heap), 0, 0, 0}, first);
}

uint32_t nextFree(const Heap& heap, const FreeNode& node, FreeNode* next) {
  FreeRef ref;
  if (!loadNeighbour(heap, node.ref, byOffset, forward, 0, &ref)) return heap.kind().rcState;
  *next = ref.node == heap.freeTail() ? FreeNode{} : loadFields(heap, ref);
  return 0;
}

bool previousFree(const Heap& heap, const FreeRef& node, FreeRef* previous) {
  return loadNeighbour(heap, node, byOffset, backward, 0, previous);
}

bool findFreeByTail(const Heap& heap, uint64_t end, FreeNode* found) {
  if (end < heap.spaceEnd() + sizeof(PadTail_t) || end > heap.end()) return false;
  const PadTail_t* tail = heap.at<PadTail_t>(end - sizeof(PadTail_t));
  if (loadOnce(&tail->magic) != TREL_FREE_TAIL_MAGIC) return false;
  const uint64_t node = loadOnce(&tail->nodeOffset);
  FreeRef before;
  if (!loadPlaced(heap, node, &found->ref)) return false;
  *found = loadFields(heap, found->ref);
  return found->end() == end && heap.containsBlock(found->offset, found->size) &&
         loadNeighbour(heap, found->ref, byOffset, backward, 0, &before) &&
         loadLink(heap, before, byOffset, forward, 0) == node;
}

// The predecessors of a node at all its levels, from one at level 0: leftward until a node is tall
// enough, and stays. That is a few steps, where a search for all levels starts at the head.
uint32_t FreeChange::findPredecessors(Order order, FreeRef here, Path* path) const {
  WalkBudget budget(*heap_);
  FreeRef after;
  for (uint64_t i = 0; i < changed_.ref.levels; ++i) {
    while (here.levels <= i || isLeaving(here)) {
      const uint64_t level = here.levels <= i ? here.levels - 1 : i;
      if (TREL_UNLIKELY(!loadNeighbour(*heap_, here, order, backward, level, &here) ||
                        budget.exhausted()))
        return heap_->kind().rcState;
    }
    path->before[i] = here;
    if (!loadNeighbour(*heap_, here, order, forward, i, &after)) return heap_->kind().rcState;
  }
  return 0;
}

uint32_t FreeChange::findPlaceBySize(uint64_t size) {
  FreeRef last = {}, found = {};
  if (const uint32_t rc = findBySize(*heap_, size, &last, &found)) return rc;
  return findPredecessors(bySize, last, &paths_[bySize]);
}

// A node that leaves its place by size leaves the hints that name it to the node behind.
void FreeChange::passHintsOn(const FreeNode& node) const {
  const uint64_t behind = loadLink(*heap_, node.ref, bySize, forward, 0) - heap_->listOffset();
  const uint64_t sizes[] = {node.size, node.sought};
  for (const uint64_t size : sizes)
    if (loadHint(*heap_, size) == node.ref.node - heap_->listOffset())
      storeHint(*heap_, size, behind);
}

uint32_t FreeChange::remove(const FreeNode& node) {
  for (const Order order : kOrders)
    if (!isLinked(*heap_, node.ref, order)) return heap_->kind().rcState;
  removed_ = node;
  return 0;
}

uint32_t FreeChange::resize(const FreeNode& node, uint64_t offset, uint64_t size) {
  FreeRef before, after;
  if (!isLinked(*heap_, node.ref, bySize) ||
      !loadNeighbour(*heap_, node.ref, bySize, backward, 0, &before) ||
      !loadNeighbour(*heap_, node.ref, bySize, forward, 0, &after))
    return heap_->kind().rcState;
  changed_ = node;
  what_ = What::resized;
  offset_ = offset;
  size_ = size;
  // Between neighbours that stay smaller and not smaller, it stays where it is.
  moves_ = size != node.size &&
           !((before.node == heap_->freeHead() || keyOf(*heap_, before, bySize) < size) &&
             (after.node == heap_->freeTail() || keyOf(*heap_, after, bySize) >= size));
  return moves_ ? findPlaceBySize(size) : 0;
}

uint32_t FreeChange::insert(uint64_t offset, uint64_t size, bool tight, const FreeRef& previous) {
  FreeRef last = previous, found;
  const uint64_t inUse = loadOnce(&heap_->freeListLevel());
  if (last.node == 0)
    if (const uint32_t rc = search<byOffset>(*heap_, offset, &last, &found)) return rc;
  if (!findRoom(*heap_, NodeKind::free, offset, inUse, tight, &room_)) return TREL_RC_SPACE_FULL;
  changed_ = {{room_.node, room_.level + 1}, offset, size, 0};
  what_ = What::inserted;
  offset_ = offset;
  size_ = size;
  if (const uint32_t rc = findPredecessors(byOffset, last, &paths_[byOffset])) return rc;
  return findPlaceBySize(size);
}

uint32_t FreeChange::apply() {
  const Heap& heap = *heap_;
  SkipListHeader_t* list = heap.list();
  const FreeRef ref = changed_.ref;
  uint64_t freeBytes = heap.header()->freeBytes;
  bool sound = true;
  if (removed_.ref.node) {
    passHintsOn(removed_);
    for (const Order order : kOrders) sound &= unlink(heap, removed_.ref, order);
    list->freeNodeCount -= 1;
    freeBytes -= removed_.size;
    uint64_t inUse = loadOnce(&heap.freeListLevel());
    while (inUse > 0 && inUse < heap.maxLevel() &&
           loadLink(heap, headOf(heap), byOffset, forward, inUse) == heap.freeTail())
      --inUse;
    heap.freeListLevel() = inUse;
    leaveRoom(heap, NodeKind::free, removed_.ref.node, removed_.ref.levels - 1);
  }
  if (what_ == What::resized) {
    if (moves_) passHintsOn(changed_);
    if (moves_) sound &= unlink(heap, ref, bySize);
    freeBytes -= changed_.size;
  } else if (what_ == What::inserted) {
    takeRoom(heap_, NodeKind::free, room_);
    FreeNode_t* n = heap.free(ref.node);
    *n = FreeNode_t{};
    n->level = room_.level;
    if (loadOnce(&heap.freeListLevel()) < room_.level) heap.freeListLevel() = room_.level;
    list->freeNodeCount += 1;
  }
  if (what_ != What::nothing) {
    FreeNode_t* n = heap.free(ref.node);
    n->blockOffset = offset_;
    n->blockSize = size_;
    freeBytes += size_;
    if (what_ == What::inserted) sound &= link(heap, ref, byOffset, paths_[byOffset].before);
    if (what_ == What::inserted || moves_) {
      sound &= link(heap, ref, bySize, paths_[bySize].before);
      storeHint(heap, size_, ref.node - heap.listOffset());
    }
    writeTail(heap, ref, offset_, size_);
  }
  heap.header()->freeBytes = freeBytes;
  return sound ? 0 : heap.kind().rcState;
}

void resetFreeLists(const Heap& heap) {
  heap.freeListLevel() = 0;
  heap.list()->freeNodeCount = 0;
  heap.header()->freeBytes = 0;
  const FreeRef ends[] = {headOf(heap), tailOf(heap)};
  for (int side = 0; side < 2; ++side) {
    *heap.free(ends[side].node) = FreeNode_t{};
    heap.free(ends[side].node)->level = heap.maxLevel() - 1;
    for (uint64_t i = 0; i < 4 * heap.maxLevel(); ++i)
      heap.store(ends[side].node + kFreeLinks + 8 * i, ends[1 - side].node);
  }
}

FreeEnds::FreeEnds(const Heap& heap) {
  for (const Order order : kOrders)
    for (FreeRef& ref : last[order]) ref = headOf(heap);
}

void FreeEnds::append(const Heap& heap, Order order, const FreeRef& node) {
  for (uint64_t i = 0; i < node.levels; ++i) {
    heap.store(linkOf(node, order, backward, i), last[order][i].node);
    heap.store(linkOf(last[order][i], order, forward, i), node.node);
    last[order][i] = node;
  }
}

void FreeEnds::close(const Heap& heap) {
  const FreeRef tail = tailOf(heap);
  for (const Order order : kOrders)
    for (uint64_t i = 0; i < heap.maxLevel(); ++i) {
      heap.store(linkOf(last[order][i], order, forward, i), tail.node);
      heap.store(linkOf(tail, order, backward, i), last[order][i].node);
    }
}

}  // namespace trel
