// The property lists of a node, read for a copy of it. The caller holds the source's section.
#pragma once

#include "treli/enumeration.h"
#include "treli/sizing.h"

namespace trel {

// Reads what the source's list holds, and its limits, into the kind's part of the limits. Unlike
// the counts for users, these count properties with identifiers of maximum size 0 as well.
template <class K>
uint32_t surveyList(SNodeCB_t* source, NodeCopyLimits_t* limits) {
  auto& part = partOf<K>(*limits);
  List<K> list;
  if (const uint32_t rc = openList(source, &list)) return rc;
  if (const uint32_t rc = countRecords(list, &part.current, &part.maximum)) return rc;
  if constexpr (K::hasId) {
    part.maxIdSize = list.maxIdSize;
    part.tagTableSize = list.tables[1];
    part.idTableSize = list.tables[2];
  }
  if constexpr (K::hasBytes) part.maxValueSize = list.maxValueSize;
  part.hashSize = list.tables[0];
  part.hashFlag = list.hashed();
  return 0;
}

// visit(record) for each property, up to the first failure: a flat list in the order of addresses,
// a hashed one bucket by bucket.
template <class K, class Visit>
uint32_t forEachRecord(const List<K>& list, Visit&& visit) {
  const auto follow = [&](auto walk) -> uint32_t {
    while (walk.next())
      if (const uint32_t rc = visit(walk.record)) return rc;
    return walk.rc;
  };
  if (!list.hashed()) return follow(FlatWalk<K>(list, occupiedRecords(list)));
  const uint64_t buckets = list.offset + Form<K>::hashHeader;
  for (uint64_t i = 0; i < list.tables[0]; ++i)
    if (const uint32_t rc = follow(ChainWalk<K>(list, buckets + 8 * i))) return rc;
  return 0;
}

// A property of the source, for a copy: identifier and bytes go from node to node.
template <class K>
uint32_t readRecord(const List<K>& list, typename K::Record* record, Key* key, Value* value) {
  Fields fields;
  if (const uint32_t rc = examine(list, record, &fields)) return rc;
  if (K::hasId && !list.holds(fields.idOffset, fields.idSize)) return TREL_RC_ID_BOUNDS;
  *key = {fields.tag, fields.idSize, at<uint8_t>(list.node, fields.idOffset)};
  if constexpr (K::hasBytes) {
    value->size = fields.valueSize;
    value->bytes = list.valueOf(record);
  } else {
    value->number = loadRegister(&record->value);
  }
  return 0;
}

// Adds to a list that only this copy has filled, from a list in which nothing is twice: the next
// record is free, and in a flat list nothing needs to be compared.
template <class K>
uint32_t appendProperty(List<K>& list, const Key& key, const Value& value) {
  if (key.idSize > list.maxIdSize) return TREL_RC_PROPERTY_ID_SIZE;
  if (K::hasBytes && !isValueSize(value.size, list.maxValueSize)) return TREL_RC_VALUE_SIZE;
  if (list.hashed()) return addHashed(list, key, value);
  const uint64_t place = list.offset + list.used;
  if (list.used + list.recordBytes() > list.size) return Codes<K>::flatFull;
  if (!list.holds(place, list.recordBytes())) return Codes<K>::bounds;
  if (const uint32_t rc = fill(list, list.recordAt(place), key, value)) return rc;
  list.setUsed(list.used + list.recordBytes());
  return countReconfiguration(list.node);
}

// Adds the source's properties to the copy's new list.
template <class K>
uint32_t copyProperties(SNodeCB_t* source, SNodeCB_t* copy) {
  List<K> from, to;
  if (const uint32_t rc = openList(source, &from)) return rc;
  if (const uint32_t rc = openList(copy, &to)) return rc;
  if (const uint32_t rc = checkCondition(copy, accept::usable)) return rc;
  return forEachRecord(from, [&](typename K::Record* record) -> uint32_t {
    Key key;
    Value value;
    if (const uint32_t rc = readRecord(from, record, &key, &value)) return rc;
    return appendProperty(to, key, value);
  });
}

}  // namespace trel
