// The layout of a fresh node block, wherever the block comes from.
#pragma once

#include <string.h>

#include "platsvc/time.h"
#include "treli/node_lock.h"
#include "trelshm/process_memory.h"

namespace trel {

inline uint32_t checkCreation(SNodeCB_t** node, const uint64_t* sizes, const uint64_t* nodeSize,
                              const uint64_t* nodeOffset) {
  if (!sizes) return TREL_RC_SIZES_NULL;
  if (!nodeSize) return TREL_RC_OUT_NODE_SIZE;
  if (!nodeOffset) return TREL_RC_OUT_NODE_OFFSET;
  return node ? 0 : uint32_t{TREL_RC_NODE_NULL};
}

inline uint32_t sumSizes(const uint64_t* sizes, uint64_t* total) {
  *total = TREL_NODE_HEADER_SIZE;
  for (uint32_t i = 0; i < TREL_SLOTS; ++i) {
    if (sizes[i] > TREL_MAX_SECTION_SIZE) return TREL_RC_SECTION_SIZE;
    *total += sizes[i];
  }
  return *total > TREL_MAX_NODE_SIZE ? uint32_t{TREL_RC_NODE_SIZE} : 0;
}

// Lays a fresh block out: sections in slot order behind the header, without gaps. Somebody may
// still look at a node that lay there before: he sees a writer inside until all is done, and then
// another birth stamp.
inline uint32_t layOut(SNodeCB_t* node, uint64_t total, uint64_t exports, const uint64_t* sizes,
                       uint32_t latchVersion) {
  __atomic_store_n(PLATVAtomicSigned32::word(&node->nodeLatchArea.writeFlag), 1, __ATOMIC_RELAXED);
  __atomic_thread_fence(__ATOMIC_RELEASE);
  __atomic_store_n(birthStampAt(node), platDrawStamp(), __ATOMIC_RELAXED);
  __atomic_thread_fence(__ATOMIC_RELEASE);
  node->nodeSize = total;
  node->exports = exports;
  node->condition = TREL_CONDITION_CREATED;
  node->concurrencyModel = 1;
  uint64_t offset = TREL_NODE_HEADER_SIZE;
  ExportSlot_t table[TREL_SLOTS];
  for (uint32_t i = 0; i < TREL_SLOTS; ++i) {
    table[i] = {sizes[i], 0, offset};
    offset += sizes[i];
  }
  memcpy(node->exportTable, table, sizeof table);
  const uint32_t rc = initialiseLatches(node, &node->spareLatchArea, latchVersion);
  return rc ? rc : initialiseLatches(node, &node->nodeLatchArea, latchVersion);
}

}  // namespace trel
