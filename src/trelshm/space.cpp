#include "trelshm/space.h"

#include "platsvc/memory.h"
#include "treli/flow.h"
#include "trelshm/pads.h"

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

// A block of process memory for count records.
template <class T>
class Records {
 public:
  Records() = default;
  Records(const Records&) = delete;
  Records& operator=(const Records&) = delete;
  ~Records() {
    if (block_) _platMemFree(&block_, 0, 0, __FILE__, __LINE__);
  }
  bool allocate(uint64_t count) {
    return count == 0 || (count <= UINT32_MAX / sizeof(T) &&
                          _platMemAlloc(&block_, 0, static_cast<uint32_t>(count * sizeof(T)), 1,
                                        __FILE__, __LINE__) == 0);
  }
  T& operator[](uint64_t i) {
    if (!block_) __builtin_unreachable();  // no records, no index
    return static_cast<T*>(block_)[i];
  }

 private:
  void* block_ = nullptr;
};

struct FreeBlock {
  uint64_t offset, size, level;
};

// All live nodes of a heap, copied to process memory in order of offset, to be entered anew. What
// can fail comes first: commit() cannot.
class LiveNodes {
 public:
  uint32_t gather(const Heap& heap);
  FreeBlock* freeAt(uint64_t offset);
  // Whether all nodes fit a space of that size with the levels that they have.
  bool fit(const Heap& heap, uint64_t space) const;
  // From here on all nodes have level 0.
  void flatten();
  void commit(Heap* heap, uint64_t space);

 private:
  uint32_t gatherAllocated(const Heap& heap);
  uint32_t gatherFree(const Heap& heap);
  bool enter(const Heap& heap, Placement::Rule rule);
  void writePadOffsets(const Heap& heap);

  Records<AllocNode_t> allocated_;
  Records<FreeBlock> free_;
  uint64_t allocatedCount_ = 0, freeCount_ = 0, bytes_ = 0;
};

uint32_t LiveNodes::gather(const Heap& heap) {
  const SkipListHeader_t* list = heap.list();
  allocatedCount_ = list->allocNodeCount;
  freeCount_ = list->freeNodeCount;
  const uint64_t most = heap.space() / allocNodeSize(0);
  if (allocatedCount_ > most || freeCount_ > most) return heap.kind().rcState;
  if (!allocated_.allocate(allocatedCount_) || !free_.allocate(freeCount_))
    return TREL_RC_REBUILD_NO_MEMORY;
  const uint32_t rc = gatherAllocated(heap);
  return rc ? rc : gatherFree(heap);
}

uint32_t LiveNodes::gatherAllocated(const Heap& heap) {
  uint64_t node = heap.allocHead(), last = 0;
  for (uint64_t i = 0;; ++i) {
    if (const uint32_t rc = nextAlloc(heap, node, &node)) return rc;
    if (node == 0) return i == allocatedCount_ ? 0 : heap.kind().rcState;
    const AllocNode_t& n = *heap.alloc(node);
    if (i == allocatedCount_ || n.blockOffset < last ||
        !heap.containsBlock(n.blockOffset, n.blockSize) || n.level >= heap.maxLevel() ||
        !padsLieInside(n))
      return heap.kind().rcState;
    last = n.blockOffset + n.blockSize;
    bytes_ += allocNodeSize(n.level);
    allocated_[i] = n;
  }
}

uint32_t LiveNodes::gatherFree(const Heap& heap) {
  uint64_t node = heap.freeHead(), last = 0;
  for (uint64_t i = 0;; ++i) {
    if (const uint32_t rc = nextFree(heap, node, &node)) return rc;
    if (node == heap.freeTail()) return i == freeCount_ ? 0 : heap.kind().rcState;
    const FreeNode_t& n = *heap.free(node);
    if (i == freeCount_ || n.blockOffset < last || !heap.containsBlock(n.blockOffset, n.blockSize))
      return heap.kind().rcState;
    last = n.blockOffset + n.blockSize;
    bytes_ += freeNodeSize(n.level);
    free_[i] = {n.blockOffset, n.blockSize, n.level};
  }
}

FreeBlock* LiveNodes::freeAt(uint64_t offset) {
  return freeCount_ && free_[0].offset == offset ? &free_[0] : nullptr;
}

bool LiveNodes::fit(const Heap& heap, uint64_t space) const {
  return heap.listHeaderSize() + bytes_ <= space;
}

void LiveNodes::flatten() {
  for (uint64_t i = 0; i < allocatedCount_; ++i) allocated_[i].level = 0;
  for (uint64_t i = 0; i < freeCount_; ++i) free_[i].level = 0;
}

bool LiveNodes::enter(const Heap& heap, Placement::Rule rule) {
  heap.header()->allocatedBytes = 0;
  heap.header()->freeBytes = 0;
  resetLists(heap);
  Path path;
  for (uint64_t& node : path.node) node = heap.allocHead();
  for (uint64_t i = 0; i < allocatedCount_; ++i) {
    uint64_t node = 0;
    if (appendAlloc(heap, allocated_[i], &path, &node, {rule, allocated_[i].level})) return false;
  }
  if (freeCount_ == 0)
    heap.header()->freeBytes = ((heap.size() - heap.space() - heap.headerSize()) & ~uint64_t{7}) -
                               heap.header()->allocatedBytes;
  uint64_t last = heap.freeHead();
  for (uint64_t i = 0; i < freeCount_; ++i)
    if (insertFree(heap, free_[i].offset, free_[i].size, {rule, free_[i].level}, &last, last))
      return false;
  return true;
}

void LiveNodes::commit(Heap* heap, uint64_t space) {
  heap->setSpace(space);
  heap->countRebuild();
  const uint64_t count = heap->list()->rebuildCount + 1;
  // Levels drawn afresh can need more room than there is; the old ones are known to fit.
  if (!enter(*heap, Placement::Rule::ordinary)) enter(*heap, Placement::Rule::given);
  heap->list()->rebuildCount = count;
  writePadOffsets(*heap);
}

// The pads lie all over the managed memory, so they are fetched some nodes ahead.
void LiveNodes::writePadOffsets(const Heap& heap) {
  constexpr uint64_t kAhead = 16;
  uint64_t node = heap.allocHead();
  for (uint64_t i = 0; nextAlloc(heap, node, &node) == 0 && node != 0; ++i) {
    if (i + kAhead < allocatedCount_) {
      const AllocNode_t& ahead = allocated_[i + kAhead];
      __builtin_prefetch(frontTail(heap, ahead.dataOffset), 1);
      __builtin_prefetch(backTail(heap, ahead.blockOffset + ahead.blockSize), 1);
    }
    writeNodeOffset(heap, node);
  }
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
  // does. A quarter of what is used, if that is little of what is free, lets a rebuild of many
  // nodes serve for many blocks.
  const uint64_t steps = 1 + least(used / 4, heap->header()->freeBytes / 8) / base;
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
