// Property lists in flat form: an array of records behind the header.
//
// A record is free while its tag is 0. used tells how many are occupied; they need not be adjacent,
// and a walk ends when it has seen them all.
#pragma once

#include "treli/property_list.h"

namespace trel {

template <class K>
uint64_t occupiedRecords(const List<K>& list) {
  return list.created && list.used > Form<K>::flatHeader
             ? (list.used - Form<K>::flatHeader) / list.recordBytes()
             : 0;
}

// A stored maximum of 0: the kind's counts report nothing.
template <class K>
bool reportsNothing(const List<K>& list) {
  return (K::hasId && list.maxIdSize == 0) || (K::hasBytes && list.maxValueSize == 0);
}

// The count that searches and listings go by.
template <class K>
uint64_t reportedRecords(const List<K>& list) {
  return reportsNothing(list) ? 0 : occupiedRecords(list);
}

// Goes through `count` occupied records in address order.
template <class K>
struct FlatWalk {
  const List<K>& list;
  uint64_t count;
  uint64_t position = Form<K>::flatHeader;  // of what comes behind `record`
  uint64_t tag = 0;                         // of `record`
  typename K::Record* record = nullptr;
  typename K::Record* firstFree = nullptr;
  uint32_t rc = 0;

  FlatWalk(const List<K>& l, uint64_t n) : list(l), count(n) {}

  bool next() {
    while (count) {
      if (!list.holds(list.offset + position, list.recordBytes())) {
        rc = K::walkBounds;
        return false;
      }
      record = list.recordAt(list.offset + position);
      position += list.recordBytes();
      tag = once(record->tag);
      if (tag) return --count, true;
      if (!firstFree) firstFree = record;
    }
    return false;
  }
};

template <class K>
uint32_t findFlat(const List<K>& list, const Key& key, typename K::Record** record) {
  FlatWalk<K> walk(list, reportedRecords(list));
  while (walk.next()) {
    if constexpr (K::hasId) {
      if (once(walk.record->idSize) != key.idSize) continue;
    }
    int order = 0;
    if (const uint32_t rc = compareRecord(list, walk.record, key, &order)) return rc;
    if (order == 0) {
      *record = walk.record;
      return 0;
    }
  }
  return walk.rc ? walk.rc : Codes<K>::keyAbsent;
}

// The first free record takes a new property; without one, what lies behind the last occupied.
template <class K>
uint32_t addFlat(List<K>& list, const Key& key, const Value& value) {
  if (key.tag == 0) return TREL_RC_TAG_RANGE;
  if (!list.created) return Codes<K>::flatFull;
  const bool blind = reportedRecords(list) == 0;
  FlatWalk<K> walk(list, occupiedRecords(list));
  while (walk.next()) {
    int order = 1;
    if (!blind) {
      if (const uint32_t rc = compareRecord(list, walk.record, key, &order)) return rc;
    }
    if (order == 0) return Codes<K>::present;
  }
  if (walk.rc) return walk.rc;
  const uint64_t used = list.used + list.recordBytes();
  if (used > list.size) return Codes<K>::flatFull;
  if (!walk.firstFree) {
    if (!list.holds(list.offset + walk.position, list.recordBytes())) return Codes<K>::bounds;
    walk.firstFree = list.recordAt(list.offset + walk.position);
  }
  if (const uint32_t rc = fill(list, walk.firstFree, key, value)) return rc;
  list.setUsed(used);
  return countReconfiguration(list.node);
}

template <class K>
uint32_t deleteFlat(List<K>& list, const Key& key) {
  typename K::Record* record = nullptr;
  if (const uint32_t rc = findFlat(list, key, &record)) return rc;
  storeLast(&record->tag, 0);
  list.setUsed(list.used - list.recordBytes());
  return countReconfiguration(list.node);
}

// Tests the entries of a new list, each against all behind it. Tag 0 may stand there many times: it
// makes a free record.
template <class K>
uint32_t testEntries(const List<K>& list, const Entries& entries) {
  uint64_t i = 0;
  return forEachEntry<K>(
      entries, list.maxValueSize, [&](const Key& key, const Value& value) -> uint32_t {
        ++i;
        if constexpr (!K::hasId) {
          for (uint64_t j = i; key.tag && j < entries.count; ++j)
            if (entries.tags[j] == key.tag) return Codes<K>::present;
        }
        if (key.tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
        if (K::hasBytes && !isValueSize(value.size, list.maxValueSize)) return TREL_RC_VALUE_SIZE;
        if constexpr (K::hasId) {
          if (key.idSize > list.maxIdSize) return TREL_RC_PROPERTY_ID_SIZE;
          const uint8_t* id = key.id + key.idSize;
          for (uint64_t j = i; j < entries.count; id += entries.idSizes[j++]) {
            if (entries.idSizes[j] > list.maxIdSize) return TREL_RC_PROPERTY_ID_SIZE;
            if (entries.tags[j] > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
            if (key.tag && compareNames(key.tag, key.id, key.idSize, entries.tags[j], id,
                                        entries.idSizes[j]) == 0)
              return Codes<K>::present;
          }
        }
        return 0;
      });
}

// Fills a new list: the entries, then blank records up to maxCount, which only a list with entries
// gets.
template <class K>
uint32_t fillFlat(List<K>& list, const Entries& entries, uint64_t maxCount) {
  writeHeader(&list);
  uint64_t position = list.offset + Form<K>::flatHeader;
  // Places whose tags are all 0 or live can be counted after the death of a writer.
  for (uint64_t place = position; list.holds(place, list.recordBytes());
       place += list.recordBytes())
    list.recordAt(place)->tag = 0;
  list.setUsed(Form<K>::flatHeader);
  const auto append = [&](const Key& key, const Value& value) -> uint32_t {
    if (!list.holds(position, list.recordBytes())) return Codes<K>::bounds;
    const uint32_t rc = fill(list, list.recordAt(position), key, value);
    if (rc == 0) position += list.recordBytes();
    return rc;
  };
  if (const uint32_t rc = forEachEntry<K>(entries, list.maxValueSize,
                                          [&](const Key& key, const Value& value) -> uint32_t {
                                            if (const uint32_t failure = append(key, value))
                                              return failure;
                                            if (key.tag)
                                              list.setUsed(list.used + list.recordBytes());
                                            return countReconfiguration(list.node);
                                          }))
    return rc;
  for (uint64_t i = entries.count; entries.count && i < maxCount; ++i) {
    static constexpr uint8_t zeros[8] = {};
    [[maybe_unused]] typename K::Record* record = list.recordAt(position);
    if (const uint32_t rc = append(Key{}, Value{0, sizeof zeros, zeros})) return rc;
    if constexpr (K::hasBytes) record->valueSize = K::blankValueSize;
  }
  return 0;
}

template <class K>
uint32_t createFlat(List<K>& list, const Entries& entries, uint64_t maxCount,
                    uint64_t inCriticalSection) {
  if (Form<K>::flatHeader + list.recordBytes() * entries.count > list.size)
    return Codes<K>::flatFit;
  if (!K::testsEntriesInside)
    if (const uint32_t rc = testEntries(list, entries)) return rc;
  return writing(list.node, inCriticalSection, accept::settled, [&]() -> uint32_t {
    if (K::testsEntriesInside)
      if (const uint32_t rc = testEntries(list, entries)) return rc;
    return fillFlat(list, entries, maxCount);
  });
}

}  // namespace trel
