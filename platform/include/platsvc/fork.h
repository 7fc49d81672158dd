/* What happens around a fork. */
#ifndef PLATSVC_FORK_H
#define PLATSVC_FORK_H

#include "platsvc/base.h"

PLAT_BEGIN_C

/* Has prepare called before each fork, in the thread that forks, and behind it parent in that
 * process and child in the new one. Each may be null. What is registered last is prepared first,
 * and called last behind the fork. For the life of the process: the caller's library must stay
 * loaded. A bare clone calls none of them. */
PLAT_API uint32_t platAtFork(void (*prepare)(void), void (*parent)(void), void (*child)(void));

PLAT_END_C

#endif
