// The page that width_test and its peer share: a latch cell at an odd place, and a counter.
#pragma once

#include "platsvc/latch.h"

inline void* latchOf(void* page) { return static_cast<char*>(page) + 132; }
inline volatile uint32_t* counterOf(void* page) { return static_cast<uint32_t*>(page) + 256; }

inline uint32_t addUnderLatch(void* page, uint32_t rounds, uint32_t* ownerDied) {
  for (uint32_t i = 0; i < rounds; ++i) {
    const uint32_t code = plat::latchGet(latchOf(page), ownerDied);
    if (code != 0) return code;
    const uint32_t before = *counterOf(page);
    *counterOf(page) = before + 1;
    if (plat::latchRelease(latchOf(page)) != 0) return 1;
  }
  return 0;
}
