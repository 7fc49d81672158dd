#pragma once

#include "platsvc/codes.h"
#include "trel/codes.h"

namespace trel {

// Why a latch could not be had.
inline uint32_t latchFailure(uint32_t platformCode) {
  return platformCode == PLAT_RC_NO_TOKEN ? TREL_RC_SEGMENT_LIMIT : TREL_RC_LATCH;
}

}  // namespace trel
