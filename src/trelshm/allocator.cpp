#include "trelshm/allocator.h"

#include <string.h>

#include "trelshm/alloc_list.h"
#include "trelshm/free_blocks.h"
#include "trelshm/heap_latch.h"
#include "trelshm/space.h"

namespace trel {
namespace {

constexpr uint32_t kFillNew = 1, kFillFreed = 2;  // bits of debugFlags

// The debug record as it stands when an allocation begins.
struct DebugSettings {
  uint32_t flags, frontWords, backWords;
  const PadMode* mode;

  uint32_t read(const Heap& heap) {
    uint32_t modeWord = 0;
    if (TREL_UNLIKELY(!readUnlatched(heap, &modeWord)))
      if (const uint32_t rc = readLatched(heap, &modeWord)) return rc;
    if (!padWordsInRange(frontWords)) return TREL_RC_FRONT_PAD_WORDS;
    if (!padWordsInRange(backWords)) return TREL_RC_BACK_PAD_WORDS;
    mode = padModeOf(modeWord);
    return mode ? 0 : uint32_t{TREL_RC_PAD_MODE};
  }

 private:
  void load(const Heap& heap, uint32_t* modeWord) {
    const DebugRecord_t* debug = &heap.tail()->debug;
    flags = loadOnce(&debug->debugFlags);
    *modeWord = loadOnce(&debug->debugMode);
    frontWords = loadOnce(&debug->frontPadWords);
    backWords = loadOnce(&debug->backPadWords);
  }
  // By its version, if the mode is locked already and nobody is changing the record.
  bool readUnlatched(const Heap& heap, uint32_t* modeWord) {
    const TrelU32* version = &heap.aside()->debugVersion;
    const uint32_t before = loadOnce(version);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    load(heap, modeWord);
    const uint32_t locked = loadOnce(&heap.tail()->debug.debugModeLocked);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return locked == 1 && before % 2 == 0 && loadOnce(version) == before;
  }
  uint32_t readLatched(const Heap& heap, uint32_t* modeWord) {
    return insideDebug(heap, [&]() -> uint32_t {
      load(heap, modeWord);
      heap.tail()->debug.debugModeLocked = 1;
      return 0;
    });
  }
};

// A block as the intent names it. Not all offsets of huge heaps, and none that is odd, can be
// named: a death loses such a block.
uint64_t intentOf(uint64_t distance) {
  return distance <= UINT32_MAX && !(distance & TREL_REPAIR_DUE) ? distance : 0;
}

// A block and its node, chosen and not yet taken.
struct Choice {
  BlockChange block;
  NodeRoom room;
  AllocPath path;

  explicit Choice(Heap* heap) : block(heap) {}

  // TREL_RC_SPACE_FULL: there is a block, but no room for its node.
  uint32_t choose(const Heap& heap, uint64_t size) {
    if (const uint32_t rc = carve(heap, size, &block)) return rc;
    if (!hasRoomForReturns(heap, block.fit.size == size ? 0 : 1)) return TREL_RC_SPACE_FULL;
    const uint64_t inUse = loadOnce(&heap.list()->allocListLevel);
    if (!findRoom(heap, NodeKind::allocated, block.offset, inUse, false, &room))
      return TREL_RC_SPACE_FULL;
    return findAllocPath(heap, block.offset, &path);
  }
};

// Writes what a new block holds, while a death still takes it back.
void complete(Heap* heap, const Choice& chosen, const AllocNode_t& fields, const Allocation& wanted,
              const DebugSettings& debug, const Caller& caller) {
  linkAlloc(heap, chosen.room, fields, chosen.path);
  writePads(*heap, chosen.room.node, fields, *debug.mode, debug.frontWords, debug.backWords,
            wanted.extra, caller);
  if ((debug.flags & kFillNew) && heap->kind().kind == TREL_HEAP_POOL)
    memset(heap->at<void>(wanted.dataOffset), 0xff, wanted.requested);
  if (wanted.name) storeLast(wanted.name, wanted.dataOffset);
  if (wanted.work) wanted.work(wanted.context, wanted.dataOffset);
}

// Takes what was chosen. Everything that can be wrong has been found.
uint32_t take(Heap* heap, Choice* chosen, Allocation* wanted, const DebugSettings& debug,
              const Caller& caller) {
  const uint64_t offset = chosen->block.offset;
  const uint64_t dataOffset = offset + debug.mode->frontSize(debug.frontWords);
  const AllocNode_t fields = {offset, wanted->size,    dataOffset, wanted->requested,
                              0,      caller.function, caller.line};
  HeapIntent_t* intent = heap->intent();
  storeLast(&intent->allocating, intentOf(offset - heap->offset()));
  const uint32_t rc = chosen->block.change.apply();
  if (rc == 0) {
    wanted->blockOffset = offset;
    wanted->dataOffset = dataOffset;
    complete(heap, *chosen, fields, *wanted, debug, caller);
  }
  storeLast(&intent->allocating, 0);
  return rc;
}

uint32_t allocateInside(Heap* heap, Allocation* wanted, const DebugSettings& debug,
                        const Caller& caller) {
  if (const uint32_t rc = heap->openLists()) return rc;
  if (wanted->size > loadOnce(&heap->header()->freeBytes)) return heap->kind().rcAboveFree;
  for (int attempt = 0;; ++attempt) {
    Choice chosen(heap);
    const uint32_t rc = chosen.choose(*heap, wanted->size);
    if (TREL_LIKELY(rc == 0)) return take(heap, &chosen, wanted, debug, caller);
    if (rc != TREL_RC_SPACE_FULL || attempt == 2) return rc;
    if (const uint32_t failed = makeRoom(heap, chosen.block.fit, wanted->size)) return failed;
  }
}

bool findFreeBetween(const Heap& heap, uint64_t from, uint64_t to, FreeNode* found) {
  return findFreeByTail(heap, to, found) && found->offset == from;
}

constexpr int kNear = 6;  // steps that cost less than a search

// The free node in front of an allocated block by offset: from the next free block behind.
bool findPreviousNear(const Heap& heap, AllocRef at, FreeRef* previous) {
  AllocRef next;
  for (int i = 0; i < kNear; ++i, at = next) {
    if (at.node == 0) return previousFree(heap, {heap.freeTail(), heap.maxLevel()}, previous);
    if (nextAlloc(heap, at.node, &next)) return false;
    const uint64_t to = next.node ? next.fields.blockOffset : heap.blocksEnd();
    FreeNode free;
    if (at.end() != to)
      return findFreeBetween(heap, at.end(), to, &free) && previousFree(heap, free.ref, previous);
  }
  return false;
}

// Free and allocated blocks tile the memory, so the neighbours of an allocated block on its list
// tell where free ones lie, and these blocks' last bytes which they are. What they do not tell, a
// search does.
uint32_t findSurroundings(const Heap& heap, const AllocRef& block, const AllocPath& path,
                          Surroundings* found) {
  const uint64_t start = block.fields.blockOffset, end = block.end();
  const bool isFirst = path.node[0] == heap.allocHead();
  const uint64_t from = isFirst ? heap.spaceEnd() : AllocRef{0, heap.loadAlloc(path.node[0])}.end();
  AllocRef next;
  if (const uint32_t rc = nextAlloc(heap, block.node, &next)) return rc;
  const uint64_t to = next.node ? next.fields.blockOffset : heap.blocksEnd();
  if (from > start || to < end) return heap.kind().rcState;
  *found = {};
  const bool known = (from == start || findFreeBetween(heap, from, start, &found->before)) &&
                     (to == end || findFreeBetween(heap, end, to, &found->after)) &&
                     (from < start || to > end || findPreviousNear(heap, next, &found->previous));
  return known ? 0 : findSurroundings(heap, start, block.fields.blockSize, found);
}

// An allocated block and how it comes back, found and not yet done.
struct Return {
  AllocPath path;
  AllocRef node;
  BlockChange block;

  explicit Return(Heap* heap) : block(heap) {}

  // TREL_RC_SPACE_FULL: there is no room for its free node.
  uint32_t find(const Heap& heap, uint64_t blockOffset, uint64_t dataOffset, bool tight) {
    if (const uint32_t rc = findAlloc(heap, blockOffset, &path, &node)) return rc;
    const AllocNode_t& fields = node.fields;
    if (fields.dataOffset != dataOffset || !padsLieInside(fields) ||
        !heap.containsBlock(fields.blockOffset, fields.blockSize))
      return heap.kind().rcCheckRange;
    Surroundings around;
    if (const uint32_t rc = findSurroundings(heap, node, path, &around)) return rc;
    block.offset = blockOffset;
    block.size = fields.blockSize;
    return coalesce(around, tight, &block);
  }
};

uint32_t giveBack(Heap* heap, Return* found, BlockName name) {
  const AllocNode_t& fields = found->node.fields;
  unlinkAlloc(*heap, found->node, found->path);
  if (name) storeLast(name, 0);
  const uint32_t flags = loadOnce(&heap->tail()->debug.debugFlags);
  if ((flags & kFillFreed) && heap->kind().kind == TREL_HEAP_POOL)
    memset(heap->at<void>(fields.dataOffset), 0xff, fields.requestedSize);
  if (const uint32_t rc = found->block.change.apply()) return rc;
  leaveRoom(*heap, NodeKind::allocated, found->node.node, fields.level);
  // Behind the free block's tail, which can lie there.
  frontTail(*heap, fields.dataOffset)->mode = TREL_PAD_FREED;
  return 0;
}

uint32_t releaseInside(Heap* heap, uint64_t blockOffset, uint64_t dataOffset, const Caller& caller,
                       BlockName name) {
  if (const uint32_t rc = heap->openLists()) return rc;
  if (const uint32_t rc = checkAllocation(*heap, dataOffset, nullptr, caller)) return rc;
  for (uint32_t attempt = 0;; ++attempt) {
    Return found(heap);
    const uint32_t rc = found.find(*heap, blockOffset, dataOffset, attempt > 0);
    if (TREL_LIKELY(rc == 0)) return giveBack(heap, &found, name);
    if (rc != TREL_RC_SPACE_FULL || attempt == 3) return rc;
    const uint32_t failed = makeRoomForReturn(heap, attempt);
    if (failed && attempt > 0) return failed;
  }
}

}  // namespace

uint32_t allocate(Heap* heap, Allocation* wanted, const Caller& caller) {
  const HeapKind& kind = heap->kind();
  if (!wanted->inNewHeap && heap->header()->heapState != kind.state) return kind.rcState;
  if (wanted->options != 0) return kind.rcOptions;
  if (heap->header()->heapOffset != heap->offset()) return kind.rcOffset;
  if (const uint32_t rc = heap->openHeader()) return rc;
  if (wanted->size > heap->size()) return kind.rcAboveHeap;
  if (wanted->size < kind.minimum) return kind.rcSizeSmall;
  // What will be filled must lie inside the block.
  if (wanted->requested > wanted->size || wanted->extra > wanted->size - wanted->requested)
    return kind.rcSizeSmall;
  DebugSettings debug;
  if (const uint32_t rc = debug.read(*heap)) return rc;
  wanted->size += debug.mode->frontSize(debug.frontWords) + debug.mode->backSize(debug.backWords);
  const auto work = [&] { return allocateInside(heap, wanted, debug, caller); };
  return wanted->inNewHeap ? work() : insideHeap(heap, work);
}

uint32_t release(Heap* heap, uint64_t blockOffset, uint64_t dataOffset, bool latched,
                 const Caller& caller, BlockName name) {
  if (const uint32_t rc = checkHeap(*heap)) return rc;
  if (const uint32_t rc = heap->openHeader()) return rc;
  const auto work = [&] { return releaseInside(heap, blockOffset, dataOffset, caller, name); };
  if (!latched) return insideHeap(heap, work);
  if (const uint32_t rc = repairIfDue(heap)) return rc;
  const HeapChange change(*heap);
  return work();
}

}  // namespace trel
