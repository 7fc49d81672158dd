// A node's heartbeat.
#pragma once

#include "treli/node_lock.h"
#include "treli/options.h"

namespace trel {

// A heartbeat, shown or watched, has codes of its own for each condition.
inline uint32_t checkBeating(const SNodeCB_t* node) {
  switch (once(node->condition)) {
    case TREL_CONDITION_CREATED:
      return TREL_RC_BEAT_CREATED;
    case TREL_CONDITION_INITIALISED:
      return TREL_RC_BEAT_INITIALISED;
    case TREL_CONDITION_ACTIVE:
      return 0;
    case TREL_CONDITION_ABANDONED:
      return TREL_RC_BEAT_ABANDONED;
    case TREL_CONDITION_DISASSOCIATED:
      return TREL_RC_BEAT_DISASSOCIATED;
    default:
      return TREL_RC_CONDITION;
  }
}

// trelUpdateNodeStatus for a caller who is inside the node's write section.
inline uint32_t beat(SNodeCB_t* node) {
  if (const uint32_t rc = checkBeating(node)) return rc;
  int32_t counter = 0;
  switch (node->updateMode) {
    case TREL_UPDATE_BY_COUNTER:
      // Under the latch nobody else counts, and a locked instruction would be half of the work.
      if (node->concurrencyModel == 1) {
        countLatched(&node->updateCounter);
        return 0;
      }
      return PLATVAtomicSigned32::increment(&node->updateCounter, &counter)
                 ? uint32_t{TREL_RC_ATOMIC}
                 : 0;
    case TREL_UPDATE_BY_TIME:
      node->lastUpdateTime = currentTick();
      return 0;
    default:
      return TREL_RC_UPDATE_MODE;
  }
}

}  // namespace trel
