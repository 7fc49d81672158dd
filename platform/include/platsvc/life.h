/* Processes: who this one is, and whether another still lives. */
#ifndef PLATSVC_LIFE_H
#define PLATSVC_LIFE_H

#include "platsvc/base.h"

PLAT_BEGIN_C

/* The life token of this process: a number that tells every process of the same IPC namespace, of
 * any user and pid namespace, whether this process still runs this program. Made at the first call;
 * PLAT_RC_NO_TOKEN if the system has no room for it. *token is then 0. */
PLAT_API uint32_t platLifeToken(uint32_t* token);

/* 0 if the process of that token has ended or replaced its program, else 1. Costs one system call.
 * A token of 0 names nobody. */
PLAT_API uint32_t platLifeTokenLives(uint32_t token);

/* The process's id in its own pid namespace. */
PLAT_API uint32_t platProcessID(void);

PLAT_END_C
#endif
