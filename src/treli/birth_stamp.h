// The birth stamp of a node: a number drawn when it is made. Another one means that the memory was
// given back and holds another node now.
#pragma once

#include "platsvc/latch.h"
#include "trelshm/bytes.h"

namespace trel {

// It lies in its cell as the latch does, so it is aligned wherever the node lies.
inline uint64_t* birthStampAt(const SNodeCB_t* node) {
  const auto behindLatch =
      reinterpret_cast<uintptr_t>(node->nodeLatchArea.primaryLatch) + PLAT_LATCH_BYTES;
  return reinterpret_cast<uint64_t*>(static_cast<uintptr_t>(round8(behindLatch)));
}

inline uint64_t birthStamp(const SNodeCB_t* node) {
  return __atomic_load_n(birthStampAt(node), __ATOMIC_RELAXED);
}

}  // namespace trel
