#include "treli/dependent_index.h"

#include "platsvc/latch.h"
#include "trelshm/process_memory.h"

namespace trel {
namespace {

constexpr uint32_t kLeast = 64;   // live entries; a shorter list is walked as fast
constexpr uint32_t kIndexes = 4;  // lists that a process changes by turns
constexpr uint32_t kVacant = 0;   // in place of a hash

struct Index {
  const SNodeCB_t* node;
  uint64_t born, start, size, used;
  uint32_t stamp, maxIdSize;
  uint32_t places;       // of the section
  uint32_t end;          // behind the last live entry
  uint32_t firstVacant;  // none below
  struct Place {
    uint32_t hash, next;
    uint32_t head;  // of the bucket of this number: place + 1, chained by next
  } * at;

  uint32_t& headOf(uint32_t hash) const { return at[hash % places].head; }

  SNodeInfo_t* entry(const DependentList& list, uint32_t place) const {
    return list.at<SNodeInfo_t>(kDependentHeader + uint64_t{place} * list.stride());
  }
  void fill(uint32_t place, uint32_t hash) {
    at[place].hash = hash;
    at[place].next = headOf(hash);
    headOf(hash) = place + 1;
    if (place >= end) end = place + 1;
  }
  void vacate(uint32_t place) {
    uint32_t* link = &headOf(at[place].hash);
    while (*link && *link != place + 1) link = &at[*link - 1].next;
    if (*link) *link = at[place].next;
    at[place].hash = kVacant;
    if (place < firstVacant) firstVacant = place;
    while (end && at[end - 1].hash == kVacant) --end;
  }
};

Index* indexes[kIndexes];
uint32_t oldest;
uint8_t latch;

// Who finds it busy does without.
class IndexLatch {
 public:
  IndexLatch() : held_(platLinuxIA32AtomicTryLock8Internal(&latch) == 0) {}
  ~IndexLatch() {
    if (held_) platLinuxIA32AtomicReleaseLock8Internal(&latch);
  }
  IndexLatch(const IndexLatch&) = delete;
  IndexLatch& operator=(const IndexLatch&) = delete;
  bool held() const { return held_; }

 private:
  const bool held_;
};

uint32_t hashOf(uint64_t tag, const uint8_t* id, uint64_t idSize) {
  uint64_t hash = tag * 0x9e3779b97f4a7c15u ^ idSize;
  for (uint64_t i = 0; i < idSize; ++i) hash = (hash ^ id[i]) * 0x100000001b3u;
  hash ^= hash >> 32;
  return static_cast<uint32_t>(hash) | 1;  // never kVacant
}

// False for entries that a walk would refuse.
bool hashEntry(const DependentList& list, const SNodeInfo_t* entry, uint32_t* hash) {
  const uint64_t tag = once(entry->nodeTag), idSize = once(entry->idSize);
  if (tag > TREL_MAX_TAG || idSize > list.maxIdSize) return false;
  *hash = hashOf(tag, idOf(entry), idSize);
  return true;
}

uint32_t stampNow(const DependentList& list) { return static_cast<uint32_t>(stampOf(list.node)); }

bool isOf(const Index* index, const DependentList& list) {
  return index && index->node == list.node && index->born == birthStamp(list.node) &&
         index->start == list.offset && index->size == list.size &&
         index->maxIdSize == list.maxIdSize;
}

Index* knownIndex(const DependentList& list) {
  for (Index* index : indexes)
    if (isOf(index, list)) return index;
  return nullptr;
}

void drop(Index** index) {
  if (*index) release(&(*index)->at);
  release(index);
}

bool build(Index* index, const DependentList& list) {
  memset(static_cast<void*>(index->at), 0, index->places * sizeof *index->at);
  index->end = index->firstVacant = 0;
  uint32_t live = 0, hash = 0;
  for (uint32_t place = 0; place < index->places; ++place) {
    if (live == list.live) break;
    const SNodeInfo_t* entry = index->entry(list, place);
    if (entry->nodeTag == 0) continue;
    if (!hashEntry(list, entry, &hash)) return false;
    index->fill(place, hash);
    ++live;
  }
  index->stamp = stampNow(list);
  index->used = list.used;
  return live == list.live;
}

Index* makeIndex(const DependentList& list) {
  Index*& index = indexes[oldest++ % kIndexes];
  drop(&index);
  const auto places = static_cast<uint32_t>(list.capacity());
  if (obtain(&index)) return nullptr;
  index->at = nullptr;
  index->node = nullptr;
  if (obtain(&index->at, places)) {
    drop(&index);
    return nullptr;
  }
  index->node = list.node;
  index->born = birthStamp(list.node);
  index->start = list.offset;
  index->size = list.size;
  index->maxIdSize = list.maxIdSize;
  index->places = places;
  if (build(index, list)) return index;
  drop(&index);
  return nullptr;
}

Index* validIndex(const DependentList& list) {
  Index* index = knownIndex(list);
  const bool isCurrent = index && index->stamp == stampNow(list) && index->used == list.used;
  if (isCurrent) return index;
  if (list.live < kLeast) return nullptr;
  if (!index) return makeIndex(list);
  if (build(index, list)) return index;
  index->node = nullptr;
  return nullptr;
}

}  // namespace

bool findByIndex(const DependentList& list, const SoughtName& name, FoundDependent* found) {
  if ((name.idSize == 0 && !name.exact) || name.tag > TREL_MAX_TAG ||
      name.idSize > TREL_MAX_ID_SIZE)
    return false;
  const IndexLatch hold;
  Index* index = hold.held() ? validIndex(list) : nullptr;
  if (!index) return false;
  const uint32_t hash = hashOf(name.tag, name.id, name.idSize);
  for (uint32_t link = index->headOf(hash); link; link = index->at[link - 1].next) {
    SNodeInfo_t* entry = index->entry(list, link - 1);
    bool same = false;
    if (index->at[link - 1].hash != hash) continue;
    if (entry->nodeTag == 0 || hasName(entry, list.maxIdSize, name, &same)) return false;
    if (same) {
      found->entry = entry;
      return true;
    }
  }
  uint32_t& vacant = index->firstVacant;
  while (vacant < index->end && index->at[vacant].hash != kVacant) ++vacant;
  if (vacant < index->end) found->vacant = index->entry(list, vacant);
  if (found->vacant && found->vacant->nodeTag != 0) return false;
  DependentList rest = list;  // behind the last entry
  rest.offset += uint64_t{index->end} * list.stride();
  rest.size -= uint64_t{index->end} * list.stride();
  rest.live = 0;
  found->walk = DependentWalk(rest);
  return true;
}

void noteInIndex(const DependentList& list, SNodeInfo_t* place) {
  const IndexLatch hold;
  Index* index = hold.held() ? knownIndex(list) : nullptr;
  if (!index || index->stamp + 1 != stampNow(list)) return;
  const uint64_t number =
      (offsetOf(place, list.node) - list.offset - kDependentHeader) / list.stride();
  uint32_t hash = kVacant;
  if (number >= index->places) return;
  if (place->nodeTag != 0 && !hashEntry(list, place, &hash)) return;
  const auto n = static_cast<uint32_t>(number);
  if (index->at[n].hash != kVacant) index->vacate(n);
  if (hash != kVacant) index->fill(n, hash);
  index->stamp = stampNow(list);
  index->used = list.used;
}

}  // namespace trel
