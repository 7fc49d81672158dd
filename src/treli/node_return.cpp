#include "treli/node_return.h"

#include "treli/node_lock.h"
#include "trelshm/allocator.h"
#include "trelshm/process_memory.h"
#include "trelshm/store.h"

namespace trel {

// Condition and mark go first, so that what a death in here leaves is no node to anybody, and
// whoever waits for the latch is let go. The section is never left: who looks without the latch
// sees a writer inside until the memory holds other bytes, or a new node with another birth stamp.
uint32_t giveNodeBack(SNodeCB_t** node, ShmPoolHandle_t* pool) {
  SNodeCB_t* const given = *node;
  LatchArea_t* const area = &given->nodeLatchArea;
  NodeHold hold;
  if (isReadOnly(given)) return TREL_RC_READING_ONLY;
  if (const uint32_t rc = lockNode<Access::write>(given, area, &hold)) return rc;
  const uint32_t condition = given->condition;
  uint32_t* const mark = hold.latched ? &plat::latchAt(area->primaryLatch)->mark : nullptr;
  const uint32_t marked = mark ? __atomic_exchange_n(mark, 0, __ATOMIC_RELAXED) : 0;
  storeLast(&given->condition, 0);
  void* block = given;
  const Caller caller = {FID_trelDisclaimNode, __LINE__, kModuleName};
  if (const uint32_t rc = freeBlock(&block, pool, caller)) {
    given->condition = condition;
    if (mark) __atomic_store_n(mark, marked, __ATOMIC_RELEASE);
    return firstOf(rc, unlockNode<Access::write>(area, hold));
  }
  *node = nullptr;
  return 0;
}

}  // namespace trel
