// Loads and stores of words that other processes read and write.
#pragma once

#include "trel/layout.h"

namespace trel {

// What decides an access is loaded once, tested, and used as it was loaded: another process may
// change the word at any time.
inline uint64_t loadOnce(const TrelU64* word) { return *const_cast<const volatile TrelU64*>(word); }
inline uint32_t loadOnce(const TrelU32* word) { return *const_cast<const volatile TrelU32*>(word); }

// A store that commits: all that was written before it is there first, and nothing that is written
// behind it.
// Two of them, and no template: a template argument would lose the type's alignment of 1.
inline void storeLast(TrelU64* word, uint64_t value) {
  __atomic_thread_fence(__ATOMIC_RELEASE);
  *word = value;
  __atomic_thread_fence(__ATOMIC_RELEASE);
}

inline void storeLast(TrelU32* word, uint64_t value) {
  __atomic_thread_fence(__ATOMIC_RELEASE);
  *word = static_cast<uint32_t>(value);
  __atomic_thread_fence(__ATOMIC_RELEASE);
}

}  // namespace trel
