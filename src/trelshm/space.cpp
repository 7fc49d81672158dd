#include "trelshm/space.h"

#include "trelshm/flow.h"
#include "trelshm/live_nodes.h"

namespace trel {
namespace {

template <class T>
constexpr T least(T a, T b) {
  return a < b ? a : b;
}

uint64_t maxNode(const Heap& heap) { return freeNodeSize(heap.maxLevel() - 1); }
uint64_t nodeCap(const Heap& heap) { return 25 * maxNode(heap); }

// The space that the heap got at creation; it grows and shrinks in steps of this.
uint64_t baseSpace(const Heap& heap) {
  constexpr uint64_t kMost = uint64_t{1} << 32;  // a damaged count must not overflow
  return round8(183 * least<uint64_t>(heap.header()->requestedNodeCount, kMost) +
                heap.listHeaderSize());
}

// The space that lets every block come back, with some more blocks than there are. Blocks that do
// not touch need a node each when they are free; the worst is every second one, a free and an
// allocated node for each two. Level 0 nodes can be had by a flat rebuild.
uint64_t roomForReturns(const Heap& heap, uint64_t more) {
  const SkipListHeader_t* list = heap.list();
  const uint64_t nodes = list->allocNodeCount + list->freeNodeCount + more + 1;
  return heap.listHeaderSize() + nodes * (allocNodeSize(0) + freeNodeSize(0)) / 2;
}

// The least space in which all live nodes and one more find room.
uint64_t leastSpace(const Heap& heap) {
  const uint64_t next = heap.list()->slUsedBytes + maxNode(heap) + 40 * heap.maxLevel() + 96;
  const uint64_t returns = roomForReturns(heap, 1);
  return next > returns ? next : returns;
}

uint32_t rebuild(Heap* heap, bool flat) {
  if (heap->header()->handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (heap->space() <= heap->listHeaderSize()) return TREL_RC_SPACE_FULL;
  LiveNodes nodes;
  if (const uint32_t rc = nodes.gather(*heap)) return rc;
  if (!nodes.fit(*heap, heap->space())) return heap->kind().rcState;
  if (flat) nodes.flatten();
  nodes.commit(heap, heap->space());
  return 0;
}

// With no free node the counter of free bytes may stand for the block in flight.
void settleFreeBytes(const Heap& heap) {
  if (heap.list()->freeNodeCount == 0) heap.header()->freeBytes = 0;
}

// The guard: makes room before it runs out.
uint32_t makeRoom(Heap* heap, InFlight* block) {
  const SkipListHeader_t* list = heap->list();
  const uint64_t reserve = 8 * maxNode(*heap), space = heap->space();
  if (TREL_LIKELY(space > list->slNextNode + reserve)) return 0;
  if (list->rebuildCount < 3 && list->slUsedBytes + least(reserve, space * 2 / 100) < space)
    return rebuild(heap, false);
  return defragment(heap, block);
}

// Room at any price, after an insertion has failed for lack of it.
void forceRoom(Heap* heap, InFlight* block) {
  if (changeSpace(heap, heap->space() + baseSpace(*heap), Direction::grow, block) != 0 &&
      heap->list()->slNextNode != heap->list()->slUsedBytes)
    rebuild(heap, false);
}

// insert(rule) places the node. When guard and insertion both fail, the guard's code tells more.
template <class Insert>
TREL_INLINE uint32_t guarded(Heap* heap, InFlight* block, bool tight, Insert&& insert) {
  const auto attempt = [&](Placement::Rule rule) {
    settleFreeBytes(*heap);
    return insert(rule);
  };
  const uint32_t guard = makeRoom(heap, block);
  uint32_t rc = attempt(Placement::Rule::ordinary);
  if (TREL_UNLIKELY(rc == TREL_RC_SPACE_FULL)) {
    forceRoom(heap, block);
    rc = attempt(Placement::Rule::ordinary);
    if (rc == TREL_RC_SPACE_FULL && tight) rc = attempt(Placement::Rule::tight);
    if (rc == TREL_RC_SPACE_FULL && tight && rebuild(heap, true) == 0)
      rc = attempt(Placement::Rule::tight);
  }
  return rc ? firstOf(guard, rc) : 0;
}

}  // namespace

uint32_t rebuild(Heap* heap) { return rebuild(heap, false); }

uint32_t changeSpace(Heap* heap, uint64_t newSize, Direction direction, InFlight* block) {
  const bool grow = direction == Direction::grow;
  const uint64_t oldSize = heap->space(), spaceEnd = heap->spaceEnd();
  newSize = round8(newSize);
  if (heap->header()->handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (grow ? newSize < oldSize : newSize > oldSize) return TREL_RC_SPACE_FIXED;
  const uint64_t delta = grow ? newSize - oldSize : oldSize - newSize;

  // A shrunk space must still have room for every node, and for the next.
  if (!grow && newSize < leastSpace(*heap)) return rebuild(heap);

  uint64_t node = 0;
  const uint32_t found = findFree(*heap, spaceEnd, &node);
  if (found != 0 && found != heap->kind().rcNotFound) return found;
  const bool inFlight = block->offset == spaceEnd;
  if (found == 0 && grow && delta >= heap->free(node)->blockSize) {
    const SkipListHeader_t* list = heap->list();
    const uint64_t gain = least(oldSize / 100 / 2, 4 * maxNode(*heap));
    if (list->rebuildCount < 4 && list->slUsedBytes + gain < oldSize) return rebuild(heap);
    return TREL_RC_SPACE_FIXED;
  }
  if (found != 0 && (!inFlight || (grow && block->size <= delta) ||
                     !heap->containsBlock(block->offset, block->size)))
    return TREL_RC_SPACE_FIXED;

  LiveNodes nodes;
  if (const uint32_t rc = nodes.gather(*heap)) return rc;
  if (!nodes.fit(*heap, newSize)) return TREL_RC_SPACE_FULL;
  const auto move = [&](uint64_t* offset, uint64_t* size) {
    *offset += grow ? delta : -delta;
    *size += grow ? -delta : delta;
  };
  if (found == 0) {
    FreeBlock* first = nodes.freeAt(spaceEnd);
    if (!first) return heap->kind().rcState;
    move(&first->offset, &first->size);
  }
  if (inFlight) move(&block->offset, &block->size);
  nodes.commit(heap, newSize);
  heap->list()->rebuildCount = 0;
  return 0;
}

uint32_t defragment(Heap* heap, InFlight* block) {
  SkipListHeader_t* list = heap->list();
  const uint64_t space = heap->space(), used = list->slUsedBytes, base = baseSpace(*heap);
  const uint64_t want = least(nodeCap(*heap), space * 5 / 100), before = list->rebuildCount;
  if (before <= 3 && space <= used + base && space > used + want) {
    if (const uint32_t rc = rebuild(heap)) return rc;
    if (before != 0 && space > space * 25 / 100 + list->slUsedBytes)
      list->rebuildCount = before - 1;
    return 0;
  }
  if (space < used + want) return changeSpace(heap, round8(space + base), Direction::grow, block);

  const uint64_t q = space / base;
  uint64_t newSize = space > base ? space - base : base;
  if (q > 1 && base < used) {
    const uint64_t margin = least(nodeCap(*heap), space * 15 / 100);
    for (uint64_t i = 1; i < q && base * i + used + margin < space; ++i) newSize = space - base * i;
  }
  newSize = round8(newSize);
  // A space that is below its base, of a damaged or hand-made heap, stays as it is.
  if (newSize < base) newSize = least(base, space);
  // Rebuilds that come again and again bring little, and there is nothing to shrink: more space
  // does. As much as is used, if that is little of what is free, lets a rebuild of many nodes
  // serve for many blocks.
  const uint64_t steps = 1 + least(used, heap->header()->freeBytes / 8) / base;
  if (before > 3 && newSize < leastSpace(*heap) &&
      changeSpace(heap, space + steps * base, Direction::grow, block) == 0)
    return 0;
  return changeSpace(heap, newSize, Direction::shrink, block);
}

uint32_t insertFreeGuarded(Heap* heap, InFlight* block, bool tight, uint64_t* node,
                           uint64_t previous) {
  const uint64_t rebuilds = heap->rebuilds();
  return guarded(heap, block, tight, [&](Placement::Rule rule) {
    return insertFree(*heap, block->offset, block->size, {rule, 0}, node,
                      heap->rebuilds() == rebuilds ? previous : 0);
  });
}

uint32_t insertAllocGuarded(Heap* heap, const AllocNode_t& record, uint64_t* node) {
  InFlight none = {0, 0};
  if (TREL_UNLIKELY(heap->space() < roomForReturns(*heap, 1))) {
    const uint32_t rc = changeSpace(heap, heap->space() + baseSpace(*heap), Direction::grow, &none);
    if (heap->space() < roomForReturns(*heap, 1)) return rc ? rc : uint32_t{TREL_RC_SPACE_FULL};
  }
  return guarded(heap, &none, false, [&](Placement::Rule rule) {
    return insertAlloc(*heap, record, node, {rule, 0});
  });
}

}  // namespace trel
