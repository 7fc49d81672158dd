// Nodes in the pool of a segment.
#include "trel/node.h"
#include "trel/storage.h"
#include "treli/node_layout.h"
#include "treli/node_return.h"

using namespace trel;

uint32_t trelCreateNode(ShmSegInfo_t* segInfo, SNodeCB_t** node, uint64_t exports,
                        const uint64_t sizes[64], uint64_t* nodeSize, uint64_t* nodeOffset) {
  return traced(FID_trelCreateNode, [&](const Flow& flow) -> uint32_t {
    if (!segInfo) return flow.fail(TREL_RC_NODE_SEGMENT_NULL);
    if (const uint32_t rc = checkCreation(node, sizes, nodeSize, nodeOffset)) return flow.fail(rc);
    uint64_t total = 0;
    if (const uint32_t rc = sumSizes(sizes, &total)) return flow.fail(rc, &total, sizeof total);
    if (segInfo->identity.heapVersion != TREL_STRUCTURE_VERSION)
      return flow.fail(TREL_RC_HANDLE_VERSION);

    // Only a first look: another process can take the space before the block is allocated.
    ShmPoolHandle_t* pool = segInfo->shmPoolHandle;
    if (const uint32_t rc = trelLatchShmPool(pool)) return flow.fail(rc);
    ShmPoolInfo_t info;
    uint32_t failure = trelGetShmPoolInfo(pool, &info) ? uint32_t{TREL_RC_POOL_INFO} : 0;
    if (failure == 0 && total > info.freeBytes) failure = TREL_RC_NODE_ABOVE_POOL;
    const uint32_t unlatched = trelUnlatchShmPool(pool);
    if (const uint32_t rc = firstOf(failure, unlatched)) return flow.fail(rc);

    *nodeSize = total;
    void* block = nullptr;
    if (_trelAllocateShmBlock(&block, pool, static_cast<uint32_t>(total), 0, FID_trelCreateNode,
                              __LINE__, kModuleName) != 0)
      return flow.fail(TREL_RC_NODE_ALLOCATION, &total, sizeof total);
    auto* made = static_cast<SNodeCB_t*>(block);
    uint32_t rc = layOut(made, total, exports, sizes, segInfo->identity.latchVersion);
    if (rc == 0 && block < pool->base) rc = TREL_RC_NODE_BELOW_BASE;
    if (rc) {
      _trelFreeShmBlock(&block, pool, FID_trelCreateNode, __LINE__, kModuleName);
      return flow.fail(rc);
    }
    *node = made;
    *nodeOffset = offsetOf(made, pool->base);
    return 0;
  });
}

uint32_t trelDisclaimNode(SNodeCB_t** node, ShmPoolHandle_t* pool, uint32_t version) {
  return traced(FID_trelDisclaimNode, [&](const Flow& flow) -> uint32_t {
    if (!node || !*node) return flow.fail(TREL_RC_NODE_NULL);
    if (!pool) return flow.fail(TREL_RC_POOL_HANDLE_NULL);
    if (version != TREL_STRUCTURE_VERSION) return flow.fail(TREL_RC_HANDLE_VERSION);
    return giveNodeBack(node, pool);
  });
}
