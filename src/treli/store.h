// Stores whose order others rely on.
#pragma once

#include "trel/layout.h"

namespace trel {

// A store that commits: all that was written before it is there first.
inline void storeLast(TrelU64* word, uint64_t value) {
  __atomic_thread_fence(__ATOMIC_RELEASE);
  *word = value;
  __atomic_thread_fence(__ATOMIC_RELEASE);
}

}  // namespace trel
