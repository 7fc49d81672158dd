#include "treli/list_reading.h"

namespace trel {
namespace {

constexpr int kPatience = 1000;  // looks at a writer, some ten microseconds
constexpr int32_t kLongestWaitMs = 100;

// Whether nobody is writing, or only the caller is. Under the other models than 1 nobody is inside;
// a writer may have died that changed the model.
bool isQuiet(SNodeCB_t* node) {
  LatchArea_t* area = &node->nodeLatchArea;
  const int32_t* writing = PLATVAtomicSigned32::word(&area->writeFlag);
  for (int looks = 0; looks < kPatience; ++looks) {
    if (__atomic_load_n(writing, __ATOMIC_ACQUIRE) == 0 || node->concurrencyModel != 1) return true;
    __builtin_ia32_pause();
  }
  return platVLatchIsHeld(area->primaryLatch);
}

// Runs work() on a list that stands still.
template <class Work>
uint32_t consistently(const MetNode& met, Work&& work) {
  SNodeCB_t* node = met.node;
  LatchArea_t* area = &node->nodeLatchArea;
  uint32_t model = 0, ownerDied = 0;
  if (const uint32_t rc = readModel(node, &model)) return rc;
  if (model != 1 || platVLatchIsHeld(area->primaryLatch)) return work();
  if (isReadOnly(node)) return looking(node, 0, work);
  if (area->latchVersion != TREL_STRUCTURE_VERSION) return TREL_RC_LATCH_VERSION;
  const PLATLatchWait wait = {birthStampAt(node), met.born, kLongestWaitMs};
  if (const uint32_t rc = plat::latchGet(area->primaryLatch, &ownerDied, wait))
    return rc == PLAT_RC_TIMEOUT ? TREL_RC_WRITER_INSIDE : latchFailure(rc);
  if (ownerDied) onNodeOwnerDied(node, area);
  const uint32_t rc = work();
  return firstOf(rc, unlockNode<Access::read>(area, NodeHold{true}));
}

// An odd multiplier for each word, so that no change of one word goes unseen.
constexpr uint64_t multiplier(uint64_t i) { return 0x9e3779b97f4a7c15u * (2 * i + 3); }

uint64_t checksum(uint64_t sum, const ReadEntry& entry, uint64_t idSize) {
  const SNodeInfo_t& r = entry.record;
  const uint64_t words[] = {reinterpret_cast<uintptr_t>(entry.stored),
                            r.nodeOffset,
                            r.nodeTag,
                            r.idSize,
                            r.selfOffset,
                            r.segInfoOffset,
                            r.hdmInfoOffset,
                            r.segBase};
  constexpr uint64_t kWords = sizeof words / sizeof *words;
  sum *= multiplier(0);
  for (uint64_t i = 0; i < kWords; ++i) sum += words[i] * multiplier(1 + i);
  for (uint64_t i = 0; 8 * i < idSize; ++i) {
    uint64_t word = 0;
    memcpy(&word, entry.id + 8 * i, idSize - 8 * i < 8 ? static_cast<size_t>(idSize - 8 * i) : 8);
    sum += (word ^ word >> 32) * multiplier(1 + kWords + i);
  }
  return sum;
}

}  // namespace

bool ListReading::hasMoved() const {
  if (usesCopy_) return false;
  constexpr uint32_t kSlot = slotNumber(TREL_EXPORT_DEPENDENT);
  if (node_->exportTable[kSlot].size < kDependentHeader + sizeof(SNodeInfo_t))
    return !met_.isAlive();  // there is no room for a list
  __atomic_thread_fence(__ATOMIC_ACQUIRE);
  return !isQuiet(node_) || stampOf(node_) != stamp_ || !met_.isAlive();
}

// Emptiness first: what is added to the list again is counted.
bool ListReading::explainsFailure() const {
  DependentList now;
  if (usesCopy_) return false;
  return (locateDependents(node_, nodeSize_, &now) == 0 && now.live == 0) || hasMoved();
}

void ListReading::begin() {
  left_ = count_ = 0;
  sum_ = before_ = 0;
  toTheEnd_ = false;
  stamp_ = stampOf(node_);
}

uint32_t ListReading::open() {
  begin();
  if (usesCopy_) return copy();
  if (const uint32_t rc = locateDependents(node_, nodeSize_, &list_)) return rc;
  left_ = list_.live;
  place_ = start() + kDependentHeader;
  end_ = start() + list_.size;
  return 0;
}

void ListReading::load(uint64_t place, ReadEntry* entry) const {
  const auto* from = at<const SNodeInfo_t>(nullptr, place);
  entry->record = copyOnce(from);
  // In a copy selfOffset tells the place in the section.
  entry->stored = at<SNodeInfo_t>(nullptr, usesCopy_ ? start() + entry->record.selfOffset : place);
  if (!withNames_) return;
  const uint64_t size = entry->record.idSize;
  memcpy(entry->id, from + 1, static_cast<size_t>(size < maxIdSize() ? size : maxIdSize()));
}

uint32_t ListReading::next(ReadEntry* entry) {
  for (; left_ && end_ - place_ >= list_.stride(); place_ += list_.stride()) {
    if (!usesCopy_ && at<SNodeInfo_t>(nullptr, place_)->nodeTag == 0) continue;
    load(place_, entry);
    if (entry->record.nodeTag == 0) continue;  // it went in between
    const uint64_t idSize = entry->record.idSize;
    before_ = sum_;
    sum_ = checksum(sum_, *entry, !withNames_ ? 0 : idSize < maxIdSize() ? idSize : maxIdSize());
    --left_;
    ++count_;
    place_ += list_.stride();
    return 0;
  }
  entry->stored = nullptr;
  if (toTheEnd_) left_ = 0;
  return left_ ? uint32_t{TREL_RC_DEPENDENT_BOUNDS} : 0;
}

uint32_t ListReading::readOn() {
  DependentList now;
  if (const uint32_t rc = locateDependents(node_, nodeSize_, &now)) return rc;
  const bool isSame = now.offset == list_.offset && now.maxIdSize == list_.maxIdSize;
  if (!isSame) {
    if (const uint32_t rc = open()) return rc;
  }
  left_ = now.live ? UINT32_MAX : 0;
  toTheEnd_ = true;
  return 0;
}

bool ListReading::stoodTogether() const {
  ListReading now(met_, nodeSize_, withNames_);
  ReadEntry entry;
  if (now.open()) return false;
  if (isDone() && now.live() != count_) return false;
  if (count_ == 0) return true;
  if (now.maxIdSize() != maxIdSize()) return false;
  while (now.count_ < count_)
    if (now.next(&entry) || !entry.stored) return false;
  return now.sum_ == sum_;
}

uint32_t ListReading::confirm(bool* stood) {
  *stood = true;
  if (!hasMoved()) return 0;
  return consistently(met_, [&] {
    *stood = stoodTogether();
    if (*stood && isDone()) stamp_ = stampOf(node_);
    return 0u;
  });
}

uint32_t ListReading::copy() {
  drop();
  const uint32_t rc = consistently(met_, [&]() -> uint32_t {
    const uint32_t failure = locateDependents(node_, nodeSize_, &list_);
    return failure ? failure : takeImage(list_, &image_);
  });
  if (rc) return rc;
  left_ = image_.count;
  place_ = reinterpret_cast<uintptr_t>(image_.bytes);
  end_ = place_ + left_ * list_.stride();
  return 0;
}

uint32_t ListReading::relocate(ReadEntry* entry) const {
  if (entry->stands()) return 0;
  return consistently(met_, [&]() -> uint32_t {
    DependentList list;
    if (const uint32_t rc = locateDependents(node_, nodeSize_, &list)) return rc;
    DependentWalk walk(list);
    for (;;) {
      if (const uint32_t rc = walk.next(&entry->stored)) return rc;
      if (!entry->stored || entry->stands()) return 0;
    }
  });
}

void ListReading::fetchAhead(const ReadEntry& entry, const SNodeCB_t* child) const {
  const uint64_t stride = list_.stride();
  if (usesCopy_ || end_ - place_ < 2 * stride) return;
  const uint64_t offset = at<SNodeInfo_t>(nullptr, place_ + stride)->nodeOffset;
  const auto* later = at<SNodeCB_t>(child, offset - entry.record.nodeOffset);
  __builtin_prefetch(later);
  __builtin_prefetch(&later->reconfigCounter);
  __builtin_prefetch(&later->nodeLatchArea.primaryLatch);
  __builtin_prefetch(&later->concurrencyModel);
  __builtin_prefetch(&later->nodeLatchArea.writeFlag);
  constexpr uint32_t kSlot = slotNumber(TREL_EXPORT_DEPENDENT);
  __builtin_prefetch(&later->exportTable[kSlot]);
  __builtin_prefetch(&later->exportTable[kSlot].offset);
  __builtin_prefetch(at<uint8_t>(later, child->exportTable[kSlot].offset));
}

}  // namespace trel
