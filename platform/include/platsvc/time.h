/* Time. */
#ifndef PLATSVC_TIME_H
#define PLATSVC_TIME_H

#include "platsvc/base.h"

PLAT_BEGIN_C

/* A look at the clock. The tick is UTC in tenths of a second, its low 16 bits: it wraps every
 * 109 minutes and 13.6 seconds. */
typedef struct PLATTime {
  uint32_t seconds; /* UTC seconds since 1970, low 32 bits */
  uint16_t tick;    /* tenths of a second, modulo 65536 */
  uint16_t spare;
} PLATTime;

PLAT_API uint32_t platTimeGetUTC(PLATTime* now);

/* Nanoseconds since 1970 in UTC. */
PLAT_API uint64_t platTimeNanoseconds(void);

/* A number that no process of this machine has drawn before or will draw again: made of the clock,
 * the process and a counter. Never 0 and never all ones. */
PLAT_API uint64_t platDrawStamp(void);

/* Milliseconds of a clock that nobody sets: it only goes forward, from a start of its own. */
PLAT_API uint32_t platTimeGetMonotonic(uint64_t* milliseconds);

/* Sleeps for so long, or until a signal comes. */
PLAT_API void platSleep(uint32_t milliseconds);

PLAT_END_C
#endif
