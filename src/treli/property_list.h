// A property section as an operation sees it, and what all its forms share.
//
// What the section says about itself is read once, tested, and kept in a List. Whatever an
// operation reaches by an offset found in the section is tested against that List, start and end,
// before it is touched; so damaged bytes yield a code and never lead outside the section.
#pragma once

#include "treli/identifier.h"
#include "treli/property_kind.h"
#include "treli/section.h"
#include "trelshm/store.h"

namespace trel {

// What names a property, and what is written to it. Each kind uses its part.
struct Key {
  uint64_t tag = 0;
  uint64_t idSize = 0;
  const uint8_t* id = nullptr;
};

struct Value {
  int32_t number = 0;
  uint64_t size = 1;
  const uint8_t* bytes = nullptr;
};

// A caller may give a value or identifier that lies where it is to be stored.
inline void copyBytes(void* to, const void* from, uint64_t bytes) {
  if (bytes) memmove(to, from, static_cast<size_t>(bytes));
}

// at() would lose the attributes of the type.
inline TrelU64* wordAt(const void* base, uint64_t offset) { return at<uint64_t>(base, offset); }

template <class K>
struct List {
  using Kind = K;
  using Record = typename K::Record;

  SNodeCB_t* node = nullptr;
  ExportSlot_t* slot = nullptr;
  uint64_t offset = 0, size = 0;  // of the section
  uint64_t maxIdSize = 0;         // D; 0 in kinds without
  uint64_t maxValueSize = 0;      // M; 0 in kinds without
  uint64_t tables[3] = {};        // sizes; in flat form 0
  bool created = false;           // if not: a flat list without room

  bool hashed() const { return tables[0] != 0; }
  uint64_t recordBytes() const { return sizeof(Record) + maxIdSize + maxValueSize; }
  uint64_t nodeBytes() const { return sizeof(typename K::Links) + recordBytes(); }
  uint64_t bucketBytes() const { return 8 * (tables[0] + tables[1] + tables[2]); }

  // Whether `bytes` bytes at an offset from the node's start lie in the section.
  bool holds(uint64_t from, uint64_t bytes) const {
    const uint64_t position = from - offset;
    return position <= size && size - position >= bytes;
  }
  Record* recordAt(uint64_t from) const { return at<Record>(node, from); }
  uint8_t* idOf(Record* record) const { return at<uint8_t>(record, sizeof(Record)); }
  uint8_t* valueOf(Record* record) const { return at<uint8_t>(record, sizeof(Record) + maxIdSize); }
};

// Reads D and M. A kind, node or section without any gives 0.
template <class K>
TREL_INLINE uint32_t readLimits(SNodeCB_t* node, uint64_t* maxIdSize, uint64_t* maxValueSize) {
  *maxIdSize = *maxValueSize = 0;
  if constexpr (K::hasId || K::hasBytes) {
    if (!(node->exports & K::bit)) return 0;
    ExportSlot_t* slot = nullptr;
    if (const uint32_t rc = sectionOf(node, K::bit, &slot)) return rc;
    if ((K::base ? slot->size : slot->used) < Form<K>::flatHeader) return 0;
    const TrelU64* word = inSection<TrelU64>(node, slot);
    if constexpr (K::hasId) *maxIdSize = *word++;
    if constexpr (K::hasBytes) *maxValueSize = *word;
    if (K::hasId && *maxIdSize > TREL_MAX_ID_SIZE) return TREL_RC_PROPERTY_ID_MAX;
    if (K::hasBytes && !K::base && (*maxValueSize == 0 || *maxValueSize > TREL_MAX_VALUE_SIZE))
      return TREL_RC_VALUE_MAX;
  }
  return 0;
}

template <class K>
TREL_INLINE uint32_t readLimits(List<K>* list) {
  return readLimits<K>(list->node, &list->maxIdSize, &list->maxValueSize);
}

constexpr bool isValueSize(uint64_t size, uint64_t maxValueSize) {
  return size == 1 || (size != 0 && size <= maxValueSize);
}

template <class K>
TREL_INLINE uint32_t checkSizes(const List<K>& list, const Key& key, uint64_t valueSize) {
  if (K::hasId && key.idSize > list.maxIdSize) return TREL_RC_PROPERTY_ID_SIZE;
  return K::hasBytes && !isValueSize(valueSize, list.maxValueSize) ? uint32_t{TREL_RC_VALUE_SIZE}
                                                                   : 0;
}

// The tests that all operations by key begin with. Reads D and M into the list.
template <class K>
TREL_INLINE uint32_t checkInput(SNodeCB_t* node, const Key& key, uint64_t valueSize,
                                List<K>* list) {
  if (!node) return TREL_RC_NODE_NULL;
  if (key.tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  list->node = node;
  if (const uint32_t rc = readLimits(list)) return rc;
  if (const uint32_t rc = checkSizes(*list, key, valueSize)) return rc;
  return K::hasId && !key.id ? uint32_t{TREL_RC_ID_NULL} : 0;
}

constexpr bool isTableSize(uint64_t tableSize, uint64_t sectionSize) {
  return tableSize <= TREL_MAX_TABLE_SIZE && tableSize <= sectionSize;
}

// Reads the table sizes. *sizes[1] and [2] are left alone unless the list has three tables.
template <class K>
TREL_INLINE uint32_t readTableSizes(SNodeCB_t* node, const ExportSlot_t* slot,
                                    uint64_t* const (&sizes)[3]) {
  *sizes[0] = 0;
  if (slot->used < Form<K>::flatHeader) return 0;
  const uint64_t bytes = slot->size;
  const TrelU64* word = inSection<TrelU64>(node, slot, 8 * Form<K>::limits);
  *sizes[0] = word[0];
  if (!isTableSize(*sizes[0], bytes)) return TREL_RC_TABLE_SIZE;
  if (Form<K>::tables == 3 && *sizes[0] != 0) {
    if (bytes < Form<K>::hashHeader) return TREL_RC_TABLE_SIZE;
    *sizes[1] = word[1];
    *sizes[2] = word[2];
    if (!isTableSize(*sizes[1], bytes) || !isTableSize(*sizes[2], bytes)) return TREL_RC_TABLE_SIZE;
  }
  return 0;
}

// Looks the section up; D and M are in the list already. Base kinds end here.
template <class K>
TREL_INLINE uint32_t openSection(List<K>* list) {
  if (const uint32_t rc = sectionOf(list->node, K::bit, &list->slot)) return rc;
  list->offset = list->slot->offset;
  list->size = list->slot->size;
  return 0;
}

// The same, and the table sizes. A list in hash form has tables that fit the section.
template <class K>
TREL_INLINE uint32_t openList(List<K>* list) {
  if (const uint32_t rc = openSection(list)) return rc;
  list->created = list->slot->used >= Form<K>::flatHeader &&
                  (Form<K>::limits == 0 || (list->node->exports & K::bit));
  if (!list->created) return 0;
  uint64_t* const sizes[3] = {&list->tables[0], &list->tables[1], &list->tables[2]};
  if (const uint32_t rc = readTableSizes<K>(list->node, list->slot, sizes)) return rc;
  if (!list->hashed()) return 0;
  for (uint32_t i = 1; i < Form<K>::tables; ++i)
    if (list->tables[i] == 0) return TREL_RC_TABLE_SIZE;
  return Form<K>::hashHeader + list->bucketBytes() + sizeof(HashAnchor_t) > list->size
             ? uint32_t{TREL_RC_TABLE_SIZE}
             : 0;
}

// What a section says about itself changes when its list is made anew, and that may happen while
// the caller waits for the section. Whether it is still as it was read.
template <class K>
TREL_INLINE bool isAsRead(const List<K>& list) {
  const TrelU64* word = wordAt(list.node, list.offset);
  if constexpr (K::base) {
    return !K::hasBytes || list.size < Form<K>::flatHeader || *word == list.maxValueSize;
  } else {
    if ((list.slot->used >= Form<K>::flatHeader) != list.created) return false;
    if (!list.created) return true;
    if (K::hasId && *word++ != list.maxIdSize) return false;
    if (K::hasBytes && *word++ != list.maxValueSize) return false;
    if (*word != list.tables[0]) return false;
    return Form<K>::tables != 3 || !list.hashed() ||
           (word[1] == list.tables[1] && word[2] == list.tables[2]);
  }
}

template <class K>
__attribute__((noinline)) uint32_t openAgain(SNodeCB_t* node, List<K>* fresh) {
  fresh->node = node;
  if (const uint32_t rc = readLimits(fresh)) return rc;
  if constexpr (K::base) {
    return openSection(fresh);
  } else {
    return openList(fresh);
  }
}

// For those who are inside now: the list as it is.
template <class K>
TREL_INLINE uint32_t confirm(List<K>* list) {
  if (TREL_LIKELY(isAsRead(*list))) return 0;
  SNodeCB_t* const node = list->node;
  *list = List<K>();
  return openAgain(node, list);
}
template <class K>
TREL_INLINE uint32_t confirm(List<K>* list, const Key& key, uint64_t valueSize) {
  if (TREL_LIKELY(isAsRead(*list))) return 0;
  const uint32_t rc = confirm(list);
  return rc ? rc : checkSizes(*list, key, valueSize);
}

// Orders a stored record against a key: *order is negative if the record comes first. Tests what
// the record says of its identifier.
template <class K>
TREL_INLINE uint32_t compareRecord(const List<K>& list, typename K::Record* record, const Key& key,
                                   int* order) {
  const uint64_t tag = record->tag;
  if constexpr (K::hasId) {
    const uint64_t idOffset = record->idOffset, idSize = record->idSize;
    if (!list.holds(idOffset, 0)) return TREL_RC_ID_BOUNDS;
    if (tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
    if (idSize > TREL_MAX_ID_SIZE) return TREL_RC_COMPARE_ID_SIZE;
    if (!list.holds(idOffset, idSize)) return TREL_RC_ID_BOUNDS;
    *order =
        compareNames(tag, at<uint8_t>(list.node, idOffset), idSize, key.tag, key.id, key.idSize);
  } else {
    *order = tag < key.tag ? -1 : tag > key.tag;
  }
  return 0;
}

// Writes a record that nobody reaches yet, in a flat list because its tag is 0. The tag comes last.
// What can fail, the latch area, comes first.
template <class K>
uint32_t fill(const List<K>& list, typename K::Record* record, const Key& key, const Value& value) {
  const uint64_t offset = offsetOf(record, list.node);
  if constexpr (K::hasId || K::hasBytes) {
    if (const uint32_t rc = initialiseLatches(list.node, &record->propertyLatchArea,
                                              list.node->nodeLatchArea.latchVersion))
      return rc;
  }
  record->rc = 0;
  if constexpr (K::hasId) {
    record->idOffset = offset + sizeof *record;
    record->idSize = key.idSize;
    copyBytes(list.idOf(record), key.id, key.idSize);
  }
  if constexpr (K::hasBytes) {
    record->valueOffset = offset + sizeof *record + list.maxIdSize;
    record->valueSize = value.size;
    copyBytes(list.valueOf(record), value.bytes, value.size);
  } else {
    PLATVAtomicSigned32::init(&record->value, value.number, 1);
  }
  storeLast(&record->tag, key.tag);
  return 0;
}

// Begins a new list: D, M and as many table sizes as there are. While used is 0 nothing counts.
template <class K>
void writeHeader(const List<K>& list) {
  storeLast(&list.slot->used, 0);
  TrelU64* word = inSection<TrelU64>(list.node, list.slot);
  if (K::hasId) *word++ = list.maxIdSize;
  if (K::hasBytes) *word++ = list.maxValueSize;
  for (uint32_t i = 0; i < (list.hashed() ? Form<K>::tables : 1); ++i) *word++ = list.tables[i];
}

// What the caller of a create passes: arrays of `count` entries. Identifiers are packed, values lie
// M apart.
struct Entries {
  uint64_t count;
  const uint64_t* tags;
  const int32_t* numbers;
  const uint64_t* idSizes;
  const uint8_t* ids;
  const uint64_t* sizes;
  const uint8_t* values;
};

// visit(key, value) for each, up to the first failure.
template <class K, class Visit>
uint32_t forEachEntry(const Entries& entries, uint64_t maxValueSize, Visit&& visit) {
  const uint8_t* id = entries.ids;
  for (uint64_t i = 0; i < entries.count; ++i) {
    Key key{entries.tags[i]};
    Value value;
    if constexpr (K::hasId) key = {entries.tags[i], entries.idSizes[i], id};
    if constexpr (K::hasBytes)
      value = {0, entries.sizes[i], entries.values + i * maxValueSize};
    else
      value.number = entries.numbers[i];
    if (const uint32_t rc = visit(key, value)) return rc;
    id += key.idSize;
  }
  return 0;
}

}  // namespace trel
