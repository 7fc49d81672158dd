// Byte latches, between the threads of this process.
#pragma once

#include "platsvc/latch.h"

namespace trel {

inline void takeByteLatch(uint8_t* latch) {
  if (platLinuxIA32AtomicTryLock8Internal(latch)) platLockGetConflict(latch);
}

inline void giveByteLatch(uint8_t* latch) { platLinuxIA32AtomicReleaseLock8Internal(latch); }

}  // namespace trel
