#include "treli/node_making.h"

#include "trel/storage.h"
#include "trelshm/handle.h"

namespace trel {

uint32_t makeNode(const ShmSegInfo_t* segInfo, uint64_t exports, const uint64_t* sizes,
                  uint64_t total, SNodeCB_t** node, uint64_t* nodeSize, uint64_t* nodeOffset) {
  if (segInfo->identity.heapVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;

  // Only a first look: another process can take the space before the block is allocated.
  ShmPoolHandle_t* pool = segInfo->shmPoolHandle;
  // The latch does not nest: a caller who holds it would lose it here.
  if (pool && pool->base && platVLatchIsHeld(heapOf(pool).header()->heapLatch.latch))
    return TREL_RC_LATCH;
  if (const uint32_t rc = trelLatchShmPool(pool)) return rc;
  ShmPoolInfo_t info;
  uint32_t failure = trelGetShmPoolInfo(pool, &info) ? uint32_t{TREL_RC_POOL_INFO} : 0;
  if (failure == 0 && total > info.freeBytes) failure = TREL_RC_NODE_ABOVE_POOL;
  const uint32_t unlatched = trelUnlatchShmPool(pool);
  if (const uint32_t rc = firstOf(failure, unlatched)) return rc;

  *nodeSize = total;
  void* block = nullptr;
  if (_trelAllocateShmBlock(&block, pool, static_cast<uint32_t>(total), 0, FID_trelCreateNode,
                            __LINE__, kModuleName) != 0)
    return TREL_RC_NODE_ALLOCATION;
  auto* made = static_cast<SNodeCB_t*>(block);
  uint32_t rc = layOut(made, total, exports, sizes, segInfo->identity.latchVersion);
  if (rc == 0 && block < pool->base) rc = TREL_RC_NODE_BELOW_BASE;
  if (rc) {
    _trelFreeShmBlock(&block, pool, FID_trelCreateNode, __LINE__, kModuleName);
    return rc;
  }
  *node = made;
  *nodeOffset = offsetOf(made, pool->base);
  return 0;
}

uint32_t makeNodeInPM(uint64_t exports, const uint64_t* sizes, uint64_t total,
                      uint32_t latchVersion, SNodeCB_t** node, uint64_t* nodeOffset) {
  void* block = nullptr;
  if (_platMemAlloc(&block, 0, static_cast<uint32_t>(total), 1, kModuleName, __LINE__) != 0)
    return TREL_RC_NODE_ALLOCATION;
  auto* made = static_cast<SNodeCB_t*>(block);
  if (const uint32_t rc = layOut(made, total, exports, sizes, latchVersion)) {
    _platMemFree(&block, 0, 0, kModuleName, __LINE__);
    return rc;
  }
  *node = made;
  *nodeOffset = offsetOf(made, nullptr);
  return 0;
}

}  // namespace trel
