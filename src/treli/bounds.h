// What of a node may be touched, and where a stored record counts from. What the node or the record
// says of itself can only narrow what is mapped.
#pragma once

#include "trelshm/bytes.h"
#include "trelshm/mapping.h"

namespace trel {

// The bytes of a node, its header included; less than a header if that is not all mapped.
TREL_INLINE uint64_t nodeBound(const SNodeCB_t* node) {
  const uint64_t mapped = bytesMappedFrom(node);
  if (TREL_UNLIKELY(mapped < sizeof *node)) return mapped;
  const uint64_t size = once(node->nodeSize);
  return size < mapped ? size : mapped;
}

// The base from which a record counts: that of the mapping it lies in, or what it says where it
// lies in memory of the caller's own. Null: it says none.
inline const void* baseOf(const SNodeInfo_t* record) {
  const void* base = nullptr;
  if (startOfMapping(record, &base)) return base;
  const uint64_t selfOffset = once(record->selfOffset);
  return selfOffset ? at<const void>(record, uint64_t{0} - selfOffset)
                    : at<const void>(nullptr, record->segBase);
}

}  // namespace trel
