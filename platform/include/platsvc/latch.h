/* Latches: between processes, and between the threads of one process. */
#ifndef PLATSVC_LATCH_H
#define PLATSVC_LATCH_H

#include <stddef.h>

#include "platsvc/base.h"
#include "platsvc/codes.h"

PLAT_BEGIN_C

/* Bytes at the start of a latch cell that the latch uses, whatever the cell's alignment. The rest
 * of a larger cell belongs to its owner, and no latch operation touches it. A mapping must keep
 * the cell's alignment modulo 8, which page-aligned segments do. */
#define PLAT_LATCH_BYTES 24

/* A latch word names its owner: the thread, and the life token of its process, by which every
 * process of the same IPC namespace can tell whether the owner's process lives, whatever its user,
 * its pid namespace and its process id. A token is a private segment of one page that the process
 * makes in front of its first get, and that the kernel ends with the process, or with its memory
 * when it executes another program. PLAT_RC_NO_TOKEN if no segment is left (kernel.shmmni). */

/* Makes a latch cell ready and free. `one` is 1. */
PLAT_API uint32_t platVLatchInit(void* cell, uint32_t one);

/* Waits until the calling thread holds the latch. A latch whose owner's process has died is taken
 * over within 100 ms. So is one whose owner was a thread that ended, by the threads of the same
 * process, and within 300 ms by those of its pid namespace that can read its status in /proc;
 * others wait until its process ends. A stopped owner is waited for. Who has waited 10 ms goes
 * first: those that come later, or again, stand behind. Not recursive: PLAT_RC_ALREADY_OWNER if the
 * calling thread holds it. PLAT_RC_NO_LATCH if the cell holds no latch, or does no longer: whoever
 * waits for a latch whose memory is freed and filled is let go. PLAT_RC_FOREIGN_LATCH if the latch
 * was made in another IPC namespace than the token of this process, or the calling thread has left
 * the token's since and would have to wait. */
PLAT_API uint32_t platVLatchGet(void* cell);

/* The same, and sets *ownerDied to 1 if the latch was taken over from a dead owner, else to 0. */
PLAT_API uint32_t platVLatchGetNoticing(void* cell, uint32_t* ownerDied);

/* 1 if the calling thread holds the latch, else 0. */
PLAT_API uint32_t platVLatchIsHeld(const void* cell);

/* For what and how long a get waits. */
typedef struct PLATLatchWait {
  /* Null, or 8 bytes, 4-aligned, that change when the memory of the cell is put to other use. They
   * are compared with stampSeen after each sleep, and once the latch is held; a latch that another
   * value shows to be a stranger's is left as it was found, and the result is PLAT_RC_NO_LATCH. */
  const void* stamp;
  uint64_t stampSeen;
  /* Milliseconds after which an owner that lives is waited for no longer: PLAT_RC_TIMEOUT. 0 never
   * waits, and takes over from a dead owner at once; below 0 is no limit. */
  int32_t longestMs;
} PLATLatchWait;

#define PLAT_LATCH_NO_LIMIT (-1)

/* platVLatchGetNoticing with a wait of one's own. */
PLAT_API uint32_t platVLatchGetWithin(void* cell, const PLATLatchWait* wait, uint32_t* ownerDied);

/* The same on a cell that may not be ready yet: one that was never made ready is free while its
 * word is 0, or names no life token that stands. For whoever makes the memory around it, and would
 * not have two do so: he who has the latch looks whether it was made meanwhile, makes it, marks the
 * cell, and releases it. *ownerDied tells of a maker that died. */
PLAT_API uint32_t platVLatchGetUnmade(void* cell, const PLATLatchWait* wait, uint32_t* ownerDied);

/* Makes ready a cell whose latch the calling thread got in that way, and goes on holding it. */
PLAT_API uint32_t platVLatchMark(void* cell);

/* What a look at a latch shows; it may be over as soon as the call returns. */
typedef struct PLATLatchOwner {
  uint32_t state;   /* PLAT_LATCH_... */
  uint32_t thread;  /* the owner's kernel thread id, as its own namespace has it; 0 if free */
  uint32_t process; /* its process as the caller sees it; 0 if that cannot be seen */
  uint32_t token;   /* its life token; 0 if free */
} PLATLatchOwner;

#define PLAT_LATCH_NONE 0u  /* the cell holds no latch; the rest is what its word would mean */
#define PLAT_LATCH_FREE 1u  /* nobody holds it */
#define PLAT_LATCH_SELF 2u  /* the calling thread holds it */
#define PLAT_LATCH_ALIVE 3u /* another thread holds it, which lives, or cannot be judged */
#define PLAT_LATCH_DEAD 4u  /* its owner died; the next get takes it over */

/* Looks at a latch and takes nothing, waits for nobody, writes nothing: a read-only mapping will
 * do. Makes system calls if the latch is held by another thread. */
PLAT_API uint32_t platVLatchOwner(const void* cell, PLATLatchOwner* owner);

/* Frees the latch. PLAT_RC_NOT_OWNER, and nothing changed, if the calling thread does not hold it;
 * a forked child does not hold what its parent holds. */
PLAT_API uint32_t platVLatchRelease(void* cell);

/* Byte latches, between the threads of one process; 0 is the free state. */

/* Non-zero if the latch is busy; 0 if the caller now holds it. */
PLAT_API uint32_t platLinuxIA32AtomicTryLock8Internal(uint8_t* latch);
/* Waits until the caller holds the latch. */
PLAT_API void platLockGetConflict(uint8_t* latch);
/* The same, for about that long at most: non-zero if the latch is still busy then. */
PLAT_API uint32_t platByteLatchGetWithin(uint8_t* latch, uint32_t milliseconds);
/* Frees the latch. */
PLAT_API void platLinuxIA32AtomicReleaseLock8Internal(uint8_t* latch);

PLAT_END_C

#ifdef __cplusplus

/* What lies in a cell, at its first 8-aligned address. The layout is shared by 32-bit and 64-bit
 * processes. */
struct PLATLatch {
  /* 0: free. Else the owner: thread id in bits 0 to 21, the number of the thread among those of its
   * process in bits 22 to 30, the life token of its process in bits 32 to 62. Bit 31 is set if
   * somebody may be waiting, bit 63 if somebody has waited for long. With these two bits and no
   * owner the latch is free for those who have. */
  uint64_t word;
  uint32_t space; /* the IPC namespace of the maker: its inode, or 1 where that could not be read */
  uint32_t mark;  /* latchMark(space) */
};

static_assert(sizeof(PLATLatch) == 16 && offsetof(PLATLatch, space) == 8 &&
                  offsetof(PLATLatch, mark) == 12 && 7 + sizeof(PLATLatch) <= PLAT_LATCH_BYTES,
              "latches are shared between processes");

/* The calling thread as latches know it. */
struct PLATThreadIdentity {
  uint64_t owner; /* what it writes into a latch word */
  /* Leads to the complement of the mark that latches have in the namespace of the process's token.
   * It is 0, which no such complement is, until the thread's first get, and again in a forked
   * child, for the kernel wipes it there: then the thread is told anew who it is. */
  const uint32_t* key;
};

extern "C" {
extern PLAT_API __thread __attribute__((tls_model("initial-exec")))
PLATThreadIdentity platThreadIdentity;

/* The whole of get and release, whatever stopped the short paths below. *ownerDied is written only
 * when the owner had died; ownerDied may be null, and wait, for no limit and no stamp. */
PLAT_API uint32_t platLatchGetSlow(void* cell, uint32_t* ownerDied, const PLATLatchWait* wait);
PLAT_API uint32_t platLatchReleaseSlow(void* cell);
}

namespace plat {

constexpr uint32_t latchMark(uint32_t space) { return 0x6c617463 ^ space; }

inline PLATLatch* latchAt(void* cell) {
  return reinterpret_cast<PLATLatch*>((reinterpret_cast<uintptr_t>(cell) + 7) & ~uintptr_t{7});
}

// Whether a cell was made ready, and still is a latch.
inline bool isLatch(const void* cell) {
  const PLATLatch* latch = latchAt(const_cast<void*>(cell));
  const uint32_t space = __atomic_load_n(&latch->space, __ATOMIC_RELAXED);
  return space != 0 && __atomic_load_n(&latch->mark, __ATOMIC_RELAXED) == latchMark(space);
}

// The get of a free latch.
inline bool latchTake(void* cell) {
  PLATLatch* latch = latchAt(cell);
  uint64_t free = 0;
  return __builtin_expect(
      __atomic_load_n(&latch->mark, __ATOMIC_RELAXED) ==
              ~__atomic_load_n(platThreadIdentity.key, __ATOMIC_RELAXED) &&
          __atomic_compare_exchange_n(&latch->word, &free, platThreadIdentity.owner, false,
                                      __ATOMIC_ACQUIRE, __ATOMIC_RELAXED),
      1);
}

// Whether the memory around a latch is what it was. Two loads, since a locked one would write.
inline bool latchStampStands(const PLATLatchWait& wait) {
  if (!wait.stamp) return true;
  const uint32_t* half = static_cast<const uint32_t*>(wait.stamp);
  return __atomic_load_n(half, __ATOMIC_RELAXED) == static_cast<uint32_t>(wait.stampSeen) &&
         __atomic_load_n(half + 1, __ATOMIC_RELAXED) == static_cast<uint32_t>(wait.stampSeen >> 32);
}

// The two operations of the hot paths. Release is not for what another process than the caller's
// got, not even its parent by a bare clone. *ownerDied is written only when the owner had died.
inline uint32_t latchGet(void* cell, uint32_t* ownerDied) {
  return latchTake(cell) ? 0 : platLatchGetSlow(cell, ownerDied, nullptr);
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

// A get with a wait of its own, which is read only if the latch is not free or has a stamp.
inline uint32_t latchGet(void* cell, uint32_t* ownerDied, const PLATLatchWait& wait) {
  if (!latchTake(cell)) return platLatchGetSlow(cell, ownerDied, &wait);
  if (__builtin_expect(latchStampStands(wait), 1)) return 0;
  latchRelease(cell);
  return PLAT_RC_NO_LATCH;
}

}  // namespace plat
#endif
#endif
