#define _FILE_OFFSET_BITS 64
#define _TIME_BITS 64  // seconds beyond 2038 in 32-bit builds

#include "platsvc/time.h"

#include <time.h>
#include <unistd.h>

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

// Each part goes through a bijection that spreads it over all bits, so that parts that lie close
// together do not meet in the sum.
static uint64_t spread(uint64_t part) {
  part = (part ^ part >> 30) * 0xbf58476d1ce4e5b9u;
  part = (part ^ part >> 27) * 0x94d049bb133111ebu;
  return part ^ part >> 31;
}

uint64_t platDrawStamp(void) {
  static uint32_t counter;
  timespec clock = {};
  clock_gettime(CLOCK_REALTIME, &clock);
  const uint64_t now =
      static_cast<uint64_t>(clock.tv_sec) * 1000000000u + static_cast<uint64_t>(clock.tv_nsec);
  // Processes of two pid namespaces may have one number; where they have the counter tells them
  // apart as a rule.
  const uint64_t process =
      spread(reinterpret_cast<uintptr_t>(&counter)) + static_cast<uint64_t>(getpid());
  const uint64_t drawn = __atomic_fetch_add(&counter, 1, __ATOMIC_RELAXED);
  const uint64_t stamp = spread(now + spread(process + spread(drawn + 1)));
  return stamp == 0 || stamp == ~uint64_t{0} ? 1 : stamp;
}

uint32_t platTimeGetMonotonic(uint64_t* milliseconds) {
  if (!milliseconds) return PLAT_RC_ARGUMENT;
  timespec clock;
  if (clock_gettime(CLOCK_MONOTONIC, &clock) != 0) return PLAT_RC_SYSTEM;
  *milliseconds =
      static_cast<uint64_t>(clock.tv_sec) * 1000 + static_cast<uint64_t>(clock.tv_nsec) / 1000000;
  return 0;
}

void platSleep(uint32_t milliseconds) {
  const timespec length = {static_cast<time_t>(milliseconds / 1000),
                           static_cast<long>(milliseconds % 1000) * 1000000};
  clock_nanosleep(CLOCK_MONOTONIC, 0, &length, nullptr);
}

uint64_t platTimeNanoseconds() {
  timespec clock;
  clock_gettime(CLOCK_REALTIME, &clock);
  return static_cast<uint64_t>(clock.tv_sec) * 1000000000 + static_cast<uint64_t>(clock.tv_nsec);
}
