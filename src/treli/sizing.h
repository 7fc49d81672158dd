// The section sizes of a node that is to hold so and so much.
#pragma once

#include "trel/records.h"
#include "treli/property_kind.h"

namespace trel {

// A kind's part of the limits.
template <class K, class Limits>
auto& partOf(Limits& limits) {
  if constexpr (K::hasId && K::hasBytes)
    return limits.iv;
  else if constexpr (K::hasId)
    return limits.ir;
  else if constexpr (K::hasBytes)
    return limits.v;
  else
    return limits.r;
}

// trelCreateMaxSpaceArray. Reads maxima, hash flags and the sizes of the further tables.
uint32_t sizeSections(uint64_t exports, NodeCopyLimits_t limits, uint64_t* sizes, uint64_t* total);

}  // namespace trel
