// Base properties: one record, without a list. The section's `used` tells whether it exists.
#pragma once

#include "treli/property_access.h"

namespace trel {

template <class K>
uint64_t bytesInUse(const List<K>& list) {
  return Form<K>::flatHeader + list.recordBytes();
}

// Writes the property over an earlier one, if there is any; while it is written there is none. The
// section has been found, and is large enough.
template <class K>
uint32_t writeBase(const List<K>& list, const Key& key, const Value& value,
                   uint64_t inCriticalSection) {
  return writing(list.node, inCriticalSection, accept::settled, [&]() -> uint32_t {
    const uint64_t start = list.offset + Form<K>::flatHeader;
    const uint64_t before = list.slot->used;
    storeLast(&list.slot->used, 0);
    if (const uint32_t rc = fill(list, list.recordAt(start), key, value)) {
      list.slot->used = before;
      return rc;
    }
    if (K::hasBytes) *wordAt(list.node, list.offset) = list.maxValueSize;
    storeLast(&list.slot->used, bytesInUse(list));
    return countReconfiguration(list.node);
  });
}

}  // namespace trel
