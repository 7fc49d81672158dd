// Latches between processes. A latch word names its owner, so that whoever waits can see that the
// owner has died, and take over by one compare-and-swap against the very word that it looked at:
// nobody else can have got the latch in between without changing it.
//
// Waiters sleep in timed waits. That is how they get to look at the owner, and it also covers every
// death on the way of the latch from one to the next. Two bits of the word tell the owner to come
// along the slow way when it leaves: kWaiters, that somebody may sleep on the low half of the word,
// and kUrgent, that somebody who has waited for long may sleep on the high half. Where one does,
// the latch is handed to its kind: the word becomes kReserved, at which all others wait until they
// have waited for long themselves. So if he who was woken for it dies, it costs others that time
// once. A bit that is lost, since others took the free latch meanwhile, is set again after the next
// sleep.
//
// A cell can be taken away, its memory put to other use, while somebody waits: its mark tells, and
// the stamp that a caller may watch.

#include <errno.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "platsvc/codes.h"
#include "token.h"

namespace plat {
namespace {

// Milliseconds.
constexpr long kFirstSleep = 1;
constexpr long kLongestSleep = 50;
constexpr long kUrgentWait = 10;  // after which a waiter goes first
constexpr long kFirstThorough = 60;
constexpr long kThoroughEvery = 230;

constexpr uint64_t kReserved = kUrgent | kWaiters;
constexpr PLATLatchWait kNoLimit = {nullptr, 0, PLAT_LATCH_NO_LIMIT};

uint64_t load(const uint64_t* word) { return __atomic_load_n(word, __ATOMIC_ACQUIRE); }

bool replace(PLATLatch* latch, uint64_t seen, uint64_t next) {
  return __atomic_compare_exchange_n(&latch->word, &seen, next, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_RELAXED);
}

// The half of the word on which the urgent waiters sleep, or the others.
uint32_t* futexOf(PLATLatch* latch, bool urgent) {
  return reinterpret_cast<uint32_t*>(&latch->word) + urgent;
}

// Sleeps while that half of the word is as seen. True if the wait ended for no news: its time was
// over, or a signal came.
bool sleptInVain(PLATLatch* latch, bool urgent, uint64_t seen, long milliseconds) {
  const long timeout[2] = {0, milliseconds * 1000000};  // what the plain futex call takes
  return syscall(SYS_futex, futexOf(latch, urgent), FUTEX_WAIT,
                 static_cast<uint32_t>(urgent ? seen >> 32 : seen), timeout, nullptr, 0) != 0 &&
         errno != EAGAIN;
}

// Whether there was one.
bool wakeOne(PLATLatch* latch, bool urgent) {
  return syscall(SYS_futex, futexOf(latch, urgent), FUTEX_WAKE, 1, nullptr, nullptr, 0) == 1;
}

// Whether somebody sleeps there. Moving one sleeper to where he is changes nothing, and counts him.
bool hasUrgentSleeper(PLATLatch* latch, uint64_t seen) {
  uint32_t* futex = futexOf(latch, true);
  return syscall(SYS_futex, futex, FUTEX_CMP_REQUEUE, 0, 1L, futex,
                 static_cast<uint32_t>(seen >> 32)) == 1;
}

long now() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<long>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

uint32_t spaceOf(const PLATLatch* latch) {
  return __atomic_load_n(&latch->space, __ATOMIC_RELAXED);
}

// Whether thread ids and tokens mean the same to makers of a latch there and to who is here.
bool isOneSpace(uint32_t there, uint32_t here) {
  return there == here || there == kUnknownSpace || here == kUnknownSpace;
}

// Lets go of a latch that the caller holds. The latch can be gone with the store, so what else
// there is to know is found out before it.
void letGo(PLATLatch* latch) {
  for (;;) {
    const uint64_t seen = load(&latch->word);
    const bool urgent = seen & kUrgent;
    const bool reserves = urgent && hasUrgentSleeper(latch, seen);
    if (!replace(latch, seen, reserves ? kReserved : 0)) continue;
    // An urgent waiter may have gone to sleep after the look.
    if (urgent && wakeOne(latch, true)) return;
    if (!reserves && (seen & kWaiters)) wakeOne(latch, false);
    return;
  }
}

// One get, from its first look at the latch to the end of its wait.
class Get {
 public:
  Get(PLATLatch* latch, bool unmade, const PLATLatchWait& wait)
      : latch_(latch), unmade_(unmade), wait_(wait) {}

  // *ownerDied is written only when the owner had died.
  uint32_t run(uint32_t* ownerDied) {
    if (!mayHold()) return PLAT_RC_NO_LATCH;
    if (const uint32_t code = enrol()) return code;
    if (isLatch(latch_) && !isOneSpace(spaceOf(latch_), tokenSpace())) return PLAT_RC_FOREIGN_LATCH;
    self_ = platThreadIdentity.owner;
    for (uint32_t code = kGoOn;;) {
      const uint64_t seen = load(&latch_->word);
      const uint64_t owner = ownerOf(seen);
      if (owner == self_) return PLAT_RC_ALREADY_OWNER;
      if (owner == 0 ? mayTake(seen) : isFormerSelf(owner)) {
        code = take(seen, ownerDied);
      } else {
        code = wait(seen, ownerDied);
        if (code == kGoOn && !mayHold()) code = PLAT_RC_NO_LATCH;
      }
      if (code != kGoOn) return code;
    }
  }

 private:
  static constexpr uint32_t kGoOn = ~uint32_t{0};

  bool mayHold() const { return (unmade_ || isLatch(latch_)) && latchStampStands(wait_); }
  bool isOver() const { return wait_.longestMs >= 0 && waited_ >= wait_.longestMs; }
  // Whether a free latch is free for the caller.
  bool mayTake(uint64_t seen) const { return !(seen & kUrgent) || isUrgent_ || isOver(); }
  // Whether the owner was another thread of this process, which had the id that the caller has now.
  bool isFormerSelf(uint64_t owner) const {
    return tokenOf(owner) == tokenOf(self_) && threadOf(owner) == threadOf(self_);
  }

  // Takes a latch that is free or whose owner has died. Bits stay set, and kWaiters is set by
  // whoever has slept: others may have gone to sleep under a bit that a release has cleared since.
  uint32_t take(uint64_t seen, uint32_t* ownerDied) {
    const uint64_t bits =
        (seen & kReserved) | (start_ != 0 ? kWaiters : 0) | (isUrgent_ ? kUrgent : 0);
    if (!replace(latch_, seen, self_ | bits)) return kGoOn;
    if (!mayHold()) return putBack(ownerOf(seen));
    if (ownerOf(seen) != 0 && ownerDied) *ownerDied = 1;
    return 0;
  }

  // The latch turned out to be a stranger's. A dead owner's is left to those who will repair.
  uint32_t putBack(uint64_t owner) {
    for (uint64_t held = load(&latch_->word); ownerOf(held) == self_; held = load(&latch_->word)) {
      if (owner == 0) {
        letGo(latch_);
      } else {
        replace(latch_, held, owner | (held & kReserved));
      }
    }
    return PLAT_RC_NO_LATCH;
  }

  // Sleeps until there is news, or takes over, or gives up.
  uint32_t wait(uint64_t seen, uint32_t* ownerDied) {
    if (!isOver()) {
      const uint64_t awaited = seen | kWaiters | (isUrgent_ ? kUrgent : 0);
      if (seen != awaited && !replace(latch_, seen, awaited)) return kGoOn;
      if (!sleep(awaited)) return kGoOn;
      seen = awaited;
    }
    if (ownerOf(seen) != 0) {
      if (!seesItsToken()) return PLAT_RC_FOREIGN_LATCH;
      if (ownerHasEnded(seen, isThorough(), nullptr)) {
        const uint64_t last = load(&latch_->word);  // others may have set or lost a bit meanwhile
        return take(ownerOf(last) == ownerOf(seen) ? last : seen, ownerDied);
      }
    }
    return isOver() ? uint32_t{PLAT_RC_TIMEOUT} : kGoOn;
  }

  // True if it slept in vain, or a look at the owner is due: a word that never stands still is news
  // each time, and could be anybody's.
  bool sleep(uint64_t awaited) {
    if (start_ == 0) start_ = now();
    long time = nextSleep_;
    if (!isUrgent_ && time > kUrgentWait - waited_) time = kUrgentWait - waited_;
    if (wait_.longestMs >= 0 && time > wait_.longestMs - waited_) time = wait_.longestMs - waited_;
    const bool inVain = sleptInVain(latch_, isUrgent_, awaited, time);
    waited_ = now() - start_;
    isUrgent_ = waited_ >= kUrgentWait;
    if (inVain) nextSleep_ = nextSleep_ * 2 < kLongestSleep ? nextSleep_ * 2 : kLongestSleep;
    return inVain || waited_ >= nextThorough_;
  }

  // Whether it is time to ask procfs, which takes long, and finds what shmctl() does not.
  bool isThorough() {
    if (!isOver() && waited_ < nextThorough_) return false;
    nextThorough_ = waited_ + kThoroughEvery;
    return true;
  }

  PLATLatch* latch_;
  bool unmade_;
  const PLATLatchWait& wait_;
  uint64_t self_ = 0;
  long start_ = 0, waited_ = 0;  // 0 until the first sleep
  long nextSleep_ = kFirstSleep, nextThorough_ = kFirstThorough;
  bool isUrgent_ = false;
};

// The mark falls behind what it vouches for.
void makeReady(PLATLatch* latch) {
  const uint32_t space = enrol() == 0 ? tokenSpace() : currentSpace();
  __atomic_store_n(&latch->space, space, __ATOMIC_RELAXED);
  __atomic_store_n(&latch->mark, latchMark(space), __ATOMIC_RELEASE);
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

uint32_t platVLatchGet(void* cell) { return cell ? latchGet(cell, nullptr) : PLAT_RC_ARGUMENT; }

uint32_t platVLatchGetNoticing(void* cell, uint32_t* ownerDied) {
  if (!cell || !ownerDied) return PLAT_RC_ARGUMENT;
  *ownerDied = 0;
  return latchGet(cell, ownerDied);
}

uint32_t platVLatchGetWithin(void* cell, const PLATLatchWait* wait, uint32_t* ownerDied) {
  return getNoticing(cell, false, wait, ownerDied);
}

uint32_t platVLatchGetUnmade(void* cell, const PLATLatchWait* wait, uint32_t* ownerDied) {
  return getNoticing(cell, true, wait, ownerDied);
}

uint32_t platVLatchIsHeld(const void* cell) {
  if (!cell || enrol() != 0) return 0;
  const PLATLatch* latch = latchAt(const_cast<void*>(cell));
  return ownerOf(load(&latch->word)) == platThreadIdentity.owner;
}

uint32_t platVLatchOwner(const void* cell, PLATLatchOwner* owner) {
  if (!cell || !owner) return PLAT_RC_ARGUMENT;
  const PLATLatch* latch = latchAt(const_cast<void*>(cell));
  const uint64_t word = ownerOf(load(&latch->word));
  *owner = {PLAT_LATCH_NONE, threadOf(word), 0, tokenOf(word)};
  if (!isLatch(cell)) return 0;
  const bool isSelf = isEnrolled() && word == platThreadIdentity.owner;
  owner->state = word == 0 ? PLAT_LATCH_FREE : isSelf ? PLAT_LATCH_SELF : PLAT_LATCH_ALIVE;
  // Only where the namespace is surely the same; a caller without a token may judge as well.
  const uint32_t space = word == 0 ? kUnknownSpace : currentSpace();
  if (space != kUnknownSpace && space == spaceOf(latch) &&
      ownerHasEnded(word, true, &owner->process))
    owner->state = PLAT_LATCH_DEAD;
  return 0;
}

uint32_t platLatchReleaseSlow(void* cell) {
  if (!platVLatchIsHeld(cell)) return PLAT_RC_NOT_OWNER;
  letGo(latchAt(cell));
  return 0;
}

uint32_t platVLatchRelease(void* cell) {
  if (!cell) return PLAT_RC_ARGUMENT;
  return enrol() == 0 ? latchRelease(cell) : uint32_t{PLAT_RC_NOT_OWNER};
}
