#include "trelshm/space.h"

#include "trelshm/alloc_list.h"
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

// The space that lets every block come back, with some more nodes than there are. Blocks that do
// not touch need a node each when they are free; the worst is every second one, a free and an
// allocated node for each two. Level 0 nodes can be had by a flat rebuild.
uint64_t roomForReturns(const Heap& heap, uint64_t more) {
  const SkipListHeader_t* list = heap.list();
  const uint64_t nodes = list->allocNodeCount + list->freeNodeCount + more + 1;
  return heap.listHeaderSize() + nodes * (allocNodeSize(0) + freeNodeSize(0)) / 2;
}

// The least space in which all live nodes and one more find room.
uint64_t leastSpace(const Heap& heap) {
  const uint64_t next = heap.list()->slUsedBytes + maxNode(heap) + reserveOf(heap);
  const uint64_t returns = roomForReturns(heap, 1);
  return next > returns ? next : returns;
}

uint32_t rebuild(Heap* heap, bool flat) {
  if (heap->header()->handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (heap->space() <= heap->listHeaderSize()) return TREL_RC_SPACE_FULL;
  LiveNodes nodes(heap);
  if (const uint32_t rc = nodes.gather()) return rc;
  if (flat) nodes.flatten();
  if (!nodes.placeBehind(heap->space())) return heap->kind().rcState;
  nodes.compact();
  nodes.relist();
  heap->list()->rebuildCount += 1;
  return 0;
}

uint64_t holesOf(const Heap& heap) {
  const uint64_t used = loadOnce(&heap.list()->slUsedBytes);
  return heap.nextNode() > used ? heap.nextNode() - used : 0;
}

// Takes space from the free block behind, in place: a whole step if the block can give that, else
// what is needed. Nodes stay where they are.
uint32_t grow(Heap* heap, uint64_t needed, const FreeNode& kept, uint64_t size) {
  FreeNode first;
  if (const uint32_t rc = firstFree(*heap, &first)) return rc;
  if (first.ref.node == 0 || first.offset != heap->spaceEnd() ||
      !heap->containsBlock(first.offset, first.size))
    return TREL_RC_SPACE_FIXED;
  const uint64_t stays = first.ref.node == kept.ref.node ? size : 8;
  uint64_t delta = baseSpace(*heap);
  if (stays > first.size || delta > first.size - stays) delta = round8(needed);
  if (stays > first.size || delta > first.size - stays) return TREL_RC_SPACE_FIXED;
  FreeChange change(heap);
  if (const uint32_t rc = change.resize(first, first.offset + delta, first.size - delta)) return rc;
  if (const uint32_t rc = change.apply()) return rc;
  heap->setSpace(heap->space() + delta);
  heap->list()->rebuildCount = 0;
  return 0;
}

// With no free node the counter of free bytes may stand for the block in flight.
void settleFreeBytes(const Heap& heap) {
  if (heap.list()->freeNodeCount == 0) heap.header()->freeBytes = 0;
}

// attempt() inserts. When the guard and the insertion both fail, the guard's code tells more.
template <class Attempt>
uint32_t guarded(Heap* heap, InFlight* block, Attempt&& attempt) {
  settleFreeBytes(*heap);
  uint32_t rc = attempt();
  if (rc != TREL_RC_SPACE_FULL) return rc;
  const uint32_t guard = defragment(heap, block);
  settleFreeBytes(*heap);
  rc = attempt();
  if (rc == TREL_RC_SPACE_FULL &&
      changeSpace(heap, heap->space() + baseSpace(*heap), Direction::grow, block) == 0)
    rc = attempt();
  return rc ? firstOf(guard, rc) : 0;
}

}  // namespace

uint32_t makeRoom(Heap* heap, const FreeNode& kept, uint64_t size) {
  const uint64_t room = allocNodeSize(0) + reserveOf(*heap), space = heap->space();
  const uint64_t returns = roomForReturns(*heap, kept.size == size ? 0 : 1);
  const uint64_t holes = holesOf(*heap);
  if (returns <= space && holes >= room && holes > space / 4) return rebuild(heap);
  const uint64_t missing = room - least(room, space - heap->nextNode());
  const uint64_t wanted = returns > space && returns - space > missing ? returns - space : missing;
  const uint32_t rc = grow(heap, wanted, kept, size);
  return rc && returns <= space && holes >= room ? rebuild(heap) : rc;
}

bool hasRoomForReturns(const Heap& heap, uint64_t more) {
  return heap.space() >= roomForReturns(heap, more);
}

uint32_t makeRoomForReturn(Heap* heap, uint32_t attempt) {
  return attempt == 0 ? grow(heap, freeNodeSize(0) + reserveOf(*heap), {}, 0)
                      : rebuild(heap, attempt > 1);
}

uint32_t rebuild(Heap* heap) { return rebuild(heap, false); }

uint32_t changeSpace(Heap* heap, uint64_t newSize, Direction direction, InFlight* block) {
  const bool isGrowth = direction == Direction::grow;
  const uint64_t oldSize = heap->space(), spaceEnd = heap->spaceEnd();
  newSize = round8(newSize);
  if (heap->header()->handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (isGrowth ? newSize < oldSize : newSize > oldSize) return TREL_RC_SPACE_FIXED;
  const uint64_t delta = isGrowth ? newSize - oldSize : oldSize - newSize;

  // A shrunk space must still have room for every node, and for the next.
  if (!isGrowth && newSize < leastSpace(*heap)) return rebuild(heap);

  LiveNodes nodes(heap);
  if (const uint32_t rc = nodes.gather()) return rc;
  LiveNodes::Gap* first = nodes.firstFreeAt(spaceEnd);
  if (first && isGrowth && delta >= first->size) {
    const uint64_t gain = least(oldSize / 100 / 2, 4 * maxNode(*heap));
    const SkipListHeader_t* list = heap->list();
    if (list->rebuildCount < 4 && list->slUsedBytes + gain < oldSize) return rebuild(heap);
    return TREL_RC_SPACE_FIXED;
  }
  const bool inFlight = block->offset == spaceEnd;
  if (!first && (!inFlight || (isGrowth && block->size <= delta) ||
                 !heap->containsBlock(block->offset, block->size)))
    return TREL_RC_SPACE_FIXED;

  if (!nodes.placeBehind(newSize)) return TREL_RC_SPACE_FULL;
  const auto move = [&](uint64_t* offset, uint64_t* size) {
    *offset += isGrowth ? delta : -delta;
    *size += isGrowth ? -delta : delta;
  };
  if (first) move(&first->offset, &first->size);
  if (inFlight) move(&block->offset, &block->size);
  nodes.compact();
  heap->setSpace(newSize);
  nodes.relist();
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
  if (space < used + want) return changeSpace(heap, space + base, Direction::grow, block);

  const uint64_t q = space / base;
  uint64_t newSize = space > base ? space - base : base;
  if (q > 1 && base < used) {
    const uint64_t margin = least(nodeCap(*heap), space * 15 / 100);
    for (uint64_t i = 1; i < q && base * i + used + margin < space; ++i) newSize = space - base * i;
  }
  newSize = round8(newSize);
  // A space that is below its base, of a damaged or hand-made heap, stays as it is.
  if (newSize < base) newSize = least(base, space);
  return changeSpace(heap, newSize, Direction::shrink, block);
}

uint32_t insertFree(Heap* heap, uint64_t blockOffset, uint64_t blockSize, bool tight) {
  FreeChange change(heap);
  const uint32_t rc = change.insert(blockOffset, blockSize, tight, {0, 0});
  return rc ? rc : change.apply();
}

uint32_t insertAlloc(Heap* heap, const AllocNode_t& fields, uint64_t* node) {
  AllocPath path;
  NodeRoom room;
  if (const uint32_t rc = findAllocPath(*heap, fields.blockOffset, &path)) return rc;
  if (!findRoom(*heap, NodeKind::allocated, fields.blockOffset, path.levels - 1, false, &room))
    return TREL_RC_SPACE_FULL;
  linkAlloc(heap, room, fields, path);
  *node = room.node;
  return 0;
}

uint32_t insertFreeGuarded(Heap* heap, InFlight* block, bool tight) {
  return guarded(heap, block, [&] { return insertFree(heap, block->offset, block->size, tight); });
}

uint32_t insertAllocGuarded(Heap* heap, const AllocNode_t& fields, uint64_t* node) {
  InFlight none = {0, 0};
  if (!hasRoomForReturns(*heap, 1)) {
    const uint32_t rc = changeSpace(heap, heap->space() + baseSpace(*heap), Direction::grow, &none);
    if (!hasRoomForReturns(*heap, 1)) return rc ? rc : uint32_t{TREL_RC_SPACE_FULL};
  }
  return guarded(heap, &none, [&] { return insertAlloc(heap, fields, node); });
}

}  // namespace trel
