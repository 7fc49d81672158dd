#include "trelshm/node_room.h"

#include "trelshm/flow.h"

namespace trel {
namespace {

// Each level with a probability of one half; at most one above what the list uses. The draw is a
// hash of what is placed and where: it costs no state.
uint64_t drawLevel(const Heap& heap, uint64_t key, uint64_t inUse) {
  uint64_t bits = (heap.nextNode() + key * 0x9e3779b97f4a7c15u) * 0xbf58476d1ce4e5b9u;
  bits = (bits ^ bits >> 31) * 0x94d049bb133111ebu;
  const uint64_t most = inUse + 1 < heap.maxLevel() ? inUse + 1 : heap.maxLevel() - 1;
  const uint64_t level = static_cast<uint64_t>(__builtin_ctzll(bits >> 32 | uint64_t{1} << 31));
  return level < most ? level : most;
}

bool ownsChains(const Heap& heap) {
  const HeapAside_t* aside = heap.aside();
  return aside->magic == TREL_HEAP_ASIDE && aside->ownOffset == offsetOf(aside, heap.base());
}

TrelU64* chainOf(const Heap& heap, NodeKind kind) {
  return &heap.aside()->holes[static_cast<uint32_t>(kind)];
}

// The first hole of a chain. False if there is none, or if what is there is none any more.
TREL_INLINE bool findHole(const Heap& heap, NodeKind kind, NodeRoom* room) {
  const uint64_t first = loadOnce(chainOf(heap, kind));
  if (first == 0 || first > heap.nextNode() - sizeof(Hole_t) || first < heap.listHeaderSize() ||
      !ownsChains(heap))
    return false;
  const Hole_t* hole = heap.at<Hole_t>(heap.listOffset() + first);
  const uint64_t level = loadOnce(&hole->level), next = loadOnce(&hole->next);
  if (loadOnce(&hole->mark) != TREL_HOLE_MARK + first || level >= heap.maxLevel() ||
      nodeSize(kind, level) > heap.nextNode() - first || next == kNoHole)
    return false;
  *room = {heap.listOffset() + first, level, kind, next};
  return true;
}

}  // namespace

bool findRoom(const Heap& heap, NodeKind kind, uint64_t key, uint64_t inUse, bool tight,
              NodeRoom* room) {
  if (TREL_LIKELY(findHole(heap, kind, room))) return true;
  uint64_t level = drawLevel(heap, key, inUse);
  const uint64_t reserve = tight ? 0 : reserveOf(heap), left = heap.space() - heap.nextNode();
  while (level > 0 && nodeSize(kind, level) + reserve > left) --level;
  *room = {heap.listOffset() + heap.nextNode(), level, kind, kNoHole};
  if (nodeSize(kind, level) + reserve <= left) return true;
  // A free node's place serves an allocated node: four links of one are a level of the other.
  if (kind == NodeKind::free || !findHole(heap, NodeKind::free, room)) return false;
  const uint64_t fits = 4 * room->level + 3;
  room->level = fits < heap.maxLevel() ? fits : heap.maxLevel() - 1;
  return true;
}

void takeRoom(Heap* heap, NodeKind kind, const NodeRoom& room) {
  const uint64_t size = nodeSize(kind, room.level);
  heap->list()->slUsedBytes += size;
  if (room.nextHole != kNoHole)
    *chainOf(*heap, room.hole) = room.nextHole;
  else
    heap->setNextNode(heap->nextNode() + size);
}

void leaveRoom(const Heap& heap, NodeKind kind, uint64_t node, uint64_t level) {
  heap.list()->slUsedBytes -= nodeSize(kind, level);
  addHole(heap, kind, node, level);
}

void addHole(const Heap& heap, NodeKind kind, uint64_t node, uint64_t level) {
  if (!ownsChains(heap)) forgetHoles(heap);
  TrelU64* chain = chainOf(heap, kind);
  Hole_t* hole = heap.at<Hole_t>(node);
  const uint64_t offset = node - heap.listOffset();
  hole->mark = TREL_HOLE_MARK + offset;
  hole->next = *chain;
  hole->level = level;
  *chain = offset;
}

void forgetHoles(const Heap& heap) {
  HeapAside_t* aside = heap.aside();
  aside->magic = TREL_HEAP_ASIDE;
  aside->ownOffset = offsetOf(aside, heap.base());
  aside->holes[0] = aside->holes[1] = 0;
}

}  // namespace trel
