// Latches of one byte, between the threads of one process.

#include <sched.h>
#include <time.h>

#include "platsvc/latch.h"

namespace {

constexpr int kSpins = 64;
constexpr int kYields = 64;
constexpr long kSleepNs = 100000;

// Passes time, the longer the more often it was tried: it spins, then lends the processor, then
// sleeps.
void pauseFor(int tries) {
  if (tries < kSpins) {
    __builtin_ia32_pause();
  } else if (tries < kSpins + kYields) {
    sched_yield();
  } else {
    const timespec nap = {0, kSleepNs};
    nanosleep(&nap, nullptr);
  }
}

}  // namespace

uint32_t platLinuxIA32AtomicTryLock8Internal(uint8_t* latch) {
  return __atomic_exchange_n(latch, 1, __ATOMIC_ACQUIRE);
}

void platLockGetConflict(uint8_t* latch) {
  int tries = 0;
  while (platLinuxIA32AtomicTryLock8Internal(latch)) {
    while (__atomic_load_n(latch, __ATOMIC_RELAXED)) {
      pauseFor(tries);
      if (tries < kSpins + kYields) ++tries;
    }
  }
}

uint32_t platByteLatchGetWithin(uint8_t* latch, uint32_t milliseconds) {
  constexpr int kSleepsPerMs = 1000000 / kSleepNs;
  const int most = kSpins + kYields + static_cast<int>(milliseconds) * kSleepsPerMs;
  for (int tries = 0; platLinuxIA32AtomicTryLock8Internal(latch); ++tries) {
    if (tries >= most) return 1;
    pauseFor(tries);
  }
  return 0;
}

void platLinuxIA32AtomicReleaseLock8Internal(uint8_t* latch) {
  __atomic_store_n(latch, 0, __ATOMIC_RELEASE);
}
