#include "trelshm/engine.h"

#include <string.h>

#include "trelshm/free_blocks.h"
#include "trelshm/heap_latch.h"
#include "trelshm/store.h"

namespace trel {
namespace {

constexpr uint32_t kFillNew = 1, kFillFreed = 2;  // bits of debugFlags

// The debug record as it stands when an allocation begins.
struct Debug {
  uint32_t flags, frontWords, backWords;
  const PadMode* mode;

  uint32_t read(const Heap& heap) {
    uint32_t modeWord = 0;
    const uint32_t rc = insideDebug(heap, [&]() -> uint32_t {
      DebugRecord_t* debug = &heap.tail()->debug;
      flags = debug->debugFlags;
      modeWord = debug->debugMode;
      frontWords = debug->frontPadWords;
      backWords = debug->backPadWords;
      debug->debugModeLocked = 1;
      return 0;
    });
    if (rc) return rc;
    if (!padWordsInRange(frontWords)) return TREL_RC_FRONT_PAD_WORDS;
    if (!padWordsInRange(backWords)) return TREL_RC_BACK_PAD_WORDS;
    mode = padModeOf(modeWord);
    return mode ? 0 : uint32_t{TREL_RC_PAD_MODE};
  }
};

// A block as the intent names it. Not all offsets of huge heaps, and none that is odd, can be
// named: a death loses such a block.
uint64_t intentOf(uint64_t distance) {
  return distance <= UINT32_MAX && !(distance & TREL_REPAIR_DUE) ? distance : 0;
}

uint32_t allocateInside(Heap* heap, Allocation* wanted, const Debug& debug, const Caller& caller) {
  if (const uint32_t rc = heap->openLists()) return rc;
  if (wanted->size > heap->header()->freeBytes) return heap->kind().rcAboveFree;
  TakenBlock taken;
  if (const uint32_t rc = takeBlock(heap, wanted->size, &taken)) return rc;
  const uint64_t frontSize = debug.mode->frontSize(debug.frontWords);
  const AllocNode_t record = {taken.offset,      taken.size, taken.offset + frontSize,
                              wanted->requested, 0,          caller.function,
                              caller.line};
  // Until the block is complete, a death takes it back.
  HeapIntent_t* intent = heap->intent();
  storeLast(&intent->allocating, intentOf(taken.offset - heap->offset()));
  uint64_t node = 0;
  uint32_t rc = 0;
  {
    const Spare spare(heap, taken.offset, taken.size);
    rc = insertAllocGuarded(heap, record, &node);
  }
  if (rc) {
    untakeBlock(heap, taken);
    storeLast(&intent->allocating, 0);
    return rc;
  }
  wanted->blockOffset = taken.offset;
  wanted->dataOffset = record.dataOffset;
  writePads(*heap, node, *debug.mode, debug.frontWords, debug.backWords, wanted->extra, caller);
  if ((debug.flags & kFillNew) && heap->kind().kind == TREL_HEAP_POOL)
    memset(heap->at<void>(wanted->dataOffset), 0xff, wanted->requested);
  if (wanted->name) storeLast(wanted->name, wanted->dataOffset);
  if (wanted->work) wanted->work(wanted->context, wanted->dataOffset);
  storeLast(&intent->allocating, 0);
  return 0;
}

uint32_t releaseInside(Heap* heap, uint64_t blockOffset, uint64_t dataOffset, const Caller& caller,
                       BlockName name) {
  if (const uint32_t rc = heap->openLists()) return rc;
  if (const uint32_t rc = checkAllocation(*heap, dataOffset, nullptr, caller)) return rc;
  Path path;
  uint64_t node = 0;
  if (const uint32_t rc = findAlloc(*heap, blockOffset, &path, &node)) return rc;
  const AllocNode_t record = *heap->alloc(node);
  if (record.dataOffset != dataOffset || !padsLieInside(record) ||
      !heap->containsBlock(record.blockOffset, record.blockSize))
    return heap->kind().rcCheckRange;

  const uint64_t rebuilds = heap->rebuilds();
  unlinkAlloc(*heap, node, path);
  if (name) storeLast(name, 0);
  if (const uint32_t rc = giveBlock(heap, blockOffset, record.blockSize)) {
    if (heap->rebuilds() == rebuilds)
      relinkAlloc(*heap, node, path);
    else if (insertAlloc(*heap, record, &node, {Placement::Rule::tight, 0}) == 0)
      writeNodeOffset(*heap, node);
    return rc;
  }
  // The node space may have grown into the block: what it took is no longer the block's.
  const uint64_t start = dataOffset > heap->spaceEnd() ? dataOffset : heap->spaceEnd();
  const uint64_t end = dataOffset + record.requestedSize;
  const uint32_t flags = heap->tail()->debug.debugFlags;
  if ((flags & kFillFreed) && heap->kind().kind == TREL_HEAP_POOL && start < end)
    memset(heap->at<void>(start), 0xff, end - start);
  if (dataOffset >= heap->spaceEnd() + sizeof(PadTail_t))
    frontTail(*heap, dataOffset)->mode = TREL_PAD_FREED;
  return 0;
}

}  // namespace

uint32_t allocate(Heap* heap, Allocation* wanted, const Caller& caller) {
  const HeapKind& kind = heap->kind();
  if (heap->header()->heapState != kind.state) return kind.rcState;
  if (wanted->options != 0) return kind.rcOptions;
  if (heap->header()->heapOffset != heap->offset()) return kind.rcOffset;
  if (const uint32_t rc = heap->openHeader()) return rc;
  if (wanted->size > heap->size()) return kind.rcAboveHeap;
  if (wanted->size < kind.minimum) return kind.rcSizeSmall;
  // What will be filled must lie inside the block.
  if (wanted->requested > wanted->size || wanted->extra > wanted->size - wanted->requested)
    return kind.rcSizeSmall;
  Debug debug;
  if (const uint32_t rc = debug.read(*heap)) return rc;
  wanted->size += debug.mode->frontSize(debug.frontWords) + debug.mode->backSize(debug.backWords);
  return insideHeap(heap, [&] { return allocateInside(heap, wanted, debug, caller); });
}

uint32_t release(Heap* heap, uint64_t blockOffset, uint64_t dataOffset, bool latched,
                 const Caller& caller, BlockName name) {
  if (const uint32_t rc = checkHeap(*heap)) return rc;
  if (const uint32_t rc = heap->openHeader()) return rc;
  const auto work = [&] { return releaseInside(heap, blockOffset, dataOffset, caller, name); };
  if (!latched) return insideHeap(heap, work);
  const uint32_t rc = repairIfDue(heap);
  return rc ? rc : work();
}

}  // namespace trel
