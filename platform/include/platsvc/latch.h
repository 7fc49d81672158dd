/* Latches: between processes, and between the threads of one process. */
#ifndef PLATSVC_LATCH_H
#define PLATSVC_LATCH_H

#include "platsvc/base.h"

PLAT_BEGIN_C

/* Bytes at the start of a latch cell that the latch uses, whatever the cell's alignment. The rest
 * of a larger cell belongs to its owner, and no latch operation touches it. */
#define PLAT_LATCH_BYTES 24

/* Makes a latch cell ready and free. `one` is 1. */
PLAT_API uint32_t platVLatchInit(void* cell, uint32_t one);

/* Waits until the calling thread holds the latch. A latch whose owner has died, killed or ended,
 * is taken over within 100 ms; a stopped owner, or one in another pid namespace, is waited for.
 * Not recursive. */
PLAT_API uint32_t platVLatchGet(void* cell);

/* The same, and sets *ownerDied to 1 if the latch was taken over from a dead owner, else to 0. */
PLAT_API uint32_t platVLatchGetNoticing(void* cell, uint32_t* ownerDied);

/* Frees the latch. Non-zero, and nothing changed, if the calling thread does not hold it. */
PLAT_API uint32_t platVLatchRelease(void* cell);

/* Byte latches, between the threads of one process; 0 is the free state. */

/* Non-zero if the latch is busy; 0 if the caller now holds it. */
PLAT_API uint32_t platLinuxIA32AtomicTryLock8Internal(uint8_t* latch);
/* Waits until the caller holds the latch. */
PLAT_API void platLockGetConflict(uint8_t* latch);
/* Frees the latch. */
PLAT_API void platLinuxIA32AtomicReleaseLock8Internal(uint8_t* latch);

PLAT_END_C

#ifdef __cplusplus
namespace plat {

/* The two operations of the hot paths. *ownerDied is written only when the owner had died. */
inline uint32_t latchGet(void* cell, uint32_t* ownerDied) {
  return platVLatchGetNoticing(cell, ownerDied);
}
inline uint32_t latchRelease(void* cell) { return platVLatchRelease(cell); }

}  // namespace plat
#endif
#endif
