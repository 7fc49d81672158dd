// Status operations and sums over whole trees.
#include "treli/tree_walk.h"

#include "trel/tree.h"
#include "treli/traversal_stack.h"
#include "trelshm/flow.h"

using namespace trel;

uint32_t trelSetStatusForEachNodeInATree(SNodeCB_t* node, ShmSegInfo_t* segment,
                                         uint64_t depthLimit, uint32_t statusOperation,
                                         uint32_t options) {
  return traced(FID_trelSetStatusForEachNodeInATree, [&](const Flow&) {
    const Look look;  // the parent's segment stays mapped
    return setStatusOfTree(node, segment, depthLimit, statusOperation, options);
  });
}

uint32_t trelSetNodeStatusRecursively(SNodeCB_t** node, ShmSegInfo_t* segment,
                                      ShmSegInfo_t* walkSegment, uint32_t, uint32_t statusOperation,
                                      uint32_t options, uint64_t depth, uint64_t depthLimit) {
  return traced(FID_trelSetNodeStatusRecursively, [&](const Flow& flow) -> uint32_t {
    if (!node || !*node) return flow.fail(TREL_RC_NODE_NULL);
    return setStatusFrom(node, segment, walkSegment, depth, depthLimit, statusOperation, options);
  });
}

uint32_t trelGetTreeInfo(SNodeCB_t* node, ShmSegInfo_t* segment, uint32_t options, uint64_t tag,
                         uint64_t depthLimit, TreeInfo_t* info) {
  return traced(FID_trelGetTreeInfo, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!segment) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (!info) return flow.fail(TREL_RC_TREE_INFO_NULL);
    if (depthLimit > kMaxDepth) return flow.fail(TREL_RC_DEPTH_LIMIT);
    *info = {};
    return addUpTree(node, segment, options, tag, 1, depthLimit, info);
  });
}

uint32_t trelGetTreeInfoRecursively(SNodeCB_t* node, ShmSegInfo_t*, ShmSegInfo_t* walkSegment,
                                    uint32_t, uint32_t options, uint64_t tag, uint64_t depth,
                                    uint64_t depthLimit, TreeInfo_t* info) {
  return traced(FID_trelGetTreeInfoRecursively, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!info) return flow.fail(TREL_RC_TREE_INFO_NULL);
    return addUpTree(node, walkSegment, options, tag, depth, depthLimit, info);
  });
}
