#include "trelshm/live_nodes.h"

#include <string.h>

#include <algorithm>

#include "trelshm/pads.h"
#include "trelshm/walk_budget.h"

namespace trel {
namespace {

// Whether an allocated block can stand behind `last`, the end of the one before, and its node where
// it stands.
bool isSound(const Heap& heap, uint64_t node, const AllocNode_t& fields, uint64_t last) {
  const uint64_t first = heap.listOffset() + heap.listHeaderSize();
  return fields.blockOffset >= last && heap.containsBlock(fields.blockOffset, fields.blockSize) &&
         fields.level < heap.maxLevel() && padsLieInside(fields) && node >= first &&
         isAligned8(node - first) && heap.containsNode(node, allocNodeSize(fields.level));
}

// The stores of a move, which may be done again.
void moveNode(const Heap& heap, const HeapIntent_t& intent, uint64_t linkTo) {
  *heap.alloc(intent.target) = intent.node;
  heap.store(slotOfNode(intent.target, 0), intent.next);
  storeLast(heap.at<TrelU64>(linkTo), slotOfNode(intent.target, 0));
  writeNodeOffset(heap, intent.target, intent.node);
  storeLast(&heap.intent()->moving, 0);
}

}  // namespace

uint32_t LiveNodes::gather() {
  const SkipListHeader_t* list = heap_->list();
  const uint64_t count = loadOnce(&list->allocNodeCount);
  if (const uint32_t rc = gatherAllocated(count)) return rc;
  if (allocatedCount_ != count) return heap_->kind().rcState;
  if (const uint32_t rc = gatherFree()) return rc;
  return sortPlaces();
}

// A death can leave the counter one too low.
uint32_t LiveNodes::recover() {
  if (const uint32_t rc = endMove()) return rc;
  return gatherAllocated(loadOnce(&heap_->list()->allocNodeCount) + 1);
}

uint32_t LiveNodes::gatherAllocated(uint64_t most) {
  if (most > heap_->space() / allocNodeSize(0) + 1) return heap_->kind().rcState;
  if (!allocated_.allocate(most)) return TREL_RC_REBUILD_NO_MEMORY;
  uint64_t last = 0;
  AllocRef next;
  for (uint64_t node = heap_->allocHead();; node = next.node) {
    if (const uint32_t rc = nextAlloc(*heap_, node, &next)) return rc;
    if (next.node == 0) return 0;
    const AllocNode_t& n = next.fields;
    if (allocatedCount_ == most || !isSound(*heap_, next.node, n, last))
      return heap_->kind().rcState;
    last = next.end();
    allocated_[allocatedCount_++] = {next.node, n.blockOffset, n.blockSize, n.level};
  }
}

uint32_t LiveNodes::gatherFree() {
  const uint64_t count = loadOnce(&heap_->list()->freeNodeCount);
  if (count > heap_->space() / freeNodeSize(0)) return heap_->kind().rcState;
  if (!free_.allocate(count) || !sizes_.allocate(count)) return TREL_RC_REBUILD_NO_MEMORY;
  uint64_t last = 0;
  FreeNode node;
  for (uint32_t rc = firstFree(*heap_, &node);; rc = nextFree(*heap_, node, &node)) {
    if (rc) return rc;
    if (node.ref.node == 0) return freeCount_ == count ? 0 : heap_->kind().rcState;
    if (freeCount_ == count || node.offset < last || !heap_->containsBlock(node.offset, node.size))
      return heap_->kind().rcState;
    last = node.end();
    free_[freeCount_++] = {node.offset, node.size, 0, 0};
  }
}

uint32_t LiveNodes::sortPlaces() {
  if (heap_->space() / 8 > UINT32_MAX || !places_.allocate(allocatedCount_))
    return TREL_RC_REBUILD_NO_MEMORY;
  for (uint64_t i = 0; i < allocatedCount_; ++i)
    places_[i] = (allocated_[i].node - heap_->listOffset()) / 8 << 32 | i;
  if (allocatedCount_) std::sort(&places_[0], &places_[0] + allocatedCount_);
  uint64_t last = 0;
  for (uint64_t k = 0; k < allocatedCount_; ++k) {
    const Live& n = allocated_[indexByPlace(k)];
    if (n.node < last) return heap_->kind().rcState;
    last = n.node + allocNodeSize(n.level);
  }
  return 0;
}

// The link that leads to a node on its way leads to its old place or to its new one.
uint32_t LiveNodes::endMove() {
  const HeapIntent_t intent = copyOnce(heap_->intent());
  if (intent.moving != TREL_NODE_MOVING) return 0;
  if (!isSound(*heap_, intent.source, intent.node, 0) ||
      !isSound(*heap_, intent.target, intent.node, 0))
    return heap_->kind().rcState;
  WalkBudget budget(*heap_);
  for (uint64_t link = slotOfNode(heap_->allocHead(), 0); !budget.exhausted();) {
    const uint64_t slot = heap_->load(link);
    if (slot == slotOfNode(intent.source, 0) || slot == slotOfNode(intent.target, 0)) {
      moveNode(*heap_, intent, link);
      return 0;
    }
    if (!heap_->containsNode(nodeOfSlot(slot, 0), allocNodeSize(0))) break;
    link = slot;
  }
  return heap_->kind().rcState;
}

void LiveNodes::move(uint64_t i, uint64_t target, uint64_t level) {
  Live& live = allocated_[i];
  HeapIntent_t* intent = heap_->intent();
  HeapIntent_t noted = {};
  noted.source = live.node;
  noted.target = target;
  noted.next = heap_->load(slotOfNode(live.node, 0));
  noted.node = heap_->loadAlloc(live.node);
  // Somebody without the latch may have written here meanwhile.
  noted.node.level = level;
  if (!padsLieInside(noted.node) ||
      !heap_->containsBlock(noted.node.blockOffset, noted.node.blockSize))
    return;
  intent->source = noted.source;
  intent->target = noted.target;
  intent->next = noted.next;
  intent->node = noted.node;
  storeLast(&intent->moving, TREL_NODE_MOVING);
  moveNode(*heap_, noted, linkTo(i));
  live.node = target;
  live.level = level;
}

uint64_t LiveNodes::indexAround(uint64_t offset) const {
  uint64_t low = 0, high = allocatedCount_;  // the last that does not begin behind it, plus 1
  while (low < high) {
    const uint64_t middle = (low + high) / 2;
    if (allocated_[middle].offset <= offset)
      low = middle + 1;
    else
      high = middle;
  }
  return low && offset - allocated_[low - 1].offset < allocated_[low - 1].size ? low - 1
                                                                               : allocatedCount_;
}

AllocRef LiveNodes::blockAround(uint64_t offset) const {
  const uint64_t i = indexAround(offset);
  if (i == allocatedCount_) return {};
  return {allocated_[i].node, heap_->loadAlloc(allocated_[i].node)};
}

void LiveNodes::drop(const AllocRef& block) {
  uint64_t i = indexAround(block.fields.blockOffset);
  if (i == allocatedCount_) return;
  storeLast(heap_->at<TrelU64>(linkTo(i)), heap_->load(slotOfNode(allocated_[i].node, 0)));
  for (--allocatedCount_; i < allocatedCount_; ++i) allocated_[i] = allocated_[i + 1];
}

uint32_t LiveNodes::findGaps() {
  if (!free_.allocate(allocatedCount_ + 1) || !sizes_.allocate(allocatedCount_ + 1))
    return TREL_RC_REBUILD_NO_MEMORY;
  const uint64_t end = heap_->blocksEnd();
  uint64_t at = heap_->spaceEnd();
  for (uint64_t i = 0; i < allocatedCount_; ++i) {
    const Live& n = allocated_[i];
    if (n.offset > at) free_[freeCount_++] = {at, n.offset - at, 0, 0};
    at = n.offset + n.size;
  }
  if (at < end) free_[freeCount_++] = {at, end - at, 0, 0};
  return sortPlaces();
}

LiveNodes::Gap* LiveNodes::firstFreeAt(uint64_t offset) {
  return freeCount_ && free_[0].offset == offset ? &free_[0] : nullptr;
}

// gapAt(k, &from, &to) gives the k-th stretch for nodes. A lower limit of levels saves space.
template <class GapAt>
bool LiveNodes::place(GapAt&& gapAt) {
  for (uint64_t limit = heap_->maxLevel(); limit-- > 0;) {
    uint64_t k = 0, from = 0, to = 0, i = 0;
    for (bool any = gapAt(k, &from, &to); any && i < freeCount_;) {
      uint64_t level = std::min(static_cast<uint64_t>(__builtin_ctzll(i + 1)), limit);
      while (level > 0 && freeNodeSize(level) > to - from) --level;
      if (freeNodeSize(level) > to - from) {
        any = gapAt(++k, &from, &to);
        continue;
      }
      free_[i].node = from;
      free_[i++].level = level;
      from += freeNodeSize(level);
    }
    if (i == freeCount_) return true;
  }
  return false;
}

// The k-th stretch between allocated nodes where they stand. The last one ends with the space.
bool LiveNodes::gapAt(uint64_t k, uint64_t* from, uint64_t* to) const {
  if (k > allocatedCount_) return false;
  *from = heap_->listOffset() + heap_->listHeaderSize();
  if (k > 0) {
    const Live& before = allocated_[indexByPlace(k - 1)];
    *from = before.node + allocNodeSize(before.level);
  }
  *to = k < allocatedCount_ ? allocated_[indexByPlace(k)].node : heap_->spaceEnd();
  return true;
}

bool LiveNodes::placeBetween() {
  return place([&](uint64_t k, uint64_t* from, uint64_t* to) { return gapAt(k, from, to); });
}

bool LiveNodes::placeBehind(uint64_t space) {
  uint64_t end = heap_->listHeaderSize();
  for (uint64_t i = 0; i < allocatedCount_; ++i) end += allocNodeSize(levelOf(i));
  if (end > space) return false;
  return place([&](uint64_t k, uint64_t* from, uint64_t* to) {
    *from = heap_->listOffset() + end;
    *to = heap_->listOffset() + space;
    return k == 0;
  });
}

void LiveNodes::compact() {
  uint64_t next = heap_->listOffset() + heap_->listHeaderSize();
  for (uint64_t k = 0; k < allocatedCount_; ++k) {
    const uint64_t i = indexByPlace(k), level = levelOf(i);
    if (allocated_[i].node != next || allocated_[i].level != level) move(i, next, level);
    next += allocNodeSize(level);
  }
  heap_->setNextNode(next - heap_->listOffset());
  isCompact_ = true;
}

// What is left between the nodes becomes places for allocated nodes, with levels by index. Old free
// nodes that lie there still hang together, and must not be taken for live ones.
void LiveNodes::makeHoles() {
  uint64_t from = 0, to = 0, next = 0, index = 0;
  for (uint64_t k = 0; k < allocatedCount_ && gapAt(k, &from, &to); ++k) {
    for (; next < freeCount_ && free_[next].node < to; ++next)
      from = free_[next].node + freeNodeSize(free_[next].level);
    memset(heap_->at<void>(from), 0, to - from);
    while (to - from >= allocNodeSize(0)) {
      uint64_t level = static_cast<uint64_t>(__builtin_ctzll(++index));
      level = std::min({level, (to - from - allocNodeSize(0)) / 8, heap_->maxLevel() - 1});
      addHole(*heap_, NodeKind::allocated, from, level);
      from += allocNodeSize(level);
    }
  }
}

void LiveNodes::relist() {
  forgetHoles(*heap_);
  if (!isCompact_) makeHoles();
  relistAllocated();
  relistFree();
  uint64_t used = heap_->listHeaderSize(), end = heap_->listOffset() + used;
  const auto count = [&](uint64_t node, uint64_t size) {
    used += size;
    end = std::max(end, node + size);
  };
  for (uint64_t i = 0; i < allocatedCount_; ++i)
    count(allocated_[i].node, allocNodeSize(allocated_[i].level));
  for (uint64_t i = 0; i < freeCount_; ++i) count(free_[i].node, freeNodeSize(free_[i].level));
  heap_->list()->slUsedBytes = used;
  heap_->setNextNode(end - heap_->listOffset());
}

void LiveNodes::relistAllocated() {
  uint64_t last[TREL_HEAP_MAX_LEVEL], bytes = 0, inUse = 0;
  for (uint64_t& node : last) node = heap_->allocHead();
  for (uint64_t i = 0; i < allocatedCount_; ++i) {
    const Live& n = allocated_[i];
    bytes += n.size;
    inUse = std::max(inUse, n.level);
    for (uint64_t level = 1; level <= n.level; ++level) {
      heap_->store(slotOfNode(last[level], level), slotOfNode(n.node, level));
      last[level] = n.node;
    }
  }
  for (uint64_t level = 1; level < heap_->maxLevel(); ++level)
    heap_->store(slotOfNode(last[level], level), 0);
  SkipListHeader_t* list = heap_->list();
  list->allocListLevel = inUse;
  list->allocNodeCount = allocatedCount_;
  heap_->header()->allocatedBytes = bytes;
}

void LiveNodes::relistFree() {
  resetFreeLists(*heap_);
  FreeEnds ends(*heap_);
  uint64_t bytes = 0, inUse = 0;
  for (uint64_t i = 0; i < freeCount_; ++i) {
    const Gap& gap = free_[i];
    FreeNode_t* n = heap_->free(gap.node);
    *n = FreeNode_t{};
    n->blockOffset = gap.offset;
    n->blockSize = gap.size;
    n->level = gap.level;
    bytes += gap.size;
    inUse = std::max(inUse, gap.level);
    sizes_[i] = static_cast<uint32_t>(i);
    ends.append(*heap_, byOffset, {gap.node, gap.level + 1});
  }
  if (freeCount_)
    std::sort(&sizes_[0], &sizes_[0] + freeCount_, [&](uint32_t a, uint32_t b) {
      return free_[a].size != free_[b].size ? free_[a].size < free_[b].size : a > b;
    });
  for (uint64_t i = 0; i < freeCount_; ++i)
    ends.append(*heap_, bySize, {free_[sizes_[i]].node, free_[sizes_[i]].level + 1});
  ends.close(*heap_);
  heap_->freeListLevel() = inUse;
  heap_->list()->freeNodeCount = freeCount_;
  // Without a free node, all that is not allocated counts as free: it is in flight.
  heap_->header()->freeBytes =
      freeCount_ ? bytes : heap_->blocksEnd() - heap_->spaceEnd() - heap_->header()->allocatedBytes;
}

}  // namespace trel
