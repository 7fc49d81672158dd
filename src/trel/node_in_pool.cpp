// Nodes in the pool of a segment.
#include "trel/node.h"
#include "trel/storage.h"
#include "treli/node_making.h"
#include "treli/node_return.h"

using namespace trel;

uint32_t trelCreateNode(ShmSegInfo_t* segInfo, SNodeCB_t** node, uint64_t exports,
                        const uint64_t sizes[64], uint64_t* nodeSize, uint64_t* nodeOffset) {
  return traced(FID_trelCreateNode, [&](const Flow& flow) -> uint32_t {
    if (!segInfo) return flow.fail(TREL_RC_NODE_SEGMENT_NULL);
    if (const uint32_t rc = checkCreation(node, sizes, nodeSize, nodeOffset)) return flow.fail(rc);
    uint64_t total = 0;
    if (const uint32_t rc = sumSizes(sizes, &total)) return flow.fail(rc, &total, sizeof total);
    const uint32_t rc = makeNode(segInfo, exports, sizes, total, node, nodeSize, nodeOffset);
    return rc ? flow.fail(rc, &total, sizeof total) : 0;
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
