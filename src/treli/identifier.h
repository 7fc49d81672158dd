// The order of names: tag, then size of the identifier, then its bytes.
#pragma once

#include <string.h>

#include "trel/codes.h"
#include "trel/layout.h"

namespace trel {

inline int compareIds(const uint8_t* a, uint64_t sizeA, const uint8_t* b, uint64_t sizeB) {
  if (sizeA != sizeB) return sizeA < sizeB ? -1 : 1;
  return sizeA ? memcmp(a, b, sizeA) : 0;
}

inline int compareNames(uint64_t tagA, const uint8_t* a, uint64_t sizeA, uint64_t tagB,
                        const uint8_t* b, uint64_t sizeB) {
  if (tagA != tagB) return tagA < tagB ? -1 : 1;
  return compareIds(a, sizeA, b, sizeB);
}

// The one export bit meant by an argument that says to which kind of names an identifier belongs:
// 0x2 itself, else the lowest bit set from 0x4 on. 0 if there is none.
constexpr uint32_t nameKind(uint32_t exportBit) {
  if (exportBit == TREL_EXPORT_ID) return TREL_EXPORT_ID;
  const uint32_t higher = exportBit & ~3u;
  return higher & -higher;
}

}  // namespace trel
