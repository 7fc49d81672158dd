// A property section as an operation sees it, and what all its forms share.
//
// What the section says about itself is read once, inside, tested, and kept in a List: a list can
// be created again whenever nobody holds the node. Whatever an operation reaches by an offset found
// in the section is tested against that List, start and end, before it is touched; so damaged bytes
// yield a code and never lead outside the section.
#pragma once

#include "treli/identifier.h"
#include "treli/node_lock.h"
#include "treli/property_kind.h"

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
struct List : Section {
  using Kind = K;
  using Record = typename K::Record;

  uint32_t fault = 0;         // of the slot's lookup; it counts where the section is needed
  bool exported = false;      // the node's exports name the section
  bool created = false;       // if not: a flat list without room
  uint64_t maxIdSize = 0;     // D; 0 in kinds without
  uint64_t maxValueSize = 0;  // M; 0 in kinds without
  uint64_t tables[3] = {};    // sizes; in flat form 0

  bool hashed() const { return tables[0] != 0; }
  uint64_t recordBytes() const { return sizeof(Record) + maxIdSize + maxValueSize; }
  uint64_t nodeBytes() const { return sizeof(typename K::Links) + recordBytes(); }
  uint64_t bucketBytes() const { return 8 * (tables[0] + tables[1] + tables[2]); }

  Record* recordAt(uint64_t from) const { return trel::at<Record>(node, from); }
  TrelU64* word(uint64_t from) const { return wordAt(node, from); }
  uint8_t* idOf(Record* record) const { return trel::at<uint8_t>(record, sizeof(Record)); }
  uint8_t* valueOf(Record* record) const {
    return trel::at<uint8_t>(record, sizeof(Record) + maxIdSize);
  }
  void setUsed(uint64_t bytes) { storeUsed(this, K::bit, bytes); }
};

// Looks the section up, and reads D and M. A kind, node or section without any gives 0.
template <class K>
TREL_INLINE uint32_t openLimits(SNodeCB_t* node, List<K>* list) {
  list->fault = openSection(node, K::bit, list);
  list->node = node;
  if constexpr (K::hasId || K::hasBytes) {
    list->exported = once(node->exports) & K::bit;
    if (!list->exported) return 0;
    if (list->fault) return list->fault;
    if ((K::base ? list->size : list->used) < Form<K>::flatHeader) return 0;
    const TrelU64* word = list->word(list->offset);
    if constexpr (K::hasId) list->maxIdSize = once(*word++);
    if constexpr (K::hasBytes) list->maxValueSize = once(*word);
    if (K::hasId && list->maxIdSize > TREL_MAX_ID_SIZE) return TREL_RC_PROPERTY_ID_MAX;
    if (K::hasBytes && !K::base &&
        (list->maxValueSize == 0 || list->maxValueSize > TREL_MAX_VALUE_SIZE))
      return TREL_RC_VALUE_MAX;
  }
  return 0;
}

constexpr bool isTableSize(uint64_t tableSize, uint64_t sectionSize) {
  return tableSize <= TREL_MAX_TABLE_SIZE && tableSize <= sectionSize;
}

// Reads the table sizes. The second and third are left alone unless the list has three tables.
template <class K>
TREL_INLINE uint32_t readTableSizes(List<K>* list) {
  if (list->used < Form<K>::flatHeader) return 0;
  const TrelU64* word = list->word(list->offset + 8 * Form<K>::limits);
  for (uint32_t i = 0; i < Form<K>::tables; ++i) {
    if (i && list->size < Form<K>::hashHeader) return TREL_RC_TABLE_SIZE;
    list->tables[i] = once(word[i]);
    if (!isTableSize(list->tables[i], list->size)) return TREL_RC_TABLE_SIZE;
    if (list->tables[0] == 0) break;
  }
  return 0;
}

// The rest of what a list says of itself. A list in hash form has tables that fit the section.
template <class K>
TREL_INLINE uint32_t openTables(List<K>* list) {
  if (TREL_UNLIKELY(list->fault)) return list->fault;
  list->created = list->used >= Form<K>::flatHeader && (Form<K>::limits == 0 || list->exported);
  if (!list->created) return 0;
  if (const uint32_t rc = readTableSizes(list)) return rc;
  if (!list->hashed()) return 0;
  for (uint32_t i = 1; i < Form<K>::tables; ++i)
    if (list->tables[i] == 0) return TREL_RC_TABLE_SIZE;
  return Form<K>::hashHeader + list->bucketBytes() + sizeof(HashAnchor_t) > list->size
             ? uint32_t{TREL_RC_TABLE_SIZE}
             : 0;
}

template <class K>
TREL_INLINE uint32_t openList(SNodeCB_t* node, List<K>* list) {
  const uint32_t rc = openLimits(node, list);
  return rc ? rc : openTables(list);
}

constexpr bool isValueSize(uint64_t size, uint64_t maxValueSize) {
  return size == 1 || (size != 0 && size <= maxValueSize);
}

template <class K>
TREL_INLINE uint32_t checkKey(const List<K>& list, const Key& key, uint64_t valueSize) {
  if (key.tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (K::hasId && key.idSize > list.maxIdSize) return TREL_RC_PROPERTY_ID_SIZE;
  if (K::hasBytes && !isValueSize(valueSize, list.maxValueSize)) return TREL_RC_VALUE_SIZE;
  return K::hasId && !key.id ? uint32_t{TREL_RC_ID_NULL} : 0;
}

// The tests that all operations by key begin with, on a node that is not null. The caller is
// inside.
template <class K>
TREL_INLINE uint32_t openForKey(SNodeCB_t* node, const Key& key, uint64_t valueSize,
                                List<K>* list) {
  if (key.tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  const uint32_t rc = openLimits(node, list);
  return rc ? rc : checkKey(*list, key, valueSize);
}

// Orders a stored record against a key: *order is negative if the record comes first. Tests what
// the record says of its identifier.
template <class K>
TREL_INLINE uint32_t compareRecord(const List<K>& list, const typename K::Record* record,
                                   const Key& key, int* order) {
  const uint64_t tag = once(record->tag);
  if constexpr (K::hasId) {
    const uint64_t idOffset = once(record->idOffset), idSize = once(record->idSize);
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
void writeHeader(List<K>* list) {
  list->setUsed(0);
  TrelU64* word = list->word(list->offset);
  if (K::hasId) *word++ = list->maxIdSize;
  if (K::hasBytes) *word++ = list->maxValueSize;
  for (uint32_t i = 0; i < (list->hashed() ? Form<K>::tables : 1); ++i) *word++ = list->tables[i];
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
