#include "platsvc/memory.h"

#include <stdlib.h>

#include "platsvc/codes.h"

uint32_t _platMemAlloc(void** block, uint32_t, uint32_t size, uint32_t, const char*, uint32_t) {
  if (!block) return PLAT_RC_ARGUMENT;
  *block = malloc(size ? size : 1);
  return *block ? PLAT_RC_OK : PLAT_RC_NO_MEMORY;
}

uint32_t _platMemFree(void** block, uint32_t, uint32_t, const char*, uint32_t) {
  if (!block || !*block) return PLAT_RC_ARGUMENT;
  free(*block);
  *block = nullptr;
  return 0;
}
