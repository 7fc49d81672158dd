// Stores whose order others rely on.
#pragma once

#include "trel/layout.h"

namespace trel {

// A store that commits: all that was written before it is there first, and nothing that is written
// behind it.
template <class Word, class Value>
inline void storeLast(Word* word, Value value) {
  __atomic_thread_fence(__ATOMIC_RELEASE);
  *word = static_cast<Word>(value);
  __atomic_thread_fence(__ATOMIC_RELEASE);
}

}  // namespace trel
