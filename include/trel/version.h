/* The version of the library. The format in shared memory has its own: TREL_STRUCTURE_VERSION. */
#ifndef TREL_VERSION_H
#define TREL_VERSION_H

#include "trel/records.h"

#define TREL_VERSION_MAJOR 1
#define TREL_VERSION_MINOR 0
#define TREL_VERSION_PATCH 0
/* One number to compare by, in preprocessor conditions too: 10000 for 1.0.0. */
#define TREL_VERSION (TREL_VERSION_MAJOR * 10000 + TREL_VERSION_MINOR * 100 + TREL_VERSION_PATCH)

TREL_BEGIN_C

/* The TREL_VERSION of the library that runs, which may be newer than the one compiled against. */
TREL_API uint32_t trelVersion(void);

TREL_END_C
#endif
