// Latches between processes. A latch word names its owner, so that whoever waits can see that the
// owner has died, and take over by one compare-and-swap against the very word that it looked at:
// nobody else can have got the latch in between without changing it.
//
// Waiters sleep in timed waits. That is how they get to look at the owner, and it also covers the
// death of a thread between freeing the word and waking a waiter. A cell can be taken away, its
// memory put to other use, while somebody waits: its mark tells.

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platsvc/codes.h"
#include "thread.h"

namespace plat {
namespace {

constexpr long kFirstWaitMs = 1;
constexpr long kLongestWaitMs = 50;

uint64_t load(const uint64_t* word) { return __atomic_load_n(word, __ATOMIC_ACQUIRE); }

bool replace(PLATLatch* latch, uint64_t seen, uint64_t next) {
  return __atomic_compare_exchange_n(&latch->word, &seen, next, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_RELAXED);
}

// The half of the word that holds the thread id and the waiters bit.
uint32_t* futexOf(PLATLatch* latch) { return reinterpret_cast<uint32_t*>(&latch->word); }

// Sleeps while the low half of the word is as seen. True if the wait ended for no news: its time
// was over, or a signal came.
bool sleptInVain(PLATLatch* latch, uint64_t seen, long milliseconds) {
  const long timeout[2] = {0, milliseconds * 1000000};  // what the plain futex call takes
  return syscall(SYS_futex, futexOf(latch), FUTEX_WAIT, static_cast<uint32_t>(seen), timeout,
                 nullptr, 0) != 0 &&
         errno != EAGAIN;
}

uint32_t markOf(const PLATLatch* latch) { return __atomic_load_n(&latch->mark, __ATOMIC_SEQ_CST); }

bool isLatch(const PLATLatch* latch) {
  const uint32_t mark = markOf(latch);
  return mark == kLatchMark || mark == kForeignLatchMark;
}

// Enters the caller on a latch made in other namespaces. Done before the caller's owner word can
// be seen there, so that whoever sees the word sees the mark as well.
void markForeign(PLATLatch* latch, uint32_t space) {
  uint32_t mark = kLatchMark;
  if (__atomic_load_n(&latch->space, __ATOMIC_RELAXED) != space) {
    __atomic_compare_exchange_n(&latch->mark, &mark, kForeignLatchMark, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_RELAXED);
  }
}

bool mayTakeOver(const PLATLatch* latch, uint64_t owner) {
  return markOf(latch) == kLatchMark && threadHasEnded(owner);
}

}  // namespace
}  // namespace plat

using namespace plat;

uint32_t platVLatchInit(void* cell, uint32_t) {
  if (!cell) return PLAT_RC_ARGUMENT;
  PLATLatch* latch = latchAt(cell);
  const uint32_t space = threadIdentity().space;
  __atomic_store_n(&latch->space, space, __ATOMIC_RELAXED);
  __atomic_store_n(&latch->mark, space == kUnknownSpace ? kForeignLatchMark : kLatchMark,
                   __ATOMIC_RELAXED);
  __atomic_store_n(&latch->word, 0, __ATOMIC_RELEASE);
  return 0;
}

uint32_t platLatchGetSlow(void* cell, uint32_t* ownerDied) {
  PLATLatch* latch = latchAt(cell);
  const PLATThreadIdentity& self = threadIdentity();
  markForeign(latch, self.space);
  if (isLatch(latch) && replace(latch, 0, self.owner)) return 0;

  // From here on the caller takes the latch with the waiters bit set: others may have gone to
  // sleep under the bit that a release has cleared.
  for (long wait = kFirstWaitMs; isLatch(latch);) {
    const uint64_t seen = load(&latch->word);
    const uint64_t owner = seen & ~kWaiters;
    if (owner == 0) {
      if (replace(latch, seen, self.owner | kWaiters)) return 0;
      continue;
    }
    if (owner == self.owner) return PLAT_RC_ALREADY_OWNER;
    const uint64_t awaited = owner | kWaiters;
    if (seen != awaited && !replace(latch, seen, awaited)) continue;
    if (!sleptInVain(latch, awaited, wait)) continue;
    if (mayTakeOver(latch, owner) && replace(latch, awaited, self.owner | kWaiters)) {
      if (ownerDied) *ownerDied = 1;
      return 0;
    }
    wait = wait * 2 < kLongestWaitMs ? wait * 2 : kLongestWaitMs;
  }
  return PLAT_RC_NO_LATCH;
}

uint32_t platVLatchIsHeld(const void* cell) {
  if (!cell) return 0;
  const PLATLatch* latch = latchAt(const_cast<void*>(cell));
  return (load(&latch->word) & ~kWaiters) == threadIdentity().owner;
}

uint32_t platLatchReleaseSlow(void* cell) {
  if (!platVLatchIsHeld(cell)) return PLAT_RC_NOT_OWNER;
  PLATLatch* latch = latchAt(cell);
  const uint64_t last = __atomic_exchange_n(&latch->word, 0, __ATOMIC_RELEASE);
  if (last & kWaiters) syscall(SYS_futex, futexOf(latch), FUTEX_WAKE, 1, nullptr, nullptr, 0);
  return 0;
}

uint32_t platVLatchGet(void* cell) { return cell ? latchGet(cell, nullptr) : PLAT_RC_ARGUMENT; }

uint32_t platVLatchGetNoticing(void* cell, uint32_t* ownerDied) {
  if (!cell || !ownerDied) return PLAT_RC_ARGUMENT;
  *ownerDied = 0;
  return latchGet(cell, ownerDied);
}

uint32_t platVLatchRelease(void* cell) { return cell ? latchRelease(cell) : PLAT_RC_ARGUMENT; }
