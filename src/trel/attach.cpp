// Attach and detach.
#include "trel/lists.h"
#include "trel/storage.h"
#include "treli/attach_latch.h"
#include "treli/reach.h"
#include "treli/section.h"
#include "trelshm/handle.h"
#include "trelshm/process_memory.h"

namespace trel {
namespace {

struct SegmentAddress {
  const PLATIPCResID* key;
  uintptr_t address;
  uint32_t poolOffset;
  const ShmDomainParam_t* domainParam;
  const ShmPoolParam_t* poolParam;
};

uint32_t attachAgain(const Hold& hold, ShmSegInfo_t** segInfo) {
  const ShmDomainHandle_t* domain = hold.segInfo->shmDomainHandle;
  // A detach that failed half way has left an attachment that can only be detached again.
  if (!hold.segInfo->shmPoolHandle) return TREL_RC_POOL_HANDLE_NULL;
  if (!domain) return TREL_RC_DOMAIN_HANDLE_NULL;
  if (heapOf(domain).header()->heapFlags & TREL_HEAP_MARKED) return TREL_RC_DOMAIN_MARKED;
  ++*hold.count;
  *segInfo = hold.segInfo;
  return 0;
}

uint32_t connectPool(const SegmentAddress& where, ShmSegInfo_t* segInfo) {
  uint32_t poolOffset = where.poolOffset;
  if (!isAligned8(poolOffset)) return TREL_RC_POOL_OFFSET_ALIGN;
  if (poolOffset == 0) {
    TopNodeInfo_t top;
    if (const uint32_t rc = trelGetTopNodeInfoFromDomainHeader(segInfo->shmDomainHandle, &top.tag,
                                                               &top.nodeOffset, &top.poolOffset))
      return rc;
    poolOffset = top.poolOffset;
  }
  return trelConnectToShmPool(&segInfo->shmPoolHandle, segInfo->shmDomainHandle, poolOffset,
                              where.poolParam);
}

// Connects domain and pool, and publishes the hold.
uint32_t connect(const SegmentAddress& where, NewHold* hold) {
  ShmSegInfo_t* segInfo = hold->segInfo();
  if (const uint32_t rc = trelConnectToShmDomain(where.key, where.address, where.domainParam,
                                                 &segInfo->shmDomainHandle))
    return rc;
  uint32_t rc = connectPool(where, segInfo);
  if (rc == 0) rc = hold->publish();
  if (rc == 0) return 0;
  undoPoolConnection(&segInfo->shmPoolHandle);
  undoDomainConnection(&segInfo->shmDomainHandle);
  return rc;
}

uint32_t attachNew(const SegmentForm& form, const SegmentAddress& where, ShmSegInfo_t** segInfo) {
  if (form.accessMode != kByAddress && form.handleVersion != TREL_STRUCTURE_VERSION)
    return TREL_RC_HANDLE_VERSION;
  NewHold hold;
  if (const uint32_t rc = hold.begin(form, where.key)) return rc;
  if (const uint32_t rc = connect(where, &hold)) {
    hold.drop();
    return rc;
  }
  *segInfo = hold.segInfo();
  return 0;
}

// The tests of a top node that has just been attached.
uint32_t checkTopNode(ShmSegInfo_t* segInfo, SNodeCB_t** node, TopNodeInfo_t* top) {
  const ShmDomainHandle_t* domain = segInfo->shmDomainHandle;
  if (const uint32_t rc = trelGetTopNodeInfoFromDomainHeader(segInfo->shmDomainHandle, &top->tag,
                                                             &top->nodeOffset, &top->poolOffset))
    return rc;
  if (segInfo->identity.handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (nodeSizeInDomain(domain, top->nodeOffset) == 0) return TREL_RC_TOP_NODE_BOUNDS;
  auto* found = at<SNodeCB_t>(domain->base, top->nodeOffset);
  if (const uint32_t rc = reading(found, 0, accept::settled, [] { return 0u; })) return rc;
  if (top->tag != found->tag) return TREL_RC_TOP_TAG_DIFFERS;
  *node = found;
  return 0;
}

uint32_t attachToTopNode(ShmSegInfo_t** segInfo, SNodeCB_t** node, TopNodeInfo_t* top,
                         const PLATIPCResID* key, uintptr_t address,
                         const ShmDomainParam_t* domainParam, const ShmPoolParam_t* poolParam) {
  if (!segInfo) return TREL_RC_SEGMENT_NULL;
  if (!node) return TREL_RC_NODE_NULL;
  if (!top) return TREL_RC_OUT_TOP_TAG;
  ShmSegInfo_t* attached = nullptr;
  {
    const AttachLatch latch;
    if (const uint32_t rc =
            trelAttachStatusSegment(&attached, key, address, 0, 0, domainParam, poolParam))
      return rc;
    markUndecided(attached);
  }
  const uint32_t rc = checkTopNode(attached, node, top);
  const AttachLatch latch;
  if (rc) {
    undoAttach(attached);
    *node = nullptr;
    return rc;
  }
  decideToHold(attached);
  *segInfo = attached;
  return 0;
}

// What trelConnectToATree passes on.
bool isForReaders(uint32_t code) {
  switch (code) {
    case TREL_RC_OK:
    case TREL_RC_MODEL_RANGE:
    case TREL_RC_ATTACH_NO_MEMORY:
    case TREL_RC_LATCH_AREA_NULL:
    case TREL_RC_OPTION_CONDITION:
    case TREL_RC_NODE_NULL:
    case TREL_RC_TAG_RANGE:
    case TREL_RC_TOP_TAG_DIFFERS:
    case TREL_RC_ATTACH_RESERVED_F7:
    case TREL_RC_POOL_OFFSET_ALIGN:
    case TREL_RC_HANDLE_VERSION:
    case TREL_RC_LATCH_VERSION:
    case TREL_RC_ACCESS_MODE:
    case TREL_RC_DOMAIN_HANDLE_NULL:
    case TREL_RC_ATTACH_RESERVED_178:
    case TREL_RC_BASE_NULL:
    case TREL_RC_NEW_POOL_SIZE:
    case TREL_RC_NOT_INITIALISED:
    case TREL_RC_LATCH:
      return true;
    default:
      return false;
  }
}

uint32_t detach(ShmSegInfo_t** segInfo, uint32_t detachMode) {
  const AttachLatch latch;
  if (!isInitialised()) return TREL_RC_NOT_INITIALISED;
  Hold hold;
  if (const uint32_t rc = holdOf((*segInfo)->identity, &hold)) return rc;
  if (detachMode != 1 && detachMode != 2) return TREL_RC_DETACH_MODE;
  if (detachMode == 1 && *hold.count > 1) {
    --*hold.count;
    return 0;
  }
  const SegIdentity_t identity = hold.segInfo->identity;
  if (const uint32_t rc = leaveSegment(hold.segInfo, detachMode == 2)) return rc;
  *segInfo = nullptr;
  return endHold(identity);
}

// The hold of the segment that a record names; null if it is not attached.
uint32_t holdOfRecord(const SNodeInfo_t* record, Hold* hold) {
  Target target;
  if (const uint32_t rc = targetOf(record, &target)) return rc;
  if (target.identity.accessMode == kByAddress) return holdOfSlot(hold);
  const uint32_t rc = holdOfKey(target.identity.segmentKey.key, hold);
  return rc == TREL_RC_NOT_ATTACHED ? 0 : rc;
}

// Runs work(count) on the attach count of a segment.
template <class Work>
uint32_t withCount(const ShmSegInfo_t* segInfo, Work&& work) {
  const AttachLatch latch;
  if (!isInitialised()) return TREL_RC_NOT_INITIALISED;
  Hold hold;
  if (const uint32_t rc = holdOf(segInfo->identity, &hold)) return rc;
  return work(hold.count);
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelAttachStatusSegment(ShmSegInfo_t** segInfo, const PLATIPCResID* key, uintptr_t address,
                                 uint32_t poolOffset, uint32_t, const ShmDomainParam_t* domainParam,
                                 const ShmPoolParam_t* poolParam) {
  return traced(FID_trelAttachStatusSegment, [&](const Flow& flow) -> uint32_t {
    if (!segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    const SegmentForm form = readForm(domainParam, 2);
    const AttachLatch latch;
    if (!isInitialised()) return flow.fail(TREL_RC_NOT_INITIALISED);
    Hold hold;
    uint32_t found = 0;
    switch (form.accessMode) {
      case 1:
      case 2:
        if (!key) return flow.fail(TREL_RC_SEGMENT_NULL);
        found = holdOfKey(key->key, &hold);
        break;
      case kByAddress:
        found = holdOfSlot(&hold);
        break;
      default:
        return flow.fail(TREL_RC_ACCESS_MODE);
    }
    if (found == 0) return attachAgain(hold, segInfo);
    if (found != TREL_RC_NOT_ATTACHED && found != TREL_RC_SLOT_EMPTY) return flow.fail(found);
    return attachNew(form, {key, address, poolOffset, domainParam, poolParam}, segInfo);
  });
}

uint32_t trelAttachToTopNode(ShmSegInfo_t** segInfo, SNodeCB_t** node, TopNodeInfo_t* top,
                             const PLATIPCResID* key, uintptr_t address,
                             const ShmDomainParam_t* domainParam, const ShmPoolParam_t* poolParam) {
  return traced(FID_trelAttachToTopNode, [&](const Flow&) -> uint32_t {
    return attachToTopNode(segInfo, node, top, key, address, domainParam, poolParam);
  });
}

uint32_t trelConnectToATree(ShmSegInfo_t** segInfo, SNodeCB_t** node, TopNodeInfo_t* top,
                            const PLATIPCResID* key, uintptr_t address,
                            const ShmDomainParam_t* domainParam, const ShmPoolParam_t* poolParam) {
  return traced(FID_trelConnectToATree, [&](const Flow& flow) -> uint32_t {
    const uint32_t rc =
        trelAttachToTopNode(segInfo, node, top, key, address, domainParam, poolParam);
    return isForReaders(rc) ? rc : flow.fail(TREL_RC_CONNECT, &rc, sizeof rc);
  });
}

uint32_t trelDetachStatusSegment(ShmSegInfo_t** segInfo, uint32_t detachMode) {
  return traced(FID_trelDetachStatusSegment, [&](const Flow& flow) -> uint32_t {
    if (!segInfo || !*segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    return detach(segInfo, detachMode);
  });
}

uint32_t trelDetachFromTopNode(ShmSegInfo_t** segInfo, uint32_t detachMode) {
  return traced(FID_trelDetachFromTopNode, [&](const Flow& flow) -> uint32_t {
    if (!segInfo || !*segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    return trelDetachStatusSegment(segInfo, detachMode);
  });
}

uint32_t trelDetachFromNode(const SNodeInfo_t* record, uint32_t detachMode) {
  return traced(FID_trelDetachFromNode, [&](const Flow& flow) -> uint32_t {
    if (!record) return flow.fail(TREL_RC_NODE_INFO_NULL);
    const AttachLatch latch;  // one hold for search and detach: no other thread comes between
    Hold hold = {};
    if (const uint32_t rc = holdOfRecord(record, &hold)) return flow.fail(rc);
    if (!hold.segInfo) return 0;
    ShmSegInfo_t* segInfo = hold.segInfo;
    return detach(&segInfo, detachMode) ? flow.fail(TREL_RC_DETACH_FROM_NODE) : 0;
  });
}

uint32_t trelAttachToNodeAndGetSegInfo(const SNodeInfo_t* record, SNodeCB_t** node,
                                       ShmSegInfo_t** segInfo, ShmSegInfo_t* current,
                                       uint32_t* otherSegment, uint32_t options) {
  return traced(FID_trelAttachToNodeAndGetSegInfo, [&](const Flow& flow) -> uint32_t {
    if (!record) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (!otherSegment) return flow.fail(TREL_RC_OUT_OTHER_SEGMENT);
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    Reached reached{*node, *segInfo};
    const uint32_t rc = reachNode(record, &reached, current, otherSegment, options);
    if (rc) leaveReached(&reached);
    *node = reached.node;
    *segInfo = reached.segInfo;
    return rc;
  });
}

uint32_t trelAttachToNode(const SNodeInfo_t* record, SNodeCB_t** node) {
  return traced(FID_trelAttachToNode, [&](const Flow& flow) -> uint32_t {
    if (!record) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    Reached reached{*node};
    const uint32_t rc = reachNode(record, &reached);
    if (rc) leaveReached(&reached);
    *node = reached.node;
    return rc;
  });
}

uint32_t trelMarkStatusSegmentForDeletion(ShmSegInfo_t* segInfo) {
  return traced(FID_trelMarkStatusSegmentForDeletion, [&](const Flow& flow) -> uint32_t {
    if (!segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (!isInitialised()) return flow.fail(TREL_RC_NOT_INITIALISED);
    ShmDomainHandle_t* domain = segInfo->shmDomainHandle;
    if (const uint32_t rc = trelLatchShmDomain(domain)) return flow.fail(rc);
    const uint32_t rc = trelMarkShmDomainForDeletion(domain);
    return firstOf(rc, trelUnlatchShmDomain(domain));
  });
}

uint32_t trelUpdateShmAttachRefCount(ShmSegInfo_t* segInfo, uint32_t operation) {
  return traced(FID_trelUpdateShmAttachRefCount, [&](const Flow& flow) -> uint32_t {
    if (!segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    return withCount(segInfo, [&](uint32_t* count) -> uint32_t {
      if (operation != 1 && operation != 2) return flow.fail(TREL_RC_COUNT_OPERATION);
      if (operation == 1) {
        ++*count;
      } else if (*count > 1) {
        --*count;
      }
      return 0;
    });
  });
}

uint32_t trelGetShmAttachRefCount(ShmSegInfo_t* segInfo, uint32_t* count) {
  return traced(FID_trelGetShmAttachRefCount, [&](const Flow& flow) -> uint32_t {
    if (!segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (!count) return flow.fail(TREL_RC_OUT_ATTACH_COUNT);
    return withCount(segInfo, [&](const uint32_t* held) -> uint32_t {
      *count = *held;
      return 0;
    });
  });
}

uint32_t trelDestroySegInfoAndHandles(ShmSegInfo_t** segInfo) {
  return traced(FID_trelDestroySegInfoAndHandles, [&](const Flow& flow) -> uint32_t {
    if (!segInfo || !*segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    ShmSegInfo_t* record = *segInfo;
    if (!record->shmPoolHandle) return flow.logged(TREL_RC_POOL_HANDLE_NULL, nullptr);
    if (!record->shmDomainHandle) return flow.logged(TREL_RC_DOMAIN_HANDLE_NULL, nullptr);
    if (record->identity.handleVersion != TREL_STRUCTURE_VERSION)
      return flow.fail(TREL_RC_HANDLE_VERSION);
    if (const uint32_t rc = freeHandle(&record->shmPoolHandle)) return flow.fail(rc);
    if (const uint32_t rc = freeHandle(&record->shmDomainHandle)) return flow.fail(rc);
    return release(segInfo);
  });
}
