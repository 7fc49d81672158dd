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
#include <time.h>
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
  return markOf(latch) != kForeignLatchMark && threadHasEnded(owner);
}

constexpr PLATLatchWait kNoLimit = {nullptr, 0, PLAT_LATCH_NO_LIMIT};

long now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<long>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

// One get, from its first look at the latch to the end of its wait.
class Get {
 public:
  Get(PLATLatch* latch, bool unmade, const PLATLatchWait& wait)
      : latch_(latch), unmade_(unmade), wait_(wait), self_(threadIdentity()) {}

  // *ownerDied is written only when the owner had died.
  uint32_t run(uint32_t* ownerDied) {
    if (!unmade_) markForeign(latch_, self_.space);
    if (mayHold() && replace(latch_, 0, self_.owner)) return keep(0);
    const long start = now();
    // From here on the caller takes the latch with the waiters bit set: others may have gone to
    // sleep under the bit that a release has cleared.
    for (long sleep = kFirstWaitMs; mayHold();) {
      const uint64_t seen = load(&latch_->word);
      const uint64_t owner = seen & ~kWaiters;
      if (owner == 0) {
        if (replace(latch_, seen, self_.owner | kWaiters)) return keep(seen);
        continue;
      }
      if (owner == self_.owner) return PLAT_RC_ALREADY_OWNER;
      const uint64_t awaited = owner | kWaiters;
      const long left = wait_.longestMs < 0 ? sleep : wait_.longestMs - (now() - start);
      if (left > 0) {
        if (seen != awaited && !replace(latch_, seen, awaited)) continue;
        if (!sleptInVain(latch_, awaited, sleep < left ? sleep : left)) continue;
      }
      if (mayTakeOver(latch_, owner)) {
        const uint64_t dead = left > 0 ? awaited : seen;
        if (!replace(latch_, dead, self_.owner | kWaiters)) continue;
        const uint32_t code = keep(dead);
        if (code == 0 && ownerDied) *ownerDied = 1;
        return code;
      }
      if (left <= 0) return PLAT_RC_TIMEOUT;
      sleep = sleep * 2 < kLongestWaitMs ? sleep * 2 : kLongestWaitMs;
    }
    return PLAT_RC_NO_LATCH;
  }

 private:
  bool mayHold() const { return (unmade_ || isLatch(latch_)) && latchStampStands(wait_); }

  // The latch was taken. Puts the word back if it is a stranger's.
  uint32_t keep(uint64_t before) {
    if (mayHold()) return 0;
    uint64_t held = load(&latch_->word);
    while ((held & ~kWaiters) == self_.owner && !replace(latch_, held, before | (held & kWaiters)))
      held = load(&latch_->word);
    return PLAT_RC_NO_LATCH;
  }

  PLATLatch* latch_;
  bool unmade_;
  const PLATLatchWait& wait_;
  const PLATThreadIdentity& self_;
};

void makeReady(PLATLatch* latch) {
  const uint32_t space = threadIdentity().space;
  __atomic_store_n(&latch->space, space, __ATOMIC_RELAXED);
  __atomic_store_n(&latch->mark, space == kUnknownSpace ? kForeignLatchMark : kLatchMark,
                   __ATOMIC_RELEASE);
}

uint32_t getNoticing(void* cell, bool unmade, const PLATLatchWait* wait, uint32_t* ownerDied) {
  if (!cell || !wait || !ownerDied) return PLAT_RC_ARGUMENT;
  *ownerDied = 0;
  return Get(latchAt(cell), unmade, *wait).run(ownerDied);
}

}  // namespace
}  // namespace plat

using namespace plat;

uint32_t platVLatchInit(void* cell, uint32_t) {
  if (!cell) return PLAT_RC_ARGUMENT;
  makeReady(latchAt(cell));
  __atomic_store_n(&latchAt(cell)->word, 0, __ATOMIC_RELEASE);
  return 0;
}

uint32_t platVLatchMark(void* cell) {
  if (!platVLatchIsHeld(cell)) return PLAT_RC_NOT_OWNER;
  makeReady(latchAt(cell));
  return 0;
}

uint32_t platLatchGetSlow(void* cell, uint32_t* ownerDied, const PLATLatchWait* wait) {
  return Get(latchAt(cell), false, wait ? *wait : kNoLimit).run(ownerDied);
}

uint32_t platVLatchGetWithin(void* cell, const PLATLatchWait* wait, uint32_t* ownerDied) {
  return getNoticing(cell, false, wait, ownerDied);
}

uint32_t platVLatchGetUnmade(void* cell, const PLATLatchWait* wait, uint32_t* ownerDied) {
  return getNoticing(cell, true, wait, ownerDied);
}

uint32_t platVLatchOwner(const void* cell, PLATLatchOwner* owner) {
  if (!cell || !owner) return PLAT_RC_ARGUMENT;
  const PLATLatch* latch = latchAt(const_cast<void*>(cell));
  const uint64_t word = load(&latch->word) & ~kWaiters;
  owner->thread = static_cast<uint32_t>(word & kThreadMask);
  owner->process = 0;
  owner->token = static_cast<uint32_t>(word >> 32);
  owner->state = !isLatch(latch)                  ? PLAT_LATCH_NONE
                 : word == 0                      ? PLAT_LATCH_FREE
                 : word == threadIdentity().owner ? PLAT_LATCH_SELF
                 : mayTakeOver(latch, word)       ? PLAT_LATCH_DEAD
                                                  : PLAT_LATCH_ALIVE;
  return 0;
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
