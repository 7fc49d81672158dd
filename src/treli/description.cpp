#include "treli/description.h"

#include <string.h>

#include "trelshm/allocator.h"
#include "trelshm/heap_latch.h"
#include "trelshm/process_memory.h"
#include "trelshm/store.h"

namespace trel {
namespace {

constexpr uint32_t kFirstSize = 4096;  // of a description's first block
// Of a block. Entries take 48 bytes and more, so the index is never full.
constexpr uint32_t kBytesPerIndexWord = 32;
constexpr int kMostLooks = 1000;  // at a record that is being written

uint32_t roundUp8(uint32_t value) { return (value + 7) & ~7u; }

uint32_t hashOf(const DescriptionKey& key) {
  uint64_t hash = (key.nodeTag << 32 ^ key.propertyTag << 13 ^ key.exportBit) * 0x9e3779b97f4a7c15;
  hash = (hash ^ hash >> 32 ^ key.offset) * 0x9e3779b97f4a7c15;
  return static_cast<uint32_t>(hash >> 32);
}

// The block is aligned, so its 64-bit words change at once, in 32-bit processes too.
uint64_t* beatOf(const PublisherRecord_t* record) {
  return at<uint64_t>(record, offsetof(PublisherRecord_t, lastBeat));
}
uint64_t loadBeat(const PublisherRecord_t* record) {
  return __atomic_load_n(beatOf(record), __ATOMIC_ACQUIRE);
}

template <class Text>
uint32_t lengthOf(const Text& text) {
  return static_cast<uint32_t>(strnlen(text, sizeof text - 1));
}

// ---- Items and entries ----

uint32_t itemSize(uint32_t texts) {
  return roundUp8(static_cast<uint32_t>(sizeof(DescriptionItem_t)) + texts);
}
uint32_t itemSize(const TrelDescription_t& d) {
  return itemSize(lengthOf(d.name) + lengthOf(d.unit) + lengthOf(d.help));
}

uint32_t entrySizeOf(const TrelDescription_t& d, const TrelDescription_t* fields) {
  uint32_t size = static_cast<uint32_t>(sizeof(DescriptionEntry_t)) + itemSize(d);
  for (uint32_t i = 0; i < d.fieldCount; ++i) size += itemSize(fields[i]);
  return size;
}

uint8_t* encodeItem(const TrelDescription_t& d, uint8_t* to) {
  DescriptionItem_t item = {};
  item.offset = d.offset;
  item.valueSize = d.size;
  item.valueType = static_cast<uint8_t>(d.valueType);
  item.valueKind = static_cast<uint8_t>(d.valueKind);
  item.nameSize = static_cast<uint8_t>(lengthOf(d.name));
  item.unitSize = static_cast<uint8_t>(lengthOf(d.unit));
  item.helpSize = static_cast<uint8_t>(lengthOf(d.help));
  memset(to, 0, itemSize(d));
  memcpy(to, &item, sizeof item);
  uint8_t* text = to + sizeof item;
  memcpy(text, d.name, item.nameSize);
  memcpy(text + item.nameSize, d.unit, item.unitSize);
  memcpy(text + item.nameSize + item.unitSize, d.help, item.helpSize);
  return to + itemSize(d);
}

void encodeEntry(const TrelDescription_t& d, const TrelDescription_t* fields, uint32_t size,
                 uint8_t* to) {
  const DescriptionEntry_t entry = {size,        static_cast<uint32_t>(d.nodeTag),
                                    d.exportBit, static_cast<uint32_t>(d.propertyTag),
                                    d.offset,    d.fieldCount};
  memcpy(to, &entry, sizeof entry);
  to = encodeItem(d, to + sizeof entry);
  for (uint32_t i = 0; i < d.fieldCount; ++i) to = encodeItem(fields[i], to);
}

template <class Text>
bool takeText(const uint8_t** from, uint32_t size, Text* text) {
  if (size >= sizeof *text) return false;
  memcpy(*text, *from, size);
  (*text)[size] = 0;
  *from += size;
  return true;
}

// Takes the item between two addresses apart. False if it does not lie there.
bool decodeItem(const uint8_t** from, const uint8_t* end, TrelDescription_t* d) {
  if (end - *from < static_cast<ptrdiff_t>(sizeof(DescriptionItem_t))) return false;
  DescriptionItem_t item;
  memcpy(&item, *from, sizeof item);
  const uint32_t size = itemSize(uint32_t{item.nameSize} + item.unitSize + item.helpSize);
  if (end - *from < static_cast<ptrdiff_t>(size)) return false;
  const uint8_t* text = *from + sizeof item;
  d->offset = item.offset;
  d->size = item.valueSize;
  d->valueType = item.valueType;
  d->valueKind = item.valueKind;
  *from += size;
  return takeText(&text, item.nameSize, &d->name) && takeText(&text, item.unitSize, &d->unit) &&
         takeText(&text, item.helpSize, &d->help);
}

// ---- Writing ----

// A segment's description for those who hold the domain's heapLatch.
class Writer {
 public:
  Writer(const Heap& domain, ShmPoolHandle_t* pool)
      : domain_(domain), anchor_(domain.description()), pool_(pool) {}

  uint32_t add(const TrelDescription_t& description, const TrelDescription_t* fields);
  uint32_t addAll(const uint8_t* entries, uint32_t size);
  uint32_t makePublisher(PublisherRecord_t** record);

 private:
  uint32_t open();
  uint32_t checkClash(const TrelDescription_t& d, const uint8_t* entry, uint32_t size, bool* same);
  uint32_t append(const uint8_t* entry, uint32_t size);
  uint32_t grow(uint32_t more);
  uint32_t make(uint32_t size, void** block);
  void link(TrelU64* place, const void* block);
  void drop(TrelU64* place);
  TrelU64* current() const { return &anchor_->place[anchor_->generation & 1]; }
  TrelU64* other() const { return &anchor_->place[~anchor_->generation & 1]; }
  void indexEntry(uint32_t position);

  const Heap& domain_;
  DescriptionAnchor_t* anchor_;
  ShmPoolHandle_t* pool_;
  DescriptionView view_;
  bool exists_ = false;
};

uint32_t Writer::open() {
  if (*other()) drop(other());
  const uint64_t block = *current();
  exists_ = block != 0;
  return exists_ && !view_.open(domain_, block) ? uint32_t{TREL_RC_DESCRIPTION_DAMAGED} : 0;
}

// A block of the pool, named by the domain's intent until link().
uint32_t Writer::make(uint32_t size, void** block) {
  HeapIntent_t* intent = domain_.intent();
  intent->listPool = pool_->poolOffset;
  return allocateBlock(block, pool_, size, 0, {FID_trelDescribe, __LINE__, kModuleName},
                       &intent->listNode);
}

void Writer::link(TrelU64* place, const void* block) {
  storeLast(place, offsetOf(block, domain_.base()));
  storeLast(&domain_.intent()->listNode, 0);
}

// Gives the block of a place back. One that cannot be freed stays allocated.
void Writer::drop(TrelU64* place) {
  HeapIntent_t* intent = domain_.intent();
  void* block = domain_.at<void>(*place);
  intent->listPool = pool_->poolOffset;
  storeLast(&intent->listNode, *place);
  storeLast(place, 0);
  freeBlock(&block, pool_, {FID_trelDescribe, __LINE__, kModuleName}, &intent->listNode);
  storeLast(&intent->listNode, 0);
}

void Writer::indexEntry(uint32_t position) {
  TrelU32* const index = view_.index();
  const uint32_t mask = view_.indexSize() - 1;
  uint32_t place = hashOf(DescriptionKey::of(*view_.entryAt(position))) & mask;
  for (uint32_t i = 0; i < mask && once(index[place]) != 0; ++i) place = (place + 1) & mask;
  storeLast(&index[place], position);
}

uint32_t Writer::grow(uint32_t more) {
  const uint32_t used = exists_ ? view_.used() : 0;
  uint64_t size = kFirstSize, indexSize = 0;
  do {
    size *= 2;
    indexSize = size / kBytesPerIndexWord;
  } while (size - sizeof(DescriptionBlock_t) - 4 * indexSize < uint64_t{used} + more);
  if (size > TREL_MAX_SECTION_SIZE) return TREL_RC_DESCRIPTION_SIZE;
  void* block = nullptr;
  if (const uint32_t rc = make(static_cast<uint32_t>(size), &block)) return rc;
  memset(block, 0, size);
  *static_cast<DescriptionBlock_t*>(block) = {TREL_DESCRIPTION_MARK, static_cast<uint32_t>(size),
                                              static_cast<uint32_t>(indexSize), used};
  link(other(), block);
  const DescriptionView old = view_;
  if (!view_.open(domain_, offsetOf(block, domain_.base())) || view_.used() != used)
    return TREL_RC_DESCRIPTION_DAMAGED;
  if (used) memcpy(at<void>(block, view_.first()), at<void>(old.block(), old.first()), used);
  view_.forEach([&](uint32_t position, uint32_t) {
    indexEntry(position);
    return true;
  });
  storeLast(&anchor_->generation, anchor_->generation + 1);
  if (exists_) drop(other());
  exists_ = true;
  return 0;
}

uint32_t Writer::append(const uint8_t* entry, uint32_t size) {
  if (!exists_ || view_.room() < size)
    if (const uint32_t rc = grow(size)) return rc;
  if (view_.room() < size) return TREL_RC_DESCRIPTION_DAMAGED;
  const uint32_t position = view_.first() + view_.used();
  memcpy(at<void>(view_.block(), position), entry, size);
  storeLast(&view_.block()->used, view_.used() + size);
  indexEntry(position);
  return 0;
}

// Whether another entry stands in the way, or this very one is there. One that a dead writer left
// without its word in the index gets it here.
uint32_t Writer::checkClash(const TrelDescription_t& d, const uint8_t* entry, uint32_t size,
                            bool* same) {
  uint32_t rc = 0;
  if (exists_) {
    view_.forEach([&](uint32_t position, uint32_t presentSize) {
      const DescriptionEntry_t* present = view_.entryAt(position);
      const bool isType = present->exportBit == 0;
      if (DescriptionKey::of(*present) == DescriptionKey::of(d)) {
        *same = presentSize == size && memcmp(present, entry, size) == 0;
        if (!*same) rc = TREL_RC_DESCRIPTION_CLASH;
        if (view_.find(DescriptionKey::of(d)) == 0) indexEntry(position);
        return false;
      }
      if (isType != (d.exportBit == 0) || (!isType && present->nodeTag != d.nodeTag)) return true;
      const auto* item = at<DescriptionItem_t>(present, sizeof *present);
      const uint32_t length = lengthOf(d.name);
      if (presentSize - sizeof *present - sizeof *item >= length && item->nameSize == length &&
          memcmp(item + 1, d.name, length) == 0)
        rc = TREL_RC_DESCRIPTION_CLASH;
      return rc == 0;
    });
  }
  return rc;
}

uint32_t Writer::add(const TrelDescription_t& description, const TrelDescription_t* fields) {
  if (const uint32_t rc = open()) return rc;
  const uint32_t size = entrySizeOf(description, fields);
  uint8_t* entry = nullptr;
  if (obtain(&entry, size)) return TREL_RC_ID_NO_MEMORY;
  encodeEntry(description, fields, size, entry);
  bool same = false;
  uint32_t rc = checkClash(description, entry, size, &same);
  if (rc == 0 && !same) rc = append(entry, size);
  release(&entry);
  return rc;
}

uint32_t Writer::addAll(const uint8_t* entries, uint32_t size) {
  if (const uint32_t rc = open()) return rc;
  if (exists_ || size == 0) return 0;
  if (const uint32_t rc = grow(size)) return rc;
  for (uint32_t position = 0; position < size;) {
    const uint32_t one = at<DescriptionEntry_t>(entries, position)->size;
    if (const uint32_t rc = append(entries + position, one)) return rc;
    if (!view_.open(domain_, *current())) return TREL_RC_DESCRIPTION_DAMAGED;
    position += one;
  }
  return 0;
}

uint32_t Writer::makePublisher(PublisherRecord_t** record) {
  void* block = nullptr;
  if (const uint32_t rc = make(sizeof **record, &block)) return rc;
  *record = static_cast<PublisherRecord_t*>(block);
  memset(block, 0, sizeof **record);
  (*record)->mark = TREL_PUBLISHER_MARK;
  link(&anchor_->publisher, block);
  return 0;
}

// Runs work(Writer&) on the description of a segment, inside the domain's heapLatch.
template <class Work>
uint32_t writing(ShmSegInfo_t* segment, Work&& work) {
  Heap domain(segment->shmDomainHandle->base, segment->shmDomainHandle->heapOffset, kDomainKind);
  if (const uint32_t rc = checkHeap(domain)) return rc;
  if (const uint32_t rc = domain.openHeader()) return rc;
  return insideHeap(&domain, [&]() -> uint32_t {
    Writer writer(domain, segment->shmPoolHandle);
    return work(writer);
  });
}

}  // namespace

// ---- Reading ----

bool DescriptionView::open(const Heap& domain, uint64_t offset) {
  const uint64_t end = domain.end();
  if (!isAligned8(offset) || offset < domain.listOffset() || offset > end ||
      end - offset < sizeof(DescriptionBlock_t))
    return false;
  block_ = domain.at<DescriptionBlock_t>(offset);
  size_ = once(block_->size);
  indexSize_ = once(block_->indexSize);
  used_ = once(block_->used);
  __atomic_thread_fence(__ATOMIC_ACQUIRE);  // what is counted stands
  const uint64_t index = sizeof *block_ + uint64_t{4} * indexSize_;
  return block_->mark == TREL_DESCRIPTION_MARK && size_ <= end - offset && index <= size_ &&
         indexSize_ != 0 && (indexSize_ & (indexSize_ - 1)) == 0 && used_ <= size_ - index;
}

uint32_t DescriptionView::entrySize(uint32_t position) const {
  constexpr uint32_t kLeast = sizeof(DescriptionEntry_t) + sizeof(DescriptionItem_t);
  const uint32_t end = first() + used_;
  if (position < first() || position > end || end - position < kLeast) return 0;
  const uint32_t size = once(entryAt(position)->size);
  return size >= kLeast && (size & 7) == 0 && size <= end - position ? size : 0;
}

uint32_t DescriptionView::find(const DescriptionKey& key) const {
  const uint32_t mask = indexSize_ - 1;
  uint32_t place = hashOf(key) & mask;
  for (uint32_t i = 0; i < indexSize_; ++i, place = (place + 1) & mask) {
    const uint32_t position = once(index()[place]);
    if (position == 0) return 0;
    if (entrySize(position) && DescriptionKey::of(*entryAt(position)) == key) return position;
  }
  return 0;
}

bool DescriptionView::decode(uint32_t position, TrelDescription_t* description,
                             TrelDescription_t* fields, uint32_t length) const {
  const uint32_t size = entrySize(position);
  if (size == 0) return false;
  DescriptionEntry_t entry;
  memcpy(&entry, entryAt(position), sizeof entry);
  const auto* from = at<const uint8_t>(entryAt(position), sizeof entry);
  const uint8_t* const end = at<const uint8_t>(entryAt(position), size);
  const auto take = [&](TrelDescription_t* d) {
    *d = {};
    d->nodeTag = entry.nodeTag;
    d->exportBit = entry.exportBit;
    d->propertyTag = entry.propertyTag;
    return decodeItem(&from, end, d);
  };
  if (!take(description) || entry.fieldCount > TREL_MAX_FIELDS) return false;
  description->fieldCount = entry.fieldCount;
  for (uint32_t i = 0; i < entry.fieldCount && i < length; ++i)
    if (!take(&fields[i])) return false;
  return true;
}

uint32_t addDescription(ShmSegInfo_t* segment, const TrelDescription_t& description,
                        const TrelDescription_t* fields) {
  return writing(segment, [&](Writer& writer) { return writer.add(description, fields); });
}

PublisherRecord_t* publisherOf(const ShmSegInfo_t* segment) {
  Heap domain(segment->shmDomainHandle->base, segment->shmDomainHandle->heapOffset, kDomainKind);
  if (domain.openHeader()) return nullptr;
  const uint64_t offset = once(domain.description()->publisher);
  if (!isAligned8(offset) || offset < domain.listOffset() || offset > domain.end() ||
      domain.end() - offset < sizeof(PublisherRecord_t))
    return nullptr;
  auto* record = domain.at<PublisherRecord_t>(offset);
  return record->mark == TREL_PUBLISHER_MARK ? record : nullptr;
}

// A beat changes alone, so it is read once and needs no agreement with the rest.
uint32_t readPublisher(const ShmSegInfo_t* segment, PublisherRecord_t* record) {
  const PublisherRecord_t* shared = publisherOf(segment);
  if (!shared) return TREL_RC_NOT_DESCRIBED;
  for (int i = 0; i < kMostLooks; ++i) {
    const uint32_t before = shared->changing;
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    memcpy(record, shared, sizeof *record);
    record->lastBeat = loadBeat(shared);
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    if (!(before & 1) && shared->changing == before) return 0;
  }
  return TREL_RC_DESCRIPTION_DAMAGED;
}

uint32_t changePublisher(ShmSegInfo_t* segment, const PublisherRecord_t& wanted) {
  return writing(segment, [&](Writer& writer) -> uint32_t {
    PublisherRecord_t* record = publisherOf(segment);
    if (!record)
      if (const uint32_t rc = writer.makePublisher(&record)) return rc;
    const uint32_t changing = record->changing | 1;
    storeLast(&record->changing, changing);
    record->startTime = wanted.startTime;
    record->endTime = wanted.endTime;
    record->processId = wanted.processId;
    record->token = wanted.token;
    memcpy(record->program, wanted.program, sizeof record->program);
    memcpy(record->version, wanted.version, sizeof record->version);
    storeBeat(record, wanted.lastBeat);
    storeLast(&record->changing, changing + 1);
    return 0;
  });
}

void storeBeat(PublisherRecord_t* record, uint64_t time) {
  __atomic_store_n(beatOf(record), time, __ATOMIC_RELEASE);
}

uint32_t DescriptionImage::take(const ShmSegInfo_t* segment) {
  const uint32_t rc = readDescription(segment, [&](const DescriptionView& view) -> uint32_t {
    size_ = 0;
    if (view.used() > room_) {
      if (!entries_.allocate(view.used())) return TREL_RC_ID_NO_MEMORY;
      room_ = view.used();
    }
    view.forEach([&](uint32_t position, uint32_t size) {
      if (size > room_ - size_) return false;
      memcpy(&entries_[size_], view.entryAt(position), size);
      at<DescriptionEntry_t>(&entries_[size_], 0)->size = size;
      size_ += size;
      return true;
    });
    return 0;
  });
  if (rc && rc != TREL_RC_NOT_DESCRIBED) return rc;
  const uint32_t failure = readPublisher(segment, &publisher_);
  return failure == TREL_RC_NOT_DESCRIBED ? 0 : failure;
}

uint32_t DescriptionImage::give(ShmSegInfo_t* segment) const {
  if (publisher_.mark == TREL_PUBLISHER_MARK)
    if (const uint32_t rc = changePublisher(segment, publisher_)) return rc;
  return size_ == 0
             ? 0
             : writing(segment, [&](Writer& writer) { return writer.addAll(&entries_[0], size_); });
}

}  // namespace trel
