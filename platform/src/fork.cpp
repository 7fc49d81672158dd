#include "platsvc/fork.h"

#include <pthread.h>

#include "platsvc/codes.h"

uint32_t platAtFork(void (*prepare)(), void (*parent)(), void (*child)()) {
  return pthread_atfork(prepare, parent, child) == 0 ? PLAT_RC_OK : PLAT_RC_NO_MEMORY;
}
