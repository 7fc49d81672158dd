// Deletion of entries and of subtrees.
#include "trel/node.h"
#include "treli/dependent_list.h"
#include "treli/levels.h"
#include "treli/tree_walk.h"

namespace trel {
namespace {

// Runs find(list, &found) on a list that has entries, and removes what it found. The caller is
// inside the node's write section.
template <class Find>
uint32_t removeFound(SNodeCB_t* node, Find&& find) {
  DependentList list;
  if (const uint32_t rc = locateDependents(node, &list)) return rc;
  if (list.live == 0) return TREL_RC_DEPENDENTS_EMPTY;
  if (list.live > TREL_MAX_DEPENDENTS) return TREL_RC_DEPENDENT_COUNT;
  FoundDependent found;
  if (const uint32_t rc = find(list, &found)) return rc;
  return found.entry ? removeDependent(list, found.entry) : uint32_t{TREL_RC_DEPENDENT_ABSENT};
}

// The stored entry of which the record is a copy, or itself. Both count from the same base, so
// equal offsets mean the same node.
uint32_t findStored(const DependentList& list, const SNodeInfo_t& record, FoundDependent* found) {
  found->walk = DependentWalk(list);
  for (;;) {
    if (const uint32_t rc = found->walk.next(&found->entry)) return rc;
    const SNodeInfo_t* entry = found->entry;
    if (!entry || (entry->nodeOffset == record.nodeOffset && entry->nodeTag == record.nodeTag &&
                   entry->idSize == record.idSize && entry->segInfoOffset == record.segInfoOffset))
      return 0;
  }
}

}  // namespace

uint32_t nodeBehind(const SNodeInfo_t* record, SNodeCB_t** node) {
  Reached reached;
  if (const uint32_t rc = locateNode(record, &reached)) return rc;
  const ShmDomainHandle_t* domain = reached.segInfo->shmDomainHandle;
  if (nodeSizeInDomain(domain, offsetOf(reached.node, domain->base)) == 0)
    return TREL_RC_TOP_NODE_BOUNDS;
  *node = reached.node;
  return 0;
}

// The name is exact here: without an identifier a sibling of the same tag must not go instead.
uint32_t unlinkChild(SNodeCB_t* parent, const SNodeInfo_t* record, SNodeCB_t* child) {
  const SNodeInfo_t sought = *record;
  uint8_t* id = nullptr;
  uint64_t idSize = 0;
  const uint32_t rc = trelGetNodeID(child, &id, &idSize, 0);
  const bool isUnnamed = rc == TREL_RC_CREATED || rc == TREL_RC_INITIALISED;  // not told yet
  if (rc && !isUnnamed) return rc;
  if (!isUnnamed && idSize != sought.idSize) return TREL_RC_COMPARE_ID_SIZE;
  return writing(parent, 0, accept::any, [&] {
    return removeFound(parent, [&](const DependentList& list, FoundDependent* found) {
      return isUnnamed ? findStored(list, sought, found)
                       : findDependent(list, {sought.nodeTag, id, idSize, true}, found);
    });
  });
}

}  // namespace trel

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
    SNodeCB_t* top = node;
    if (record) {
      if (const uint32_t rc = nodeBehind(record, &top)) return flow.fail(rc);
      if (const uint32_t rc = unlinkChild(node, record, top)) return flow.fail(rc);
      options &= ~TREL_WALK_REMOVE_TOP;
    }
    return setStatusOfTree(top, childSegment, depthLimit, TREL_STATUS_DISCLAIM, options);
  });
}
