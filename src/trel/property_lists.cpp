// Lists of properties: create, add, find, delete, walk; one row for each kind.
#include "trel/property.h"
#include "treli/list_creation.h"
#include "treli/rows.h"

namespace trel {
namespace {

template <class K>
uint32_t add(SNodeCB_t* node, const Key& key, const Value& value, uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  return within<Access::write>(node, inCriticalSection, [&]() -> uint32_t {
    List<K> list;
    if (const uint32_t rc = openForKey(node, key, value.size, &list)) return rc;
    if (K::hasBytes && !value.bytes) return K::valueNull;
    if (const uint32_t rc = openTables(&list)) return rc;
    if (const uint32_t rc = checkCondition(node, accept::usable)) return rc;
    return list.hashed() ? addHashed(list, key, value) : addFlat(list, key, value);
  });
}

// Work on a list in hash form, for a caller who is inside: work(list).
template <class K, class Work>
uint32_t onHashTable(SNodeCB_t* node, const Key& key, uint64_t valueSize, uint32_t refusal,
                     Work&& work) {
  List<K> list;
  if (const uint32_t rc = openForKey(node, key, valueSize, &list)) return rc;
  if (refusal) return refusal;
  if (const uint32_t rc = openTables(&list)) return rc;
  return list.hashed() ? work(list) : uint32_t{TREL_RC_TABLE_SIZE};
}

template <class K>
uint32_t addToHashTable(SNodeCB_t* node, const Key& key, const Value& value,
                        uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  const uint32_t refusal = K::hasBytes && !value.bytes ? K::valueNull : 0;
  return within<Access::write>(node, inCriticalSection, [&] {
    return onHashTable<K>(node, key, value.size, refusal,
                          [&](List<K>& list) { return addHashed(list, key, value); });
  });
}

template <class K>
uint32_t findInHashTable(SNodeCB_t* node, const Key& key, typename K::Record** record) {
  if (!node) return TREL_RC_NODE_NULL;
  return onHashTable<K>(node, key, 1, record ? 0 : Codes<K>::recordNull, [&](List<K>& list) {
    return findHashed(list, bucketOf(list, 0, key), key, Codes<K>::absent, record);
  });
}

template <class K>
uint32_t removeFromHashTable(SNodeCB_t* node, const Key& key) {
  if (!node) return TREL_RC_NODE_NULL;
  return within<Access::write>(node, 0, [&] {
    return onHashTable<K>(node, key, 1, 0, [&](List<K>& list) { return deleteHashed(list, key); });
  });
}

template <class K>
uint32_t remove(SNodeCB_t* node, const Key& key, uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  return within<Access::write>(node, inCriticalSection, [&]() -> uint32_t {
    List<K> list;
    if (const uint32_t rc = openForKey(node, key, 1, &list)) return rc;
    if (const uint32_t rc = openTables(&list)) return rc;
    if (const uint32_t rc = checkCondition(node, accept::usable)) return rc;
    return list.hashed() ? deleteHashed(list, key) : deleteFlat(list, key);
  });
}

// The start of a flat walk, and the counts for it; none for a list that was never created.
template <class K>
uint32_t getFirst(SNodeCB_t* node, typename K::Record** record, uint64_t* count,
                  uint64_t* capacity) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!count) return Codes<K>::countNull;
  if (!capacity) return Codes<K>::capacityNull;
  if (!record) return Codes<K>::recordNull;
  List<K> list;
  if (const uint32_t rc = openLimits(node, &list)) return rc;
  if (list.fault) return list.fault;
  list.created = list.used >= Form<K>::flatHeader;
  const bool counts = list.created && !reportsNothing(list);
  *count = counts ? occupiedRecords(list) : 0;
  *capacity = counts ? (list.size - Form<K>::flatHeader) / list.recordBytes() : 0;
  const uint64_t first = list.offset + Form<K>::flatHeader;
  *record = list.recordAt(first);
  return list.holds(first, 0) ? 0 : K::walkBounds;
}

template <class K>
uint32_t getNext(SNodeCB_t* node, const ExportSlot_t* slot, typename K::Record** record) {
  if (!node || !slot) return TREL_RC_NODE_NULL;
  if (!record || !*record) return Codes<K>::recordNull;
  List<K> list;
  if (const uint32_t rc = openLimits(node, &list)) return rc;
  list.offset = once(slot->offset);
  list.size = once(slot->size);
  *record = at<typename K::Record>(*record, list.recordBytes());
  return list.holds(offsetOf(*record, node), 0) ? 0 : K::walkBounds;
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelCreateRPropertyList(SNodeCB_t* node, const uint64_t* tags, const int32_t* values,
                                 uint64_t count, uint64_t maxCount, uint64_t useHashTable,
                                 uint64_t inCriticalSection) {
  return traced(FID_trelCreateRPropertyList, [&](const Flow&) {
    return createList<kind::R>(node, {count, tags, values, nullptr, nullptr, nullptr, nullptr},
                               {0, 0, 0, 0, maxCount, useHashTable}, inCriticalSection);
  });
}

uint32_t trelCreateVPropertyList(SNodeCB_t* node, const uint64_t* tags, const uint8_t* values,
                                 const uint64_t* sizes, uint64_t maxValueSize, uint64_t count,
                                 uint64_t maxCount, uint64_t useHashTable,
                                 uint64_t inCriticalSection) {
  return traced(FID_trelCreateVPropertyList, [&](const Flow&) {
    return createList<kind::V>(node, {count, tags, nullptr, nullptr, nullptr, sizes, values},
                               {0, maxValueSize, 0, 0, maxCount, useHashTable}, inCriticalSection);
  });
}

uint32_t trelCreateIRPropertyList(SNodeCB_t* node, const uint64_t* tags, const int32_t* values,
                                  const uint64_t* idSizes, const uint8_t* ids, uint64_t maxIdSize,
                                  uint64_t count, uint64_t tagTableSize, uint64_t idTableSize,
                                  uint64_t maxCount, uint64_t useHashTable,
                                  uint64_t inCriticalSection) {
  return traced(FID_trelCreateIRPropertyList, [&](const Flow&) {
    return createList<kind::IR>(node, {count, tags, values, idSizes, ids, nullptr, nullptr},
                                {maxIdSize, 0, tagTableSize, idTableSize, maxCount, useHashTable},
                                inCriticalSection);
  });
}

uint32_t trelCreateIVPropertyList(SNodeCB_t* node, const uint64_t* tags, const uint64_t* idSizes,
                                  const uint8_t* ids, uint64_t maxIdSize, const uint8_t* values,
                                  const uint64_t* sizes, uint64_t maxValueSize, uint64_t count,
                                  uint64_t tagTableSize, uint64_t idTableSize, uint64_t maxCount,
                                  uint64_t useHashTable, uint64_t inCriticalSection) {
  return traced(FID_trelCreateIVPropertyList, [&](const Flow&) {
    return createList<kind::IV>(
        node, {count, tags, nullptr, idSizes, ids, sizes, values},
        {maxIdSize, maxValueSize, tagTableSize, idTableSize, maxCount, useHashTable},
        inCriticalSection);
  });
}

// clang-format off
// KEY and VALUE are parameters, key and value what is made of them.
#define LIST_OPERATIONS(K, KEY, key, VALUE, value)                                            \
  OPERATION(trelAdd##K##Property, (SNodeCB_t* node, KEY, VALUE, uint64_t inCriticalSection),  \
            add<kind::K>(node, key, value, inCriticalSection))                                \
  OPERATION(trelAdd##K##PropertyToHashTable,                                                  \
            (SNodeCB_t* node, KEY, VALUE, uint64_t inCriticalSection),                        \
            addToHashTable<kind::K>(node, key, value, inCriticalSection))                     \
  OPERATION(trelFind##K##PropertyInHashTable, (SNodeCB_t* node, KEY, K##Property_t** record), \
            findInHashTable<kind::K>(node, key, record))                                      \
  OPERATION(trelDelete##K##Property, (SNodeCB_t* node, KEY, uint64_t inCriticalSection),      \
            remove<kind::K>(node, key, inCriticalSection))                                    \
  OPERATION(trelDelete##K##PropertyFromHashTable, (SNodeCB_t* node, KEY),                     \
            removeFromHashTable<kind::K>(node, key))                                          \
  OPERATION(trelGetFirst##K##PropertyLocation,                                                \
            (SNodeCB_t* node, K##Property_t** record, uint64_t* count, uint64_t* capacity),   \
            getFirst<kind::K>(node, record, count, capacity))                                 \
  OPERATION(trelGetNext##K##PropertyLocation,                                                 \
            (SNodeCB_t* node, const ExportSlot_t* slot, K##Property_t** record),              \
            getNext<kind::K>(node, slot, record))
// clang-format on

LIST_OPERATIONS(R, TAG, TAG_KEY, REGISTER, REGISTER_VALUE)
LIST_OPERATIONS(V, TAG, TAG_KEY, BYTES, BYTES_VALUE)
LIST_OPERATIONS(IR, TAG_ID, TAG_ID_KEY, REGISTER, REGISTER_VALUE)
LIST_OPERATIONS(IV, TAG_ID, TAG_ID_KEY, BYTES, BYTES_VALUE)
