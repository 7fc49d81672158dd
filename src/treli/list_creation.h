// The making of a property list, in a section that may hold an older one.
#pragma once

#include "treli/flat_list.h"
#include "treli/hash_list.h"

namespace trel {

// What a new list is to have; each kind uses its part. tagTable, idTable: wanted sizes.
struct NewList {
  uint64_t maxIdSize, maxValueSize, tagTable, idTable, maxCount, useHashTable;
};

template <class K>
uint32_t createList(SNodeCB_t* node, const Entries& entries, const NewList& wanted,
                    uint64_t inCriticalSection) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!(once(node->exports) & K::bit)) return Codes<K>::noExport;
  if (entries.count > TREL_MAX_PROPERTIES) return Codes<K>::count;
  List<K> list;
  if constexpr (K::hasId) {
    if (wanted.maxIdSize > TREL_MAX_ID_SIZE) return TREL_RC_PROPERTY_ID_MAX;
    list.maxIdSize = round8(wanted.maxIdSize);
  }
  if constexpr (K::hasBytes) {
    if (wanted.maxValueSize == 0 || wanted.maxValueSize > TREL_MAX_VALUE_SIZE)
      return TREL_RC_VALUE_MAX;
    list.maxValueSize = round8(wanted.maxValueSize);
  }
  if (entries.count) {
    if (!K::hasId && wanted.maxCount > TREL_MAX_PROPERTIES) return Codes<K>::count;
    if (!entries.tags) return TREL_RC_TAGS_NULL;
    if (!K::hasBytes && !entries.numbers) return TREL_RC_REGISTERS_NULL;
    if (K::hasBytes && !entries.sizes) return TREL_RC_VALUE_SIZES_NULL;
    if (K::hasBytes && !entries.values) return TREL_RC_VALUES_NULL;
    if (K::hasId && !entries.idSizes) return TREL_RC_ID_SIZES_NULL;
    if (K::hasId && !entries.ids) return TREL_RC_ID_NULL;
  }
  // Where the section lies stays as it is; `used` is only written from here on.
  if (const uint32_t rc = openSection(node, K::bit, &list)) return rc;
  switch (wanted.useHashTable) {
    case 0:
      return createFlat(list, entries, wanted.maxCount, inCriticalSection);
    case 1:
      return createHashed(list, entries, wanted.maxCount, wanted.tagTable, wanted.idTable,
                          inCriticalSection);
    default:
      return TREL_RC_HASH_FLAG;
  }
}

}  // namespace trel
