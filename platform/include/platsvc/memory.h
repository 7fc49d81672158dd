/* Process memory. */
#ifndef PLATSVC_MEMORY_H
#define PLATSVC_MEMORY_H

#include "platsvc/base.h"

PLAT_BEGIN_C

/* Allocates size bytes, aligned for any object, and stores their address in *block. A size of 0
 * gives a block of 1 byte. pool is 0 and one is 1. On failure *block is null. */
PLAT_API uint32_t _platMemAlloc(void** block, uint32_t pool, uint32_t size, uint32_t one,
                                const char* file, uint32_t line);

/* Frees *block and sets it to null. pool and options are 0. Non-zero for a null block. */
PLAT_API uint32_t _platMemFree(void** block, uint32_t pool, uint32_t options, const char* file,
                               uint32_t line);

PLAT_END_C
#endif
