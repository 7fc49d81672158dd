#include "trelshm/mapping.h"

#include <string.h>

#include <new>

#include "platsvc/fork.h"
#include "platsvc/ipc.h"
#include "trelshm/byte_latch.h"
#include "trelshm/bytes.h"
#include "trelshm/process_memory.h"

namespace trel {

using std::memory_order_acquire;
using std::memory_order_relaxed;
using std::memory_order_release;

// Readers load with acquire and writers store with release, so that who has seen something new also
// sees that the generation moved.
template <class T>
class Field {
 public:
  operator T() const { return value_.load(memory_order_acquire); }
  T operator->() const { return *this; }
  Field& operator=(T value) {
    value_.store(value, memory_order_release);
    return *this;
  }
  Field& operator=(const Field& other) { return *this = static_cast<T>(other); }

 private:
  std::atomic<T> value_{};
};

// A block that goes with the last pin.
struct BlockToFree {
  BlockToFree* next;
  void* block;
};

struct MappedSegment {
  std::atomic<uint32_t> holders{0};  // 1 for the table, 1 for each thread that pins
  std::atomic<bool> hasLeft{false};  // what it was entered for is still to be unmapped
  Field<uintptr_t> start, end;
  Field<bool> writable;
  Field<ShmDomainHandle_t*> handle;
  Field<ShmSegInfo_t*> attachment;
  Field<uint32_t*> attachCount;
  Field<uint32_t> key;  // of the attachment
  Field<bool> byWalk;
  Field<const void*> undecidedBy;
  // From here on under the latch, or with the last holder.
  bool isEntered = false;
  MappedSegment* behind = nullptr;  // of the same key, read-only and hidden by this one
  MappedSegment* nextMade = nullptr;
  MappedSegment* nextUnused = nullptr;
  PLATHIPCMemory* memory = nullptr;
  BlockToFree* blocks = nullptr;
};

std::atomic<uintptr_t> mappingGeneration{0};
__thread __attribute__((tls_model("initial-exec"))) MappedRange lastMappedRange = {};

namespace {

__thread __attribute__((tls_model("initial-exec"))) Pins* outermostPins = nullptr;

uint8_t tableLatch = 0;  // held by who changes the table

// An array that readers may still look at when it has been outgrown: it is kept for good.
template <class Item>
struct Array {
  Array* outgrown;
  uintptr_t capacity;
  Item items[1];

  static Array* make(uintptr_t capacity, Array* outgrown) {
    uint8_t* block = nullptr;
    if (obtain(&block, sizeof(Array) + (capacity - 1) * sizeof(Item))) return nullptr;
    auto* array = reinterpret_cast<Array*>(block);
    array->outgrown = outgrown;
    array->capacity = capacity;
    for (uintptr_t i = 0; i < capacity; ++i) new (&array->items[i]) Item();
    return array;
  }
};

constexpr uintptr_t kFirstCapacity = 64;

// The ranges of all mappings by descending start, since the kernel places new ones below the
// others: entering one hardly moves any.
class Ranges {
 public:
  struct Range {
    Field<uintptr_t> start, end;
    Field<uintptr_t> reach;  // the largest end from here on
    Field<MappedSegment*> segment;
  };

  bool reserve() {
    Array<Range>* old = array_;
    if (old && count_ < old->capacity) return true;
    auto* grown = Array<Range>::make(old ? 2 * old->capacity : kFirstCapacity, old);
    if (!grown) return false;
    for (uintptr_t i = 0; i < count_; ++i) grown->items[i] = old->items[i];
    array_ = grown;
    return true;
  }

  // There is room. A new one stands in front of those with the same start.
  void insert(MappedSegment* segment) {
    Range* ranges = array_->items;
    const uintptr_t place = seek(ranges, count_, segment->start);
    for (uintptr_t i = count_; i > place; --i) ranges[i] = ranges[i - 1];
    ranges[place].start = segment->start;
    ranges[place].end = segment->end;
    ranges[place].segment = segment;
    count_ = count_ + 1;
    ranges[place].reach = 0;
    updateReach(place);
  }

  void erase(const MappedSegment* segment) {
    Range* ranges = array_->items;
    uintptr_t place = seek(ranges, count_, segment->start);
    while (ranges[place].segment != segment) ++place;
    count_ = count_ - 1;
    for (uintptr_t i = place; i < count_; ++i) ranges[i] = ranges[i + 1];
    if (place > 0) updateReach(place - 1);
  }

  // The innermost mapping around an address, null if there is none, and the stretch for which this
  // is the answer.
  MappedSegment* find(uintptr_t address, MappedRange* stretch) const {
    const Array<Range>* array = array_;
    const uintptr_t count = countWithin(array);
    uintptr_t i = array ? seek(array->items, count, address) : 0;
    uintptr_t low = 0, high = i > 0 ? uintptr_t{array->items[i - 1].start} : UINTPTR_MAX;
    MappedSegment* found = nullptr;
    for (; i < count && !found; ++i) {
      const Range& range = array->items[i];
      if (range.reach <= address) {
        low = low < range.reach ? range.reach : low;
        break;
      }
      const uintptr_t end = range.end;
      if (end <= address) {
        low = low < end ? end : low;
        continue;
      }
      found = range.segment;
      low = low < range.start ? range.start : low;
      high = high > end ? end : high;
    }
    stretch->first = low;
    stretch->length = high - low;
    return found;
  }

  // The entry of a handle, also of a copy of one.
  MappedSegment* ofHandle(const ShmDomainHandle_t* handle) const {
    const auto base = reinterpret_cast<uintptr_t>(handle->base);
    const Range* ranges = array_ ? array_->items : nullptr;
    MappedSegment* found = nullptr;
    for (uintptr_t i = seek(ranges, count_, base); i < count_ && ranges[i].start == base; ++i) {
      MappedSegment* segment = ranges[i].segment;
      if (segment->handle == handle) return segment;
      if (handle->ipcMemory) found = segment;
    }
    return found;
  }

 private:
  // The first range that begins at an address or below it.
  static uintptr_t seek(const Range* ranges, uintptr_t count, uintptr_t address) {
    uintptr_t low = 0, high = count;
    while (low < high) {
      const uintptr_t middle = low + (high - low) / 2;
      if (ranges[middle].start > address) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    return low;
  }

  // A late reader can meet the count of one array and the items of another.
  uintptr_t countWithin(const Array<Range>* array) const {
    const uintptr_t count = count_;
    if (!array) return 0;
    return count < array->capacity ? count : array->capacity;
  }

  void updateReach(uintptr_t from) {
    Range* ranges = array_->items;
    for (uintptr_t i = from + 1; i-- > 0;) {
      const uintptr_t end = ranges[i].end;
      const uintptr_t behind = i + 1 < count_ ? uintptr_t{ranges[i + 1].reach} : 0;
      const uintptr_t reach = end > behind ? end : behind;
      if (ranges[i].reach == reach) return;
      ranges[i].reach = reach;
    }
  }

  Field<Array<Range>*> array_;
  Field<uintptr_t> count_;
};

// Entries by a word of theirs: open addressing, at most half full.
template <class Word, Field<Word> MappedSegment::*word>
class Index {
 public:
  bool reserve() {
    Slots* old = slots_;
    if (old && 2 * (count_ + 1) <= old->capacity) return true;
    Slots* grown = Slots::make(old ? 2 * old->capacity : kFirstCapacity, old);
    if (!grown) return false;
    for (uintptr_t i = 0; old && i < old->capacity; ++i)
      if (MappedSegment* segment = old->items[i]) *placeOf(grown, segment->*word) = segment;
    slots_ = grown;
    return true;
  }

  MappedSegment* find(Word sought) const {
    Slots* slots = slots_;
    if (!slots) return nullptr;
    return *placeOf(slots, sought);
  }

  void insert(MappedSegment* segment) {
    *placeOf(slots_, segment->*word) = segment;
    ++count_;
  }
  void replace(MappedSegment* segment, MappedSegment* by) { *placeOf(slots_, segment->*word) = by; }

  void erase(const MappedSegment* segment) {
    Slots* slots = slots_;
    Field<MappedSegment*>* hole = placeOf(slots, segment->*word);
    *hole = nullptr;
    --count_;
    // Those behind it that could not stand at their own place move up.
    for (uintptr_t i = static_cast<uintptr_t>(hole - slots->items);;) {
      i = (i + 1) & (slots->capacity - 1);
      MappedSegment* other = slots->items[i];
      if (!other) return;
      slots->items[i] = nullptr;
      *placeOf(slots, other->*word) = other;
    }
  }

 private:
  using Slots = Array<Field<MappedSegment*>>;

  static uintptr_t hashOf(Word value) {
    const uint64_t mixed = static_cast<uint64_t>(reinterpretWord(value)) * 0x9e3779b97f4a7c15u;
    return static_cast<uintptr_t>(mixed >> 40);
  }
  static uintptr_t reinterpretWord(uint32_t value) { return value; }
  static uintptr_t reinterpretWord(const void* value) { return reinterpret_cast<uintptr_t>(value); }

  // Where the word stands, or the empty place where it would.
  static Field<MappedSegment*>* placeOf(Slots* slots, Word sought) {
    uintptr_t i = hashOf(sought);
    for (uintptr_t steps = 0;; ++steps, ++i) {
      Field<MappedSegment*>* place = &slots->items[i & (slots->capacity - 1)];
      const MappedSegment* segment = *place;
      // The steps end for a late reader, who can find each place taken.
      if (!segment || segment->*word == sought || steps == slots->capacity) return place;
    }
  }

  Field<Slots*> slots_;
  uintptr_t count_ = 0;
};

Ranges ranges;
Index<uint32_t, &MappedSegment::key> byKey;
Index<ShmSegInfo_t*, &MappedSegment::attachment> byRecord;
Field<MappedSegment*> inSlot;
std::atomic<uintptr_t> totalBytes{0};
MappedSegment* made = nullptr;
MappedSegment* unused = nullptr;

using TableLatch = ByteLatchHold<tableLatch>;

// A change of the table, from an even generation to the next. The caller holds the latch.
class Change {
 public:
  Change() { mappingGeneration.store(generation_ + 1); }
  ~Change() { mappingGeneration.store(generation_ + 2); }
  Change(const Change&) = delete;
  Change& operator=(const Change&) = delete;

 private:
  const uintptr_t generation_ = mappingGeneration.load(memory_order_relaxed);
};

// Runs look() until it saw one generation alone, which is returned.
template <class Look>
uintptr_t look(Look&& lookAtTable) {
  for (int tries = 0; tries < 4; ++tries) {
    const uintptr_t generation = mappingGeneration.load(memory_order_acquire);
    if (generation & 1) continue;
    lookAtTable();
    if (mappingGeneration.load(memory_order_acquire) == generation) return generation;
  }
  const TableLatch latch;
  lookAtTable();
  return mappingGeneration.load(memory_order_relaxed);
}

bool copyOf(MappedSegment* segment, Mapping* found) {
  if (!segment) return false;
  *found = {segment->start,       segment->end,
            segment->writable,    segment->handle,
            segment->attachment,  segment->attachCount,
            segment->key,         segment->byWalk,
            segment->undecidedBy, false};
  return true;
}

template <class Find>
bool findEntry(Mapping* found, Find&& find) {
  bool isFound = false;
  look([&] { isFound = copyOf(find(), found); });
  return isFound;
}

MappedSegment* entryAround(const void* address) {
  MappedRange stretch;
  return ranges.find(reinterpret_cast<uintptr_t>(address), &stretch);
}

// What is left to do when nobody looks any more. False: it could not be unmapped, and stays.
bool unmap(MappedSegment* segment) {
  if (PLATHIPCMemory* memory = segment->memory) {
    if (memory->isAttached() && memory->detach() != 0) return false;
    delete memory;
    segment->memory = nullptr;
  }
  while (BlockToFree* block = segment->blocks) {
    segment->blocks = block->next;
    release(&block->block);
    release(&block);
  }
  return true;
}

void recycle(MappedSegment* segment) {
  const TableLatch latch;
  segment->nextUnused = unused;
  unused = segment;
}

// Takes one holder off. With the last one of an entry that left, its memory and its handle go.
void letGo(MappedSegment* segment) {
  if (segment->holders.fetch_sub(1) != 1 || !segment->hasLeft.exchange(false)) return;
  ShmDomainHandle_t* handle = segment->handle;
  unmap(segment);  // there is nobody left to be told of a failure
  release(&handle);
  recycle(segment);
}

MappedSegment* unusedEntry() {
  MappedSegment* segment = unused;
  if (segment) {
    unused = segment->nextUnused;
    return segment;
  }
  if (obtain(&segment)) return nullptr;
  new (segment) MappedSegment();
  segment->nextMade = made;
  made = segment;
  return segment;
}

void enter(MappedSegment* segment) {
  const Change change;
  ranges.insert(segment);
  segment->isEntered = true;
  totalBytes.fetch_add(segment->end - segment->start, memory_order_relaxed);
}

void hide(MappedSegment* segment) {
  if (!segment->attachment) return;
  const Change change;
  if (inSlot == segment) inSlot = nullptr;
  if (segment->key != 0) {
    MappedSegment* const first = byKey.find(segment->key);
    if (first == segment) {
      if (segment->behind)
        byKey.replace(segment, segment->behind);
      else
        byKey.erase(segment);
    } else if (first && first->behind == segment) {
      first->behind = nullptr;
    }
  }
  segment->behind = nullptr;
  byRecord.erase(segment);
  segment->attachment = nullptr;
  segment->key = 0;
}

void takeOut(MappedSegment* segment) {
  hide(segment);
  const Change change;
  ranges.erase(segment);
  segment->isEntered = false;
  totalBytes.fetch_sub(segment->end - segment->start, memory_order_relaxed);
}

// A forked child has no other threads, so nobody's pins. What had left is unmapped here as well.
void beforeFork() { takeByteLatch(&tableLatch); }
void afterForkInParent() { giveByteLatch(&tableLatch); }
void afterForkInChild() {
  giveByteLatch(&tableLatch);
  for (MappedSegment* segment = made; segment; segment = segment->nextMade) {
    const bool isOurs = outermostPins && outermostPins->has(segment);
    segment->holders = segment->isEntered + (isOurs ? 1u : 0u) + 1;
    letGo(segment);
  }
}

// Registered before all others, so that nobody who holds another latch waits for this one then.
__attribute__((constructor(101))) void watchForks() {
  platAtFork(beforeFork, afterForkInParent, afterForkInChild);
}

}  // namespace

const MappedRange& lookUpRange(uintptr_t address) {
  MappedRange range = {};
  range.generation = look([&] {
    MappedSegment* segment = ranges.find(address, &range);
    range.segment = segment;
    range.unbounded = segment ? 0 : ~uint64_t{0};
    range.start = segment ? uintptr_t{segment->start} : 0;
    range.end = segment ? uintptr_t{segment->end} : 0;
    range.readOnly = segment && !segment->writable;
  });
  return lastMappedRange = range;
}

bool findMapping(const void* address, Mapping* found) {
  return findEntry(found, [&] { return entryAround(address); });
}

bool findAttachment(uint32_t key, Mapping* found) {
  return findEntry(found, [&] { return byKey.find(key); });
}

bool findAttachmentInSlot(Mapping* found) {
  return findEntry(found, [&]() -> MappedSegment* { return inSlot; });
}

bool findAttachment(const ShmSegInfo_t* record, Mapping* found) {
  return findEntry(found, [&] { return byRecord.find(const_cast<ShmSegInfo_t*>(record)); });
}

uint64_t bytesMapped() { return totalBytes.load(memory_order_relaxed); }

Pins::Pins() : outermost_(outermostPins ? outermostPins : this) { outermostPins = outermost_; }

Pins::~Pins() {
  if (outermost_ != this) return;
  outermostPins = nullptr;
  for (uint32_t i = 0; count_ && i < capacity_; ++i)
    if (places_[i]) letGo(places_[i]);
  if (places_ != first_) release(&places_);
}

MappedSegment** Pins::placeOf(const MappedSegment* segment) const {
  uint32_t i = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(segment) >> 6);
  while (places_[i & (capacity_ - 1)] && places_[i & (capacity_ - 1)] != segment) ++i;
  return &places_[i & (capacity_ - 1)];
}

bool Pins::has(const MappedSegment* segment) const { return *placeOf(segment) != nullptr; }

bool Pins::grow() {
  MappedSegment** const old = places_;
  const uint32_t oldCapacity = capacity_;
  MappedSegment** larger = nullptr;
  if (obtain(&larger, 2 * capacity_)) return false;
  memset(larger, 0, 2 * capacity_ * sizeof *larger);
  places_ = larger;
  capacity_ *= 2;
  for (uint32_t i = 0; i < oldCapacity; ++i)
    if (old[i]) *placeOf(old[i]) = old[i];
  MappedSegment** spent = old;
  if (old != first_) release(&spent);
  return true;
}

// Counts a holder of the entry, unless this look does so already.
uint32_t Pins::note(MappedSegment* segment, bool* isNew) {
  MappedSegment** place = placeOf(segment);
  *isNew = !*place;
  if (!*isNew) return 0;
  if (2 * (count_ + 1) > capacity_) {
    if (!grow()) return TREL_RC_ATTACH_NO_MEMORY;
    place = placeOf(segment);
  }
  segment->holders.fetch_add(1);
  *place = segment;
  ++count_;
  return 0;
}

// find() gives the entry or null, as of one generation, which it returns.
template <class Find>
uint32_t Pins::pinFound(Mapping* found, Find&& find) {
  for (;;) {
    MappedSegment* segment = nullptr;
    const uintptr_t generation = find(&segment);
    if (!segment) return TREL_RC_NOT_ATTACHED;
    bool isNew = false;
    if (const uint32_t rc = note(segment, &isNew)) return rc;
    copyOf(segment, found);
    found->isNew = isNew;
    // Held before, it cannot have become another; and what it is now, it was before it was held.
    if (!isNew || mappingGeneration.load() == generation) return 0;
    *placeOf(segment) = nullptr;
    --count_;
    letGo(segment);
  }
}

uint32_t Pins::around(const void* address, Mapping* found) {
  return outermost_->pinFound(found, [&](MappedSegment** segment) {
    const MappedRange& range = rangeAround(address);
    *segment = range.segment;
    return range.generation;
  });
}

uint32_t Pins::attachment(uint32_t key, Mapping* found) {
  return outermost_->pinFound(
      found, [&](MappedSegment** segment) { return look([&] { *segment = byKey.find(key); }); });
}

uint32_t Pins::attachmentInSlot(Mapping* found) {
  return outermost_->pinFound(
      found, [&](MappedSegment** segment) { return look([&] { *segment = inSlot; }); });
}

bool Pins::next(uint32_t* position, Mapping* found) const {
  while (*position < outermost_->capacity_)
    if (copyOf(outermost_->places_[(*position)++], found)) return true;
  return false;
}

bool enterMapping(ShmDomainHandle_t* handle, uint64_t size, bool writable) {
  const TableLatch latch;
  // Each entry may come to be an attachment.
  if (!ranges.reserve() || !byKey.reserve() || !byRecord.reserve()) return false;
  MappedSegment* segment = unusedEntry();
  if (!segment) return false;
  const uintptr_t start = reinterpret_cast<uintptr_t>(handle->base);
  segment->holders.fetch_add(1);  // not a store: a late reader may be about to take its pin off
  segment->start = start;
  segment->end = size < UINTPTR_MAX - start ? start + static_cast<uintptr_t>(size) : UINTPTR_MAX;
  segment->writable = writable;
  segment->handle = handle;
  enter(segment);
  return true;
}

Unmapped leaveMapping(ShmDomainHandle_t* handle) {
  MappedSegment unlisted;
  MappedSegment* segment = nullptr;
  {
    const TableLatch latch;
    segment = ranges.ofHandle(handle);
    if (segment) takeOut(segment);
  }
  if (!segment) segment = &unlisted;
  segment->handle = handle;
  segment->memory = handle->ipcMemory;
  segment->hasLeft = true;
  if (segment != &unlisted) {
    // Pinned by others, or just given up by the last of them.
    if (segment->holders.fetch_sub(1) != 1 || !segment->hasLeft.exchange(false))
      return Unmapped::later;
  }
  const bool isUnmapped = unmap(segment);
  if (isUnmapped) handle->ipcMemory = nullptr;
  if (segment == &unlisted) return isUnmapped ? Unmapped::now : Unmapped::failed;
  if (isUnmapped) {
    recycle(segment);
    return Unmapped::now;
  }
  segment->memory = nullptr;
  const TableLatch latch;
  segment->holders.fetch_add(1);
  enter(segment);
  return Unmapped::failed;
}

void forgetMapping(const ShmDomainHandle_t* handle) {
  MappedSegment* segment = nullptr;
  {
    const TableLatch latch;
    segment = ranges.ofHandle(handle);
    if (!segment) return;
    takeOut(segment);
    segment->handle = nullptr;
    segment->hasLeft = true;
  }
  letGo(segment);
}

bool publishAttachment(const ShmDomainHandle_t* handle, const PublishedAttachment& attachment) {
  const TableLatch latch;
  MappedSegment* segment = handle ? ranges.ofHandle(handle) : nullptr;
  if (!segment || segment->attachment) return false;
  const Change change;
  segment->attachment = attachment.record;
  segment->attachCount = attachment.count;
  segment->key = attachment.key;
  segment->byWalk = attachment.byWalk;
  segment->undecidedBy = attachment.undecidedBy;
  byRecord.insert(segment);
  if (attachment.key == 0) {
    inSlot = segment;
    return true;
  }
  MappedSegment* first = byKey.find(attachment.key);
  if (!first) {
    byKey.insert(segment);
  } else if (segment->writable && !first->writable) {
    segment->behind = first;
    byKey.replace(first, segment);
  } else {
    first->behind = segment;
  }
  return true;
}

void decideAttachment(const ShmSegInfo_t* record, bool byWalk) {
  const TableLatch latch;
  MappedSegment* segment = byRecord.find(const_cast<ShmSegInfo_t*>(record));
  if (!segment) return;
  segment->byWalk = byWalk;
  segment->undecidedBy = nullptr;
}

void hideAttachment(const ShmSegInfo_t* record) {
  const TableLatch latch;
  if (MappedSegment* segment = byRecord.find(const_cast<ShmSegInfo_t*>(record))) hide(segment);
}

void hideAllAttachments() {
  const TableLatch latch;
  for (MappedSegment* segment = made; segment; segment = segment->nextMade) hide(segment);
}

bool freeWithLastPin(const void* address, void* block) {
  const TableLatch latch;
  MappedSegment* segment = entryAround(address);
  if (!segment) return false;
  if (segment->holders.load() < 2) return false;
  BlockToFree* later = nullptr;
  if (obtain(&later)) return true;  // lost: a block is still looked at, and nobody could free it
  *later = {segment->blocks, block};
  segment->blocks = later;
  return true;
}

void takeFromLastPin(const void* address, void* block) {
  const TableLatch latch;
  MappedSegment* segment = entryAround(address);
  if (!segment) return;
  BlockToFree** link = &segment->blocks;
  while (*link && (*link)->block != block) link = &(*link)->next;
  BlockToFree* found = *link;
  if (!found) return;
  *link = found->next;
  release(&found);
}

}  // namespace trel
