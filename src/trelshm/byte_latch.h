// Byte latches, between the threads of this process.
#pragma once

#include "platsvc/latch.h"

namespace trel {

inline void takeByteLatch(uint8_t* latch) {
  if (platLinuxIA32AtomicTryLock8Internal(latch)) platLockGetConflict(latch);
}

inline void giveByteLatch(uint8_t* latch) { platLinuxIA32AtomicReleaseLock8Internal(latch); }

// The latch is held while an object lives.
template <uint8_t& latch>
class ByteLatchHold {
 public:
  ByteLatchHold() { takeByteLatch(&latch); }
  ~ByteLatchHold() { giveByteLatch(&latch); }
  ByteLatchHold(const ByteLatchHold&) = delete;
  ByteLatchHold& operator=(const ByteLatchHold&) = delete;
};

}  // namespace trel
