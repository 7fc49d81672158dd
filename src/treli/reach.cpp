#include "treli/reach.h"

#include "trel/segment.h"
#include "trel/tree.h"
#include "treli/attach_latch.h"
#include "treli/section.h"
#include "trelll/list.h"

namespace trel {

uint64_t nodeSizeInDomain(const ShmDomainHandle_t* domain, uint64_t nodeOffset) {
  if (!liesInDomain(domain, nodeOffset, sizeof(SNodeCB_t))) return 0;
  const uint64_t size = at<SNodeCB_t>(domain->base, nodeOffset)->nodeSize;
  return size >= sizeof(SNodeCB_t) && liesInDomain(domain, nodeOffset, size) ? size : 0;
}

uint64_t nodesThatFit() {
  const AttachLatch latch;
  return attachedBytes() / sizeof(SNodeCB_t);
}

uint32_t targetOf(const SNodeInfo_t* record, Target* target) {
  const SNodeInfo_t copy = *record;
  const void* base = copy.selfOffset ? at<const void>(record, uint64_t{0} - copy.selfOffset)
                                     : at<const void>(nullptr, copy.segBase);
  if (!base) return TREL_RC_BASE_NULL;
  // What is stored in a segment can be damaged, but its base is known.
  const ShmDomainHandle_t* home = domainAround(record, sizeof *record);
  if (!home) home = domainAt(base);
  if (home &&
      (home->base != base || !liesInDomain(home, copy.segInfoOffset, sizeof(SegIdentity_t))))
    return TREL_RC_BLOCK_OUTSIDE_POOL;
  *target = {*at<const SegIdentity_t>(base, copy.segInfoOffset), copy.nodeOffset, copy.nodeTag};
  return 0;
}

namespace {

// Whether the segment of that identity is another than the caller's.
uint32_t compareSegments(const ShmSegInfo_t* current, const SegIdentity_t& identity,
                         bool* isOther) {
  if (!current) return TREL_RC_SEGMENT_NULL;
  int32_t order = 0;
  if (compareKeys(current->identity.segmentKey.key, identity.segmentKey.key,
                  current->identity.handleVersion, &order))
    return TREL_RC_COMPARE_KEY;
  *isOther = order != 0;
  return 0;
}

// The caller holds the AttachLatch.
uint32_t locate(const Target& target, Reached* reached, const ShmSegInfo_t* current,
                uint32_t* otherSegment, uint32_t options) {
  Hold hold;
  if (const uint32_t rc = target.identity.accessMode == kByAddress
                              ? holdOfSlot(&hold)
                              : holdOfKey(target.identity.segmentKey.key, &hold))
    return rc;
  if (target.identity.handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  const ShmDomainHandle_t* domain = hold.segInfo->shmDomainHandle;
  if (!domain || !liesInDomain(domain, target.nodeOffset, sizeof(SNodeCB_t)))
    return TREL_RC_TOP_NODE_BOUNDS;
  if (options & kStayInSegment) {
    bool isOther = false;
    if (const uint32_t rc = compareSegments(current, hold.segInfo->identity, &isOther)) return rc;
    *otherSegment = isOther;
  }
  reached->node = at<SNodeCB_t>(domain->base, target.nodeOffset);
  reached->segInfo = hold.segInfo;
  return 0;
}

// The same, from the record on.
uint32_t locateTarget(const SNodeInfo_t* record, Target* target, Reached* reached,
                      const ShmSegInfo_t* current, uint32_t* otherSegment, uint32_t options) {
  const AttachLatch latch;
  if (const uint32_t rc = targetOf(record, target)) return rc;
  return locate(*target, reached, current, otherSegment, options);
}

// For one that attaches what is not held: joins an attach that may still be undone.
uint32_t joinTarget(const SNodeInfo_t* record, Target* target, Reached* reached,
                    const ShmSegInfo_t* current, uint32_t* otherSegment, uint32_t options) {
  const AttachLatch latch;
  const uint32_t rc = locateTarget(record, target, reached, current, otherSegment, options);
  if (rc || !isUndecided(reached->segInfo)) return rc;
  Hold hold;
  if (const uint32_t failure = holdOf(reached->segInfo->identity, &hold)) return failure;
  ++*hold.count;
  reached->attachedHere = true;
  return 0;
}

}  // namespace

uint32_t locateNode(const SNodeInfo_t* record, Reached* reached, const ShmSegInfo_t* current,
                    uint32_t* otherSegment, uint32_t options) {
  Target target;
  return locateTarget(record, &target, reached, current, otherSegment, options);
}

static __thread uint32_t attachNothing __attribute__((tls_model("initial-exec")));

AttachNothing::AttachNothing() { ++attachNothing; }
AttachNothing::~AttachNothing() { --attachNothing; }

void leaveReached(Reached* reached) {
  if (!reached->attachedHere) return;
  const AttachLatch latch;
  undoAttach(reached->segInfo);
  *reached = {};
}

void keepReached(Reached* reached) {
  if (!reached->attachedHere) return;
  const AttachLatch latch;
  Hold hold;
  // Where another has decided so before, the attach of this reach is one too many.
  if (!decideToHold(reached->segInfo) && holdOf(reached->segInfo->identity, &hold) == 0 &&
      *hold.count > 1)
    --*hold.count;
  reached->attachedHere = false;
}

namespace {

uint32_t attachByIdentity(const SegIdentity_t& identity, ShmSegInfo_t** segInfo) {
  ShmDomainParam_t domainParam = {};
  domainParam.heapVersion = identity.heapVersion;
  domainParam.handleVersion = identity.handleVersion;
  domainParam.latchVersion = identity.latchVersion;
  domainParam.accessMode = identity.accessMode;
  domainParam.permissions = 432;
  ShmPoolParam_t poolParam = {};
  poolParam.heapVersion = identity.heapVersion;
  poolParam.handleVersion = identity.handleVersion;
  poolParam.latchVersion = identity.latchVersion;
  const PLATIPCResID key = {identity.segmentKey.structureTag, identity.segmentKey.key};
  return trelAttachStatusSegment(segInfo, &key, 0, 0, 0, &domainParam, &poolParam);
}

uint32_t checkReached(const Target& target, Reached* reached, uint32_t otherSegment) {
  reached->size = nodeSizeInDomain(reached->segInfo->shmDomainHandle, target.nodeOffset);
  if (reached->size == 0) return TREL_RC_TOP_NODE_BOUNDS;
  if (otherSegment == 0 && target.nodeTag != reached->node->tag) return TREL_RC_RECORD_TAG_DIFFERS;
  return reading(reached->node, 0, accept::active, [] { return 0u; });
}

}  // namespace

uint32_t reachNode(const SNodeInfo_t* record, Reached* reached, ShmSegInfo_t* current,
                   uint32_t* otherSegment, uint32_t options) {
  Target target;
  uint32_t rc = joinTarget(record, &target, reached, current, otherSegment, options);
  if (rc == TREL_RC_NOT_ATTACHED) {
    if (options & kStayInSegment) {
      bool isOther = false;
      if ((rc = compareSegments(current, target.identity, &isOther))) return rc;
      if (isOther) {
        *reached = {nullptr, current};
        *otherSegment = 1;
        return 0;
      }
    }
    if (attachNothing) return rc;
    ShmSegInfo_t* attached = nullptr;
    const AttachLatch latch;
    if ((rc = attachByIdentity(target.identity, &attached))) return rc;
    *reached = {nullptr, attached, true};
    markUndecided(attached);
    rc = locate(target, reached, current, otherSegment, options);
  }
  if (rc == 0) rc = checkReached(target, reached, *otherSegment);
  if (rc == 0) keepReached(reached);
  if (rc && !isRefusedCondition(rc)) leaveReached(reached);
  return rc;
}

uint32_t nodeBehind(const SNodeInfo_t* record, SNodeCB_t** node) {
  Reached reached;
  if (const uint32_t rc = locateNode(record, &reached)) return rc;
  const ShmDomainHandle_t* domain = reached.segInfo->shmDomainHandle;
  if (nodeSizeInDomain(domain, offsetOf(reached.node, domain->base)) == 0)
    return TREL_RC_TOP_NODE_BOUNDS;
  *node = reached.node;
  return 0;
}

uint32_t parentOf(SNodeCB_t* node, ExportSlot_t** slot, SNodeInfo_t** parent) {
  if (const uint32_t rc = sectionOf(node, TREL_EXPORT_PARENT, slot)) return rc;
  if ((*slot)->size < sizeof(ParentSection_t)) return TREL_RC_SLOT_USED;
  *parent = &inSection<ParentSection_t>(node, *slot)->parent;
  return 0;
}

uint32_t parentRecordOf(SNodeCB_t* node, SNodeInfo_t** record) {
  ExportSlot_t* slot = nullptr;
  if (const uint32_t rc = parentOf(node, &slot, record)) return rc;
  return slot->used < sizeof(ParentSection_t) ? uint32_t{TREL_RC_NO_PARENT_SECTION} : 0;
}

}  // namespace trel
