// Base properties: one record, without a list. The section's `used` tells whether it exists.
#pragma once

#include "treli/property_access.h"

namespace trel {

template <class K>
uint64_t bytesInUse(const List<K>& list) {
  return Form<K>::flatHeader + list.recordBytes();
}

// Writes the property over an earlier one, if there is any; while it is written there is none. The
// arguments have been tested; M is the list's.
template <class K>
uint32_t writeBase(SNodeCB_t* node, uint64_t maxValueSize, const Key& key, const Value& value,
                   uint64_t inCriticalSection) {
  return writing(node, inCriticalSection, accept::settled, [&]() -> uint32_t {
    List<K> list;
    list.maxValueSize = maxValueSize;
    if (const uint32_t rc = openSection(node, K::bit, &list)) return rc;
    if (list.size < bytesInUse(list)) return Codes<K>::flatFit;
    const uint64_t before = list.used;
    list.setUsed(0);
    if (const uint32_t rc =
            fill(list, list.recordAt(list.offset + Form<K>::flatHeader), key, value)) {
      list.setUsed(before);
      return rc;
    }
    if (K::hasBytes) *list.word(list.offset) = list.maxValueSize;
    list.setUsed(bytesInUse(list));
    return countReconfiguration(node);
  });
}

}  // namespace trel
