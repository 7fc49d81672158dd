// How many properties a section holds, and which.
#pragma once

#include "treli/property_access.h"

namespace trel {

// Current and maximum number, worked out from `used` and `size`. The caller is inside the section.
template <class K>
uint32_t countRecords(const List<K>& list, uint64_t* current, uint64_t* maximum) {
  uint64_t overhead = K::countedHeader, each = list.recordBytes();
  if (list.hashed()) {
    Stack stack;
    if (const uint32_t rc = openStack(list, &stack)) return rc;
    overhead = Form<K>::hashHeader + list.bucketBytes() + stack.bytes;
    each = list.nodeBytes();
  }
  *maximum = lessOr0(list.size, overhead) / each;
  *current = lessOr0(list.used, overhead) / each;
  return 0;
}

// The same for users, who see nothing of a list with a maximum of 0. Tests no condition.
template <class K>
uint32_t getNumber(SNodeCB_t* node, uint64_t* current, uint64_t* maximum,
                   uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!current) return Codes<K>::countNull;
  if (!maximum) return Codes<K>::capacityNull;
  uint64_t foundCurrent = 0, foundMaximum = 0;
  const uint32_t rc = looking(node, inCriticalSection, [&]() -> uint32_t {
    List<K> list;
    foundCurrent = foundMaximum = 0;
    if (const uint32_t failure = openLimits(node, &list)) return failure;
    if (list.fault || reportsNothing(list)) return list.fault;
    if (const uint32_t failure = openTables(&list)) return failure;
    return list.created ? countRecords(list, &foundCurrent, &foundMaximum) : 0;
  });
  if (rc) return rc;
  *current = foundCurrent;
  *maximum = foundMaximum;
  return 0;
}

// Number of properties with a tag. The caller is inside the section.
template <class K>
uint32_t countTag(const List<K>& list, uint64_t tag, uint64_t* number) {
  *number = 0;
  if constexpr (K::hasId) {
    if (list.hashed()) {
      ChainWalk<K> walk(list, bucketOf(list, 1, Key{tag}), kLinkOfTable[1]);
      while (walk.next()) {
        const uint64_t stored = once(walk.record->tag);
        if (stored > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
        *number += stored == tag;
      }
      return walk.rc ? walk.rc : *number ? 0 : Codes<K>::absent;
    }
  } else if (list.hashed()) {
    typename K::Record* record = nullptr;
    const uint32_t rc =
        findHashed(list, bucketOf(list, 0, Key{tag}), Key{tag}, Codes<K>::absent, &record);
    *number = rc == 0;
    return rc;
  }
  FlatWalk<K> walk(list, reportedRecords(list));
  while (walk.next()) *number += walk.tag == tag;
  return walk.rc ? walk.rc : *number ? 0 : Codes<K>::absent;
}

// *number is also told where the tag is absent.
template <class K>
uint32_t getNumberForTag(SNodeCB_t* node, uint64_t tag, uint64_t* number,
                         uint64_t inCriticalSection) {
  constexpr bool tagFirst = Form<K>::limits == 0;  // in R, before the test of `number`
  if (!node) return TREL_RC_NODE_NULL;
  if (tagFirst && tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (!number) return Codes<K>::countNull;
  if (tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  uint64_t found = 0;
  const uint32_t rc = looking(node, inCriticalSection, [&]() -> uint32_t {
    List<K> list;
    found = 0;
    if (const uint32_t failure = openLimits(node, &list)) return failure;
    if (list.fault || reportsNothing(list)) return list.fault;
    const uint32_t failure = openTables(&list);
    return failure ? failure : countTag(list, tag, &found);
  });
  if (rc == 0 || rc == Codes<K>::absent) *number = found;
  return rc;
}

template <class K>
uint32_t returnCount(SNodeCB_t* node, uint64_t tag, uint64_t* number, uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  uint64_t found = 0, maximum = 0;
  const uint32_t rc = looking(node, inCriticalSection, [&]() -> uint32_t {
    if constexpr (!K::hasId) {
      List<K> list;
      if (const uint32_t failure = openForKey(node, Key{tag}, 1, &list)) return failure;
    }
    if (!number) return TREL_RC_OUT_PROPERTY_COUNT;
    if (const uint32_t failure = checkCondition(node, accept::usable)) return failure;
    if (tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
    const uint32_t failure =
        tag ? getNumberForTag<K>(node, tag, &found, 1) : getNumber<K>(node, &found, &maximum, 1);
    return failure ? failure : found > TREL_MAX_PROPERTIES ? Codes<K>::count : 0;
  });
  if (rc == 0 || rc == Codes<K>::absent) *number = found;
  return rc;
}

// The caller's arrays of `count` entries. idSizes and ids: IR, IV. sizes: V, IV.
struct Listing {
  uint64_t* tags;
  uint64_t* idSizes;
  uint8_t* ids;
  uint64_t* sizes;
  uint64_t tag;  // 0: all
  uint64_t count;
  uint64_t idStride;
  uint64_t written = 0;
};

// What a record says of itself, each word read once.
struct Fields {
  uint64_t tag = 0, idOffset = 0, idSize = 0, valueOffset = 0, valueSize = 0;

  template <class Record>
  TREL_INLINE void readId(const Record* record) {
    idOffset = once(record->idOffset);
    idSize = once(record->idSize);
  }
  template <class Record>
  TREL_INLINE void readValue(const Record* record) {
    valueOffset = once(record->valueOffset);
    valueSize = once(record->valueSize);
  }
};

// Reads a record with the tests that it passes before anything of it is listed or copied.
template <class K>
TREL_INLINE uint32_t examine(const List<K>& list, const typename K::Record* record,
                             Fields* fields) {
  fields->tag = once(record->tag);
  if constexpr (K::hasId) fields->readId(record);
  if constexpr (K::hasBytes) fields->readValue(record);
  if (fields->tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (K::hasId && fields->idSize > list.maxIdSize) return TREL_RC_PROPERTY_ID_SIZE;
  if constexpr (K::hasBytes) {
    const bool sized = isValueSize(fields->valueSize, list.maxValueSize);
    const bool placed = list.holds(fields->valueOffset, 0);
    if (K::hasId && !sized) return TREL_RC_VALUE_SIZE;  // IV tests the size first, V the offset
    if (!placed) return K::valueOffsetBounds;
    if (!sized) return TREL_RC_VALUE_SIZE;
  }
  return 0;
}

template <class K>
TREL_INLINE uint32_t append(const List<K>& list, const Fields& fields, Listing* listing) {
  const uint64_t i = listing->written;
  if constexpr (K::hasId) {
    if (fields.idSize > listing->idStride) return TREL_RC_PROPERTY_ID_SIZE;
    if (!list.holds(fields.idOffset, fields.idSize)) return TREL_RC_ID_BOUNDS;
    copyBytes(listing->ids + i * listing->idStride, at(list.node, fields.idOffset), fields.idSize);
    listing->idSizes[i] = fields.idSize;
  }
  if constexpr (K::hasBytes) listing->sizes[i] = fields.valueSize;
  listing->tags[i] = fields.tag;
  ++listing->written;
  return 0;
}

template <class K>
void clearRest(Listing* listing, bool tagsAlone) {
  const auto clear = [&](uint64_t* array) {
    for (uint64_t i = listing->written; i < listing->count; ++i) array[i] = 0;
  };
  clear(listing->tags);
  if (tagsAlone) return;
  if (K::hasId) clear(listing->idSizes);
  if (K::hasBytes) clear(listing->sizes);
}

// Examines the records of a walk, and appends those wanted while there is room for them; ends with
// the room, or if so told with the first wanted record that finds none.
template <class K, class Walk>
TREL_INLINE uint32_t listWalk(const List<K>& list, Walk& walk, Listing* listing,
                              bool beyondRoom = false) {
  while ((listing->written < listing->count || beyondRoom) && walk.next()) {
    Fields fields;
    if (const uint32_t rc = examine(list, walk.record, &fields)) return rc;
    if (listing->tag && fields.tag != listing->tag) continue;
    if (listing->written == listing->count) break;
    if (const uint32_t rc = append(list, fields, listing)) return rc;
  }
  return walk.rc;
}

template <class K>
uint32_t listFlat(const List<K>& list, Listing* listing) {
  const uint64_t records = reportedRecords(list);
  if (records == 0) return Codes<K>::absent;
  FlatWalk<K> walk(list, records);
  if (const uint32_t rc = listWalk(list, walk, listing, listing->tag != 0)) return rc;
  clearRest<K>(listing, false);
  return 0;
}

// All properties, bucket by bucket. The chains of some buckets are picked out at a time, without a
// branch that nobody can predict, and their memory is asked for.
template <class K>
uint32_t listBuckets(const List<K>& list, Listing* listing) {
  uint64_t bucket = list.offset + Form<K>::hashHeader;
  const uint64_t end = bucket + 8 * list.tables[0];
  while (bucket < end && listing->written < listing->count) {
    uint64_t chains[64], count = 0;
    for (uint64_t i = 0; i < 64 && bucket < end; ++i, bucket += 8) {
      const uint64_t head = once(*list.word(bucket));
      __builtin_prefetch(at(list.node, head + sizeof(typename K::Links)));
      chains[count] = bucket;
      count += head != 0;
    }
    for (uint64_t i = 0; i < count && listing->written < listing->count; ++i) {
      ChainWalk<K> walk(list, chains[i]);
      if (const uint32_t rc = listWalk(list, walk, listing)) return rc;
    }
  }
  return 0;
}

template <class K>
uint32_t listHashed(const List<K>& list, Listing* listing) {
  bool tagsAlone = false;
  if constexpr (K::hasId) {
    tagsAlone = K::hashClearsTagsAlone;
    if (listing->tag) {
      ChainWalk<K> walk(list, bucketOf(list, 1, Key{listing->tag}), kLinkOfTable[1]);
      if (const uint32_t rc = listWalk(list, walk, listing)) return rc;
    }
  } else if (listing->tag) {  // there is one at most, and the rest of the arrays stays as it is
    typename K::Record* record = nullptr;
    if (const uint32_t rc = findHashed(list, bucketOf(list, 0, Key{listing->tag}),
                                       Key{listing->tag}, Codes<K>::absent, &record))
      return rc;
    Fields fields;
    const uint32_t rc = examine(list, record, &fields);
    return rc ? rc : append(list, fields, listing);
  }
  if (listing->tag == 0)
    if (const uint32_t rc = listBuckets(list, listing)) return rc;
  if (listing->written == 0) return Codes<K>::absent;
  clearRest<K>(listing, tagsAlone);
  return 0;
}

// The checks in front differ in order from kind to kind. The caller is inside.
template <class K>
uint32_t openListing(SNodeCB_t* node, const Listing& listing, List<K>* list) {
  const bool counted = listing.count != 0 && listing.count <= TREL_MAX_PROPERTIES;
  if constexpr (K::hasId) {
    if (!listing.idSizes) return TREL_RC_ID_SIZES_NULL;
    if (!listing.ids) return TREL_RC_ID_NULL;
    if (!listing.tags) return TREL_RC_TAGS_NULL;
    if (K::hasBytes && !listing.sizes) return TREL_RC_VALUE_SIZES_NULL;
    if (!counted) return Codes<K>::count;
  } else if constexpr (K::hasBytes) {
    if (const uint32_t rc = openForKey(node, Key{listing.tag}, 1, list)) return rc;
  }
  if (!counted) return Codes<K>::count;
  if (!listing.tags) return TREL_RC_TAGS_NULL;
  if (K::hasBytes && !listing.sizes) return TREL_RC_VALUE_SIZES_NULL;
  if (!K::hasBytes || K::hasId) {
    if (const uint32_t rc = openLimits(node, list)) return rc;
  }
  if (list->fault) return list->fault;
  if (listing.tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (K::hasId && listing.idStride > list->maxIdSize) return TREL_RC_ID_STRIDE;
  if (const uint32_t rc = openTables(list)) return rc;
  return checkCondition(node, accept::usable);
}

template <class K>
uint32_t returnProperties(SNodeCB_t* node, const Listing& wanted, uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  return looking(node, inCriticalSection, [&]() -> uint32_t {
    List<K> list;
    Listing listing = wanted;
    if (const uint32_t rc = openListing(node, wanted, &list)) return rc;
    return list.hashed() ? listHashed(list, &listing) : listFlat(list, &listing);
  });
}

}  // namespace trel
