#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64  // seconds beyond 2038 in 32-bit builds

#include "platsvc/time.h"

#include <time.h>

#include "platsvc/codes.h"

uint32_t platTimeGetUTC(PLATTime* now) {
  if (!now) return PLAT_RC_ARGUMENT;
  // The coarse clock moves every few milliseconds, fine enough for tenths of a second.
  timespec clock;
  if (clock_gettime(CLOCK_REALTIME_COARSE, &clock) != 0) return PLAT_RC_SYSTEM;
  const uint64_t seconds = static_cast<uint64_t>(clock.tv_sec);
  const uint64_t tenths = seconds * 10 + static_cast<uint64_t>(clock.tv_nsec) / 100000000;
  *now = {static_cast<uint32_t>(seconds), static_cast<uint16_t>(tenths), 0};
  return 0;
}
