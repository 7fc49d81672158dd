/* Latches: between processes, and between the threads of one process. */
#ifndef PLATSVC_LATCH_H
#define PLATSVC_LATCH_H

#include <stddef.h>

#include "platsvc/base.h"

PLAT_BEGIN_C

/* Bytes at the start of a latch cell that the latch uses, whatever the cell's alignment. The rest
 * of a larger cell belongs to its owner, and no latch operation touches it. A mapping must keep
 * the cell's alignment modulo 8, which page-aligned segments do. */
#define PLAT_LATCH_BYTES 24

/* Makes a latch cell ready and free. `one` is 1. */
PLAT_API uint32_t platVLatchInit(void* cell, uint32_t one);

/* Waits until the calling thread holds the latch. A latch whose owner has died, killed or ended,
 * is taken over within 100 ms. A stopped owner is waited for; so is every owner once a process of
 * another pid or time namespace has used the latch, for such processes cannot tell whether the
 * other lives. Not recursive: PLAT_RC_ALREADY_OWNER if the calling thread holds it.
 * PLAT_RC_NO_LATCH if the cell holds no latch, or does no longer: whoever waits for a latch whose
 * memory is freed and filled is let go. */
PLAT_API uint32_t platVLatchGet(void* cell);

/* The same, and sets *ownerDied to 1 if the latch was taken over from a dead owner, else to 0. */
PLAT_API uint32_t platVLatchGetNoticing(void* cell, uint32_t* ownerDied);

/* 1 if the calling thread holds the latch, else 0. */
PLAT_API uint32_t platVLatchIsHeld(const void* cell);

/* Frees the latch. PLAT_RC_NOT_OWNER, and nothing changed, if the calling thread does not hold it;
 * a forked child does not hold what its parent holds. */
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

/* What lies in a cell, at its first 8-aligned address. The layout is shared by 32-bit and 64-bit
 * processes. */
struct PLATLatch {
  /* 0: free. Else the owner: thread id in bits 0 to 30, bit 31 set if somebody may be waiting, and
   * the low 32 bits of the thread's start time above. Waiters sleep on the low half. */
  uint64_t word;
  uint32_t space; /* the namespaces of the process that made the latch */
  uint32_t mark;  /* one of the two below */
};

static_assert(sizeof(PLATLatch) == 16 && offsetof(PLATLatch, space) == 8 &&
                  offsetof(PLATLatch, mark) == 12 && 7 + sizeof(PLATLatch) <= PLAT_LATCH_BYTES,
              "latches are shared between processes");

constexpr uint32_t kLatchMark = 0x6c617463;
/* A process of other namespaces has come: no takeover any more. */
constexpr uint32_t kForeignLatchMark = 0x6c617466;

/* The calling thread as latches know it: `owner` is what it writes into a latch word. Until the
 * thread's first latch operation, and in a forked child, both hold values that no latch holds, so
 * that the operations below take their slow paths, which fill them. */
struct PLATThreadIdentity {
  uint64_t owner;
  uint32_t space;
};

extern "C" {
extern PLAT_API __thread __attribute__((tls_model("initial-exec")))
PLATThreadIdentity platThreadIdentity;

/* The whole of get and release, whatever stopped the short paths below. *ownerDied is written only
 * when the owner had died; ownerDied may be null. */
PLAT_API uint32_t platLatchGetSlow(void* cell, uint32_t* ownerDied);
PLAT_API uint32_t platLatchReleaseSlow(void* cell);
}

namespace plat {

inline PLATLatch* latchAt(void* cell) {
  return reinterpret_cast<PLATLatch*>((reinterpret_cast<uintptr_t>(cell) + 7) & ~uintptr_t{7});
}

/* The two operations of the hot paths. *ownerDied is written only when the owner had died. */
inline uint32_t latchGet(void* cell, uint32_t* ownerDied) {
  PLATLatch* latch = latchAt(cell);
  uint64_t free = 0;
  if (__builtin_expect(
          __atomic_load_n(&latch->mark, __ATOMIC_RELAXED) == kLatchMark &&
              __atomic_load_n(&latch->space, __ATOMIC_RELAXED) == platThreadIdentity.space &&
              __atomic_compare_exchange_n(&latch->word, &free, platThreadIdentity.owner, false,
                                          __ATOMIC_ACQUIRE, __ATOMIC_RELAXED),
          1)) {
    return 0;
  }
  return platLatchGetSlow(cell, ownerDied);
}

inline uint32_t latchRelease(void* cell) {
  uint64_t owned = platThreadIdentity.owner;
  if (__builtin_expect(__atomic_compare_exchange_n(&latchAt(cell)->word, &owned, uint64_t{0}, false,
                                                   __ATOMIC_RELEASE, __ATOMIC_RELAXED),
                       1)) {
    return 0;
  }
  return platLatchReleaseSlow(cell);
}

}  // namespace plat
#endif
#endif
