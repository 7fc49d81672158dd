// Deletion of entries and of subtrees.
#include "trel/tree.h"
#include "treli/dependent_list.h"
#include "treli/reach.h"
#include "treli/traversal_stack.h"
#include "treli/tree_walk.h"

using namespace trel;

uint32_t trelDeleteDependentNode(SNodeCB_t* node, const SNodeInfo_t* record, const uint8_t* id,
                                 uint64_t inCriticalSection) {
  return traced(FID_trelDeleteDependentNode, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!record) return flow.fail(TREL_RC_NODE_INFO_NULL);
    const SoughtName name = {record->nodeTag, id, record->idSize};
    if (name.idSize && !id) return flow.fail(TREL_RC_ID_NULL);
    DependentList before;
    if (const uint32_t rc = locateDependents(node, &before)) return flow.fail(rc);
    return writing(node, inCriticalSection, accept::any, [&] {
      return removeFound(node, [&](const DependentList& list, FoundDependent* found) {
        return findDependent(list, name, found);
      });
    });
  });
}

uint32_t trelDeleteDependentNodeAndSubtree(SNodeCB_t* node, const SNodeInfo_t* record,
                                           ShmSegInfo_t* childSegment, uint64_t depthLimit,
                                           uint32_t options) {
  return traced(FID_trelDeleteDependentNodeAndSubtree, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!childSegment) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (const uint32_t rc = reading(node, 0, accept::any, [] { return 0u; })) return flow.fail(rc);
    if (depthLimit > kMaxDepth) return flow.fail(TREL_RC_DEPTH_LIMIT);
    const Look look;
    SNodeCB_t* top = node;
    if (record) {
      if (const uint32_t rc = unlinkChild(node, record, &top)) return flow.fail(rc);
      options &= ~TREL_WALK_REMOVE_TOP;
    }
    return setStatusOfTree(top, childSegment, depthLimit, TREL_STATUS_DISCLAIM, options);
  });
}
