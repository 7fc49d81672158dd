#include "trelshm/skip_list.h"

#include <stdlib.h>

#include "trelshm/flow.h"
#include "trelshm/store.h"

namespace trel {
namespace {

static_assert(RAND_MAX == 0x7fffffff, "the threshold of a draw is half of its range");
constexpr int kThreshold = 0x3fffffff;

bool heads() { return rand() < kThreshold; }

// Each level with a probability of one half; at most one above what the list uses.
uint64_t chooseLevel(uint64_t inUse, uint64_t maxLevel) {
  if (!heads()) return 0;
  uint64_t level = 1;
  if (heads())
    while (inUse >= level && maxLevel > level) {
      ++level;
      if (!heads()) break;
    }
  if (maxLevel <= level) --level;
  return inUse < level ? inUse + 1 : level;
}

uint64_t reserveOf(const Heap& heap) { return 40 * heap.maxLevel() + 96; }

// Decides the level and finds the place. Nothing is written.
template <uint64_t (*sizeOf)(uint64_t)>
TREL_INLINE uint32_t place(const Heap& heap, Placement placement, uint64_t inUse, uint64_t* level) {
  const bool ordinary = placement.rule == Placement::Rule::ordinary;
  *level = ordinary ? chooseLevel(inUse, heap.maxLevel()) : placement.level;
  const uint64_t size = sizeOf(*level) + (ordinary ? reserveOf(heap) : 0);
  return size > heap.space() - heap.list()->slNextNode ? uint32_t{TREL_RC_SPACE_FULL} : 0;
}

// Where the next node goes; it is filled before the place is taken.
uint64_t nextPlace(const Heap& heap) { return heap.listOffset() + heap.list()->slNextNode; }

void takePlace(const Heap& heap, uint64_t size) {
  SkipListHeader_t* list = heap.list();
  list->slUsedBytes += size;
  list->slNextNode += size;
}

// A damaged list may loop: no walk is longer than nodes can be. (A node has more than 32 bytes, by
// which dividing costs nothing.)
class Steps {
 public:
  explicit Steps(const Heap& heap) : left_(heap.space() / 32) {}
  bool exhausted() { return left_-- == 0; }

 private:
  uint64_t left_;
};

// ---- free lists ----

enum Order : uint64_t { byOffset = 0, bySize = 1 };
constexpr Order kOrders[] = {byOffset, bySize};

// A free node with the number of its levels, from which the places of its links follow.
struct FreePlace {
  uint64_t node;
  uint64_t levels;
};

struct FreePath {
  FreePlace at[TREL_HEAP_MAX_LEVEL];
};

TREL_INLINE TrelU64& forward(const Heap& heap, FreePlace p, Order order, uint64_t level) {
  return heap.word(p.node + kFreeLinks + 16 * p.levels * order + 8 * level);
}
TREL_INLINE TrelU64& backward(const Heap& heap, FreePlace p, Order order, uint64_t level) {
  return heap.word(p.node + kFreeLinks + 16 * p.levels * order + 8 * p.levels + 8 * level);
}

// A node offset from the heap, proven good for the links up to its own level and for this one.
TREL_INLINE bool reach(const Heap& heap, uint64_t node, uint64_t level, FreePlace* p) {
  if (TREL_UNLIKELY(!heap.containsNode(node, freeNodeSize(0)))) return false;
  const uint64_t top = heap.free(node)->level;
  // In one comparison: not below `level`, and below maxLevel.
  if (TREL_UNLIKELY(top - level >= heap.maxLevel() - level ||
                    !heap.containsNode(node, freeNodeSize(top))))
    return false;
  *p = {node, top + 1};
  return true;
}

TREL_INLINE uint64_t keyOf(const Heap& heap, uint64_t node, Order order) {
  return order == byOffset ? heap.free(node)->blockOffset : heap.free(node)->blockSize;
}

// The one search: goes right while the next key is below the one sought, then down. *last is the
// level 0 predecessor and *found the node behind it. A node that stopped it one level up is
// compared again, which costs less than a branch that nobody can predict.
template <Order order>
TREL_INLINE uint32_t search(const Heap& heap, uint64_t key, FreePlace* last, uint64_t* found) {
  const uint64_t tail = heap.freeTail();
  FreePlace here = {heap.freeHead(), heap.maxLevel()};
  uint64_t level = heap.freeListLevel();
  if (TREL_UNLIKELY(level >= heap.maxLevel())) return heap.kind().rcState;
  Steps steps(heap);
  for (;;) {
    const uint64_t next = forward(heap, here, order, level);
    if (next != tail) {
      FreePlace there;
      if (TREL_UNLIKELY(!reach(heap, next, level, &there) || steps.exhausted()))
        return heap.kind().rcState;
      if (keyOf(heap, next, order) < key) {
        here = there;
        continue;
      }
    }
    if (level == 0) {
      *last = here;
      *found = next;
      return 0;
    }
    --level;
  }
}

// The predecessors of a new node at levels 0 to `level`, from that of level 0: leftward until a
// node is tall enough. That is a few steps, where a search for all levels starts at the head.
uint32_t climb(const Heap& heap, FreePlace here, Order order, uint64_t level, FreePath* path) {
  Steps steps(heap);
  for (uint64_t i = 0; i <= level; ++i) {
    while (here.levels <= i)
      if (TREL_UNLIKELY(!reach(heap, backward(heap, here, order, i - 1), i - 1, &here) ||
                        steps.exhausted()))
        return heap.kind().rcState;
    path->at[i] = here;
  }
  return 0;
}

// Links a filled node between its neighbours at one level of one order.
TREL_INLINE void link(const Heap& heap, FreePlace p, FreePlace before, FreePlace after, Order order,
                      uint64_t level) {
  forward(heap, p, order, level) = after.node;
  backward(heap, p, order, level) = before.node;
  backward(heap, after, order, level) = p.node;
  forward(heap, before, order, level) = p.node;
}

// The neighbours that the node's own links name, proven good.
TREL_INLINE uint32_t neighbours(const Heap& heap, FreePlace p, Order order, uint64_t level,
                                FreePlace* before, FreePlace* after) {
  return reach(heap, backward(heap, p, order, level), level, before) &&
                 reach(heap, forward(heap, p, order, level), level, after)
             ? 0
             : heap.kind().rcState;
}

// ---- allocated list ----

// A link of level i holds the offset of the next node's own link slot of level i.
TREL_INLINE uint64_t slotOfNode(uint64_t node, uint64_t level) {
  return node + kAllocLinks + 8 * level;
}
TREL_INLINE uint64_t nodeOfSlot(uint64_t slot, uint64_t level) {
  return slot - kAllocLinks - 8 * level;
}
TREL_INLINE bool reachSlot(const Heap& heap, uint64_t slot, uint64_t level) {
  return heap.containsNode(nodeOfSlot(slot, level), allocNodeSize(level));
}

TREL_INLINE uint32_t searchAlloc(const Heap& heap, uint64_t key, Path* path, uint64_t* found) {
  uint64_t level = heap.list()->allocListLevel;
  if (TREL_UNLIKELY(level >= heap.maxLevel())) return heap.kind().rcState;
  uint64_t here = heap.allocHead(), next = 0;
  Steps steps(heap);
  for (;; --level) {
    for (;;) {
      const uint64_t slot = heap.word(slotOfNode(here, level));
      if (slot == 0) {
        next = 0;
        break;
      }
      next = nodeOfSlot(slot, level);
      if (TREL_UNLIKELY(!reachSlot(heap, slot, level) || steps.exhausted()))
        return heap.kind().rcState;
      if (heap.alloc(next)->blockOffset >= key) break;
      here = next;
    }
    path->node[level] = here;
    if (level == 0) break;
  }
  path->levels = heap.list()->allocListLevel + 1;
  *found = next;
  return 0;
}

// Fills and links a node whose level and predecessors are known.
uint64_t linkAlloc(const Heap& heap, const AllocNode_t& record, uint64_t level, const Path& path) {
  SkipListHeader_t* list = heap.list();
  const uint64_t size = allocNodeSize(level);
  const uint64_t node = nextPlace(heap);
  AllocNode_t* n = heap.alloc(node);
  *n = record;
  n->level = level;
  takePlace(heap, size);
  heap.header()->allocatedBytes += record.blockSize;
  list->allocNodeCount += 1;
  if (list->allocListLevel < level) list->allocListLevel = level;
  for (uint64_t i = level + 1; i-- > 0;) {
    TrelU64& before = heap.word(slotOfNode(path.node[i], i));
    heap.word(slotOfNode(node, i)) = before;
    storeLast(&before, slotOfNode(node, i));
  }
  return node;
}

}  // namespace

void resetLists(const Heap& heap) {
  SkipListHeader_t* list = heap.list();
  const uint64_t m = heap.maxLevel();
  list->slUsedBytes = heap.listHeaderSize();
  list->slNextNode = heap.listHeaderSize();
  list->allocNodeCount = 0;
  list->freeNodeCount = 0;
  list->allocListLevel = 0;
  list->allocHead = AllocNode_t{};
  list->allocHead.level = m - 1;
  for (uint64_t i = 0; i < m; ++i) heap.word(slotOfNode(heap.allocHead(), i)) = 0;
  heap.freeListLevel() = 0;
  const uint64_t ends[] = {heap.freeHead(), heap.freeTail()};
  for (int side = 0; side < 2; ++side) {
    *heap.free(ends[side]) = FreeNode_t{};
    heap.free(ends[side])->level = m - 1;
    for (uint64_t i = 0; i < 4 * m; ++i)
      heap.word(ends[side] + kFreeLinks + 8 * i) = ends[1 - side];
  }
}

uint32_t insertFree(const Heap& heap, uint64_t blockOffset, uint64_t blockSize, Placement placement,
                    uint64_t* placed, uint64_t previous) {
  FreePath before[2], after[2];
  FreePlace last[2];
  uint64_t found = 0, level = 0;
  const uint64_t inUse = heap.freeListLevel();
  if (previous == 0 || !reach(heap, previous, 0, &last[byOffset]))
    if (const uint32_t rc = search<byOffset>(heap, blockOffset, &last[byOffset], &found)) return rc;
  if (const uint32_t rc = search<bySize>(heap, blockSize, &last[bySize], &found)) return rc;
  if (const uint32_t rc = place<freeNodeSize>(heap, placement, inUse, &level)) return rc;

    // Everything that can be wrong is found before the first store.
#pragma GCC unroll 2
  for (const Order order : kOrders) {
    if (const uint32_t rc = climb(heap, last[order], order, level, &before[order])) return rc;
    for (uint64_t i = 0; i <= level; ++i)
      if (!reach(heap, forward(heap, before[order].at[i], order, i), i, &after[order].at[i]))
        return heap.kind().rcState;
  }

  const FreePlace p = {nextPlace(heap), level + 1};
  FreeNode_t* n = heap.free(p.node);
  *n = FreeNode_t{};
  n->blockOffset = blockOffset;
  n->blockSize = blockSize;
  n->level = level;
  takePlace(heap, freeNodeSize(level));
  heap.list()->freeNodeCount += 1;
  heap.header()->freeBytes += blockSize;
  if (inUse < level) heap.freeListLevel() = level;
  for (uint64_t i = level + 1; i-- > 0;)
#pragma GCC unroll 2
    for (const Order order : kOrders)
      link(heap, p, before[order].at[i], after[order].at[i], order, i);
  if (placed) *placed = p.node;
  return 0;
}

uint32_t deleteFree(const Heap& heap, uint64_t node) {
  FreePlace p, before[2][TREL_HEAP_MAX_LEVEL], after[2][TREL_HEAP_MAX_LEVEL];
  if (!reach(heap, node, 0, &p)) return heap.kind().rcState;
  for (uint64_t i = 0; i < p.levels; ++i)
#pragma GCC unroll 2
    for (const Order order : kOrders)
      if (const uint32_t rc = neighbours(heap, p, order, i, &before[order][i], &after[order][i]))
        return rc;
  for (uint64_t i = 0; i < p.levels; ++i)
#pragma GCC unroll 2
    for (const Order order : kOrders) {
      backward(heap, after[order][i], order, i) = before[order][i].node;
      forward(heap, before[order][i], order, i) = after[order][i].node;
    }
  SkipListHeader_t* list = heap.list();
  list->slUsedBytes -= freeNodeSize(p.levels - 1);
  list->freeNodeCount -= 1;
  heap.header()->freeBytes -= heap.free(node)->blockSize;
  const FreePlace head = {heap.freeHead(), heap.maxLevel()};
  TrelU64& inUse = heap.freeListLevel();
  while (inUse > 0 && inUse < heap.maxLevel() &&
         forward(heap, head, byOffset, inUse) == heap.freeTail())
    inUse -= 1;
  return 0;
}

void relinkFree(const Heap& heap, uint64_t node) {
  FreePlace p, before = {}, after = {};
  if (!reach(heap, node, 0, &p)) return;  // nodes of a damaged heap can lie over each other
  for (uint64_t i = p.levels; i-- > 0;)
    for (const Order order : kOrders)
      if (neighbours(heap, p, order, i, &before, &after) == 0)
        link(heap, p, before, after, order, i);
  SkipListHeader_t* list = heap.list();
  list->slUsedBytes += freeNodeSize(p.levels - 1);
  list->freeNodeCount += 1;
  heap.header()->freeBytes += heap.free(node)->blockSize;
  if (heap.freeListLevel() < p.levels - 1) heap.freeListLevel() = p.levels - 1;
}

uint32_t searchFreeByOffset(const Heap& heap, uint64_t blockOffset, uint64_t* node) {
  FreePlace last;
  return search<byOffset>(heap, blockOffset, &last, node);
}

uint32_t searchFreeBySize(const Heap& heap, uint64_t blockSize, uint64_t* node) {
  FreePlace last;
  return search<bySize>(heap, blockSize, &last, node);
}

uint32_t previousFree(const Heap& heap, uint64_t node, uint64_t* previous) {
  FreePlace p, before;
  if (!reach(heap, node, 0, &p) || !reach(heap, backward(heap, p, byOffset, 0), 0, &before))
    return heap.kind().rcState;
  *previous = before.node;
  return 0;
}

uint32_t nextFree(const Heap& heap, uint64_t node, uint64_t* next) {
  FreePlace p, after;
  if (!reach(heap, node, 0, &p) || !reach(heap, forward(heap, p, byOffset, 0), 0, &after))
    return heap.kind().rcState;
  *next = after.node;
  return 0;
}

uint32_t findFree(const Heap& heap, uint64_t blockOffset, uint64_t* node) {
  if (const uint32_t rc = searchFreeByOffset(heap, blockOffset, node)) return rc;
  return *node != heap.freeTail() && heap.free(*node)->blockOffset == blockOffset
             ? 0
             : heap.kind().rcNotFound;
}

uint32_t insertAlloc(const Heap& heap, const AllocNode_t& record, uint64_t* node,
                     Placement placement) {
  Path path;
  uint64_t found = 0, level = 0;
  const uint64_t inUse = heap.list()->allocListLevel;
  if (const uint32_t rc = searchAlloc(heap, record.blockOffset, &path, &found)) return rc;
  if (const uint32_t rc = place<allocNodeSize>(heap, placement, inUse, &level)) return rc;
  for (uint64_t i = inUse + 1; i <= level; ++i) path.node[i] = heap.allocHead();
  *node = linkAlloc(heap, record, level, path);
  return 0;
}

uint32_t appendAlloc(const Heap& heap, const AllocNode_t& record, Path* path, uint64_t* node,
                     Placement placement) {
  uint64_t level = 0;
  if (const uint32_t rc =
          place<allocNodeSize>(heap, placement, heap.list()->allocListLevel, &level))
    return rc;
  *node = linkAlloc(heap, record, level, *path);
  for (uint64_t i = 0; i <= level; ++i) path->node[i] = *node;
  return 0;
}

uint32_t findAlloc(const Heap& heap, uint64_t blockOffset, Path* path, uint64_t* node) {
  if (const uint32_t rc = searchAlloc(heap, blockOffset, path, node)) return rc;
  if (*node == 0) return heap.kind().rcListEnd;
  const uint64_t level = heap.alloc(*node)->level;
  if (heap.alloc(*node)->blockOffset != blockOffset) return heap.kind().rcNotFound;
  return level <= heap.list()->allocListLevel && heap.containsNode(*node, allocNodeSize(level))
             ? 0
             : heap.kind().rcState;
}

void unlinkAlloc(const Heap& heap, uint64_t node, const Path& path) {
  SkipListHeader_t* list = heap.list();
  const uint64_t level = heap.alloc(node)->level, inUse = list->allocListLevel;
  for (uint64_t i = 0; i <= level && i <= inUse; ++i) {
    TrelU64& before = heap.word(slotOfNode(path.node[i], i));
    if (before != slotOfNode(node, i)) break;
    storeLast(&before, heap.word(slotOfNode(node, i)));
  }
  heap.header()->allocatedBytes -= heap.alloc(node)->blockSize;
  list->slUsedBytes -= allocNodeSize(level);
  list->allocNodeCount -= 1;
  while (list->allocListLevel > 0 &&
         heap.word(slotOfNode(heap.allocHead(), list->allocListLevel)) == 0)
    list->allocListLevel -= 1;
}

void relinkAlloc(const Heap& heap, uint64_t node, const Path& path) {
  SkipListHeader_t* list = heap.list();
  const uint64_t level = heap.alloc(node)->level;
  if (level >= path.levels) return;  // nodes of a damaged heap can lie over each other
  for (uint64_t i = level + 1; i-- > 0;)
    storeLast(&heap.word(slotOfNode(path.node[i], i)), slotOfNode(node, i));
  heap.header()->allocatedBytes += heap.alloc(node)->blockSize;
  list->slUsedBytes += allocNodeSize(level);
  list->allocNodeCount += 1;
  if (list->allocListLevel < level) list->allocListLevel = level;
}

uint32_t nextAlloc(const Heap& heap, uint64_t node, uint64_t* next) {
  const uint64_t slot = heap.word(slotOfNode(node, 0));
  if (slot != 0 && !reachSlot(heap, slot, 0)) return heap.kind().rcState;
  *next = slot == 0 ? 0 : nodeOfSlot(slot, 0);
  return 0;
}

}  // namespace trel
