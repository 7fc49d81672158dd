#include "trelshm/live_nodes.h"

#include <string.h>

#include "trelshm/pads.h"
#include "trelshm/store.h"

namespace trel {
namespace {

uint64_t mix(uint64_t sum, uint64_t word) { return ((sum ^ word) + 1) * 0x9e3779b97f4a7c15u; }

// Over what the intent says of the records, and the records.
uint64_t checksumOf(const Heap& heap, const HeapIntent_t& intent) {
  uint64_t sum = mix(mix(intent.space, intent.records), intent.count);
  const TrelU64* words = heap.at<TrelU64>(intent.records);
  for (uint64_t i = 0; i < intent.count * (sizeof(LiveBlock_t) / 8); ++i) sum = mix(sum, words[i]);
  return sum;
}

// Whether an allocated block can stand behind `last`, the end of the one before.
bool isSound(const Heap& heap, const AllocNode_t& node, uint64_t last) {
  return node.blockOffset >= last && heap.containsBlock(node.blockOffset, node.blockSize) &&
         node.level < heap.maxLevel() && padsLieInside(node);
}

uint32_t countAllocated(const Heap& heap, uint64_t* count) {
  const uint64_t most = heap.space() / allocNodeSize(0);
  uint64_t node = heap.allocHead();
  for (*count = 0;; ++*count) {
    if (const uint32_t rc = nextAlloc(heap, node, &node)) return rc;
    if (node == 0) return 0;
    if (*count == most) return heap.kind().rcState;
  }
}

}  // namespace

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
    if (i == allocatedCount_ || !isSound(heap, n, last)) return heap.kind().rcState;
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

uint32_t LiveNodes::recover(Heap* heap) {
  if (const uint32_t rc = heap->openHeader()) return rc;
  const uint32_t rebuilding = heap->intent()->rebuilding;
  if (rebuilding == TREL_REBUILD_RECORDED) return recall(heap);
  if (rebuilding == TREL_REBUILD_BARE) return heap->kind().rcState;
  if (const uint32_t rc = heap->openLists()) return rc;
  if (const uint32_t rc = countAllocated(*heap, &allocatedCount_)) return rc;
  if (!allocated_.allocate(allocatedCount_)) return TREL_RC_REBUILD_NO_MEMORY;
  return gatherAllocated(*heap);
}

uint32_t LiveNodes::recall(Heap* heap) {
  const HeapIntent_t intent = *heap->intent();
  const uint32_t rcState = heap->kind().rcState;
  if (intent.records < heap->listOffset() || intent.records > heap->end() ||
      intent.count > (heap->end() - intent.records) / sizeof(LiveBlock_t) ||
      intent.checksum != checksumOf(*heap, intent))
    return rcState;
  if (!allocated_.allocate(intent.count)) return TREL_RC_REBUILD_NO_MEMORY;
  // The lists are about to be written anew anyway; what the rebuild left of them may not fit.
  heap->list()->slSpaceSize = intent.space;
  heap->list()->slNextNode = slHeaderSizeOf(heap->list()->maxLevel);
  if (const uint32_t rc = heap->openLists()) return rc;
  const LiveBlock_t* record = heap->at<LiveBlock_t>(intent.records);
  uint64_t last = 0;
  for (; allocatedCount_ < intent.count; ++allocatedCount_, ++record) {
    const uint64_t block = heap->offset() + record->block;
    const AllocNode_t n = {
        block, record->size,           block + record->front, record->requestedSize,
        0,     record->callerFunction, record->callerLine};
    if (!isSound(*heap, n, last)) return rcState;
    last = block + n.blockSize;
    allocated_[allocatedCount_] = n;
  }
  return 0;
}

const AllocNode_t* LiveNodes::find(uint64_t offset, TrelU64 AllocNode_t::*which) const {
  for (uint64_t i = 0; i < allocatedCount_; ++i)
    if (allocated_[i].*which == offset) return &allocated_[i];
  return nullptr;
}

void LiveNodes::drop(uint64_t blockOffset) {
  uint64_t kept = 0;
  for (uint64_t i = 0; i < allocatedCount_; ++i)
    if (allocated_[i].blockOffset != blockOffset) allocated_[kept++] = allocated_[i];
  allocatedCount_ = kept;
}

uint32_t LiveNodes::findGaps(const Heap& heap) {
  if (!free_.allocate(allocatedCount_ + 1)) return TREL_RC_REBUILD_NO_MEMORY;
  // The memory ends at the heap's end, but blocks at a multiple of 8.
  const uint64_t start = heap.spaceEnd(), end = start + ((heap.end() - start) & ~uint64_t{7});
  uint64_t at = start;
  for (uint64_t i = 0; i < allocatedCount_; ++i) {
    const AllocNode_t& n = allocated_[i];
    if (n.blockOffset > at) free_[freeCount_++] = {at, n.blockOffset - at, 0};
    at = n.blockOffset + n.blockSize;
  }
  if (at < end) free_[freeCount_++] = {at, end - at, 0};
  return 0;
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
  bytes_ = allocatedCount_ * allocNodeSize(0) + freeCount_ * freeNodeSize(0);
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

// The end of a free block, or of the spare one, that the node space does not touch, neither as it
// is nor as it will be. 0 if none is large enough.
uint64_t LiveNodes::findRoom(const Heap& heap, uint64_t space, uint64_t bytes) const {
  const uint64_t newEnd = heap.listOffset() + space;
  const uint64_t from = newEnd > heap.spaceEnd() ? newEnd : heap.spaceEnd();
  const auto isRoom = [&](uint64_t offset, uint64_t size) {
    return size >= bytes && offset + size >= from + bytes;
  };
  if (isRoom(heap.spareOffset(), heap.spareSize()))
    return heap.spareOffset() + heap.spareSize() - bytes;
  for (uint64_t i = freeCount_; i-- > 0;)
    if (isRoom(free_[i].offset, free_[i].size)) return free_[i].offset + free_[i].size - bytes;
  return 0;
}

void LiveNodes::writeRecords(const Heap& heap, uint64_t space, uint64_t offset) const {
  LiveBlock_t* record = heap.at<LiveBlock_t>(offset);
  for (uint64_t i = 0; i < allocatedCount_; ++i) {
    const AllocNode_t& n = allocated_[i];
    *record++ = {static_cast<uint32_t>(n.blockOffset - heap.offset()),
                 static_cast<uint32_t>(n.blockSize),
                 static_cast<uint32_t>(n.dataOffset - n.blockOffset),
                 static_cast<uint32_t>(n.requestedSize),
                 n.callerFunction,
                 n.callerLine};
  }
  HeapIntent_t* intent = heap.intent();
  intent->space = space;
  intent->records = offset;
  intent->count = allocatedCount_;
  intent->checksum = checksumOf(heap, *intent);
}

void LiveNodes::commit(Heap* heap, uint64_t space) {
  HeapIntent_t* intent = heap->intent();
  const uint64_t bytes = allocatedCount_ * sizeof(LiveBlock_t);
  uint64_t room = 0;
  Records<uint8_t> saved;  // freed blocks keep their bytes, the marks of a free among them
  // The records of a rebuild that is done again stand already.
  if (intent->rebuilding != TREL_REBUILD_RECORDED) {
    room = heap->size() <= UINT32_MAX ? findRoom(*heap, space, bytes) : 0;
    if (room && saved.allocate(bytes) && saved) memcpy(&saved[0], heap->at<void>(room), bytes);
    if (room) writeRecords(*heap, space, room);
    storeLast(&intent->rebuilding, room ? TREL_REBUILD_RECORDED : TREL_REBUILD_BARE);
  }
  heap->setSpace(space);
  heap->countRebuild();
  const uint64_t count = heap->list()->rebuildCount + 1;
  // Levels drawn afresh can need more room than there is; the old ones are known to fit.
  if (!enter(*heap, Placement::Rule::ordinary)) enter(*heap, Placement::Rule::given);
  heap->list()->rebuildCount = count;
  writePadOffsets(*heap);
  storeLast(&intent->rebuilding, 0);
  if (saved) memcpy(heap->at<void>(room), &saved[0], bytes);
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

}  // namespace trel
