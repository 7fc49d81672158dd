// Attach and detach.
#include "trel/lists.h"
#include "trel/storage.h"
#include "treli/attach_latch.h"
#include "treli/node_lock.h"
#include "treli/reach.h"
#include "treli/top_node.h"
#include "trelshm/handle.h"
#include "trelshm/process_memory.h"

namespace trel {
namespace {

// The caller holds the AttachLatch.
uint32_t detach(const Attachment& held, bool all, bool forced) {
  if (!all && *held.count > 1) {
    --*held.count;
    return 0;
  }
  return endAttachment(held, [&](ShmSegInfo_t* handles) { return leaveSegment(handles, forced); });
}

uint32_t detach(ShmSegInfo_t** segInfo, uint32_t detachMode) {
  const AttachLatch latch;
  if (!isInitialised()) return TREL_RC_NOT_INITIALISED;
  Attachment held;
  if (const uint32_t rc = attachmentOf(*segInfo, &held)) return rc;
  if (detachMode != 1 && detachMode != 2) return TREL_RC_DETACH_MODE;
  const bool ends = detachMode == 2 || *held.count <= 1;
  const uint32_t rc = detach(held, detachMode == 2, detachMode == 2);
  if (rc == 0 && ends) *segInfo = nullptr;
  return rc;
}

// The attachment of the segment that a record names; null if there is none.
uint32_t attachmentOfRecord(const SNodeInfo_t* record, Attachment* held) {
  Target target;
  if (const uint32_t rc = targetOf(record, &target)) return rc;
  if (target.identity.accessMode == kByAddress) return attachmentOfSlot(held);
  const uint32_t rc = attachmentOfKey(target.identity.segmentKey.key, held);
  return rc == TREL_RC_NOT_ATTACHED ? 0 : rc;
}

uint32_t attachToTopNode(ShmSegInfo_t** segInfo, SNodeCB_t** node, TopNodeInfo_t* top,
                         const SegmentAddress& where) {
  if (!segInfo) return TREL_RC_SEGMENT_NULL;
  if (!node) return TREL_RC_NODE_NULL;
  if (!top) return TREL_RC_OUT_TOP_TAG;
  Look look;  // the attach counts, but others could take it off
  ShmSegInfo_t* attached = nullptr;
  {
    const AttachLatch latch;
    if (const uint32_t rc = attachSegment(where, &attached)) return rc;
    Mapping pinned;
    if (const uint32_t rc = look.pins().around(attached->shmDomainHandle->base, &pinned)) return rc;
  }
  SNodeCB_t* found = nullptr;
  uint32_t rc = findTopNode(attached, top, &found);
  if (rc == 0) rc = reading(found, 0, accept::settled, [] { return 0u; });
  if (rc == 0 && top->tag != found->tag) rc = TREL_RC_TOP_TAG_DIFFERS;
  if (rc) {
    const AttachLatch latch;
    Attachment held;
    if (attachmentOf(attached, &held) == 0) detach(held, false, true);
    *node = nullptr;
    return rc;
  }
  *node = found;
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
    case TREL_RC_NO_TREE:
    case TREL_RC_SEGMENT_FOREIGN:
    case TREL_RC_SEGMENT_ABSENT:
    case TREL_RC_SEGMENT_FORBIDDEN:
    case TREL_RC_SEGMENT_HALF_MADE:
    case TREL_RC_SEGMENT_LIMIT:
    case TREL_RC_READING_ONLY:
    case TREL_RC_ATTACH_COUNT_FULL:
      return true;
    default:
      return false;
  }
}

// Runs work(attachment) on that of a segment.
template <class Work>
uint32_t withCount(const ShmSegInfo_t* segInfo, Work&& work) {
  const AttachLatch latch;
  if (!isInitialised()) return TREL_RC_NOT_INITIALISED;
  Attachment held;
  if (const uint32_t rc = attachmentOf(segInfo, &held)) return rc;
  return work(held);
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelAttachStatusSegment(ShmSegInfo_t** segInfo, const PLATIPCResID* key, uintptr_t address,
                                 uint32_t poolOffset, uint32_t, const ShmDomainParam_t* domainParam,
                                 const ShmPoolParam_t* poolParam) {
  return traced(FID_trelAttachStatusSegment, [&](const Flow& flow) -> uint32_t {
    if (!segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    const AttachLatch latch;
    const uint32_t rc = attachSegment({key, address, poolOffset, domainParam, poolParam}, segInfo);
    return rc ? flow.fail(rc) : 0;
  });
}

uint32_t trelAttachToTopNode(ShmSegInfo_t** segInfo, SNodeCB_t** node, TopNodeInfo_t* top,
                             const PLATIPCResID* key, uintptr_t address,
                             const ShmDomainParam_t* domainParam, const ShmPoolParam_t* poolParam) {
  return traced(FID_trelAttachToTopNode, [&](const Flow&) -> uint32_t {
    return attachToTopNode(segInfo, node, top, {key, address, 0, domainParam, poolParam});
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

uint32_t trelConnectToATreeForReading(ShmSegInfo_t** segInfo, SNodeCB_t** node, TopNodeInfo_t* top,
                                      const PLATIPCResID* key, uintptr_t address,
                                      const ShmDomainParam_t* domainParam,
                                      const ShmPoolParam_t* poolParam) {
  return traced(FID_trelConnectToATreeForReading, [&](const Flow& flow) -> uint32_t {
    const uint32_t rc =
        attachToTopNode(segInfo, node, top, {key, address, 0, domainParam, poolParam, true});
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
    Attachment held = {};
    if (const uint32_t rc = attachmentOfRecord(record, &held)) return flow.fail(rc);
    if (!held.segInfo) return 0;
    ShmSegInfo_t* segInfo = held.segInfo;
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
    const Look look;
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
    const Look look;
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
    return withCount(segInfo, [&](const Attachment& held) -> uint32_t {
      if (operation != 1 && operation != 2) return flow.fail(TREL_RC_COUNT_OPERATION);
      if (operation == 1) return countAttach(held);
      if (*held.count > 1) --*held.count;
      return 0;
    });
  });
}

uint32_t trelGetShmAttachRefCount(ShmSegInfo_t* segInfo, uint32_t* count) {
  return traced(FID_trelGetShmAttachRefCount, [&](const Flow& flow) -> uint32_t {
    if (!segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (!count) return flow.fail(TREL_RC_OUT_ATTACH_COUNT);
    return withCount(segInfo, [&](const Attachment& held) -> uint32_t {
      *count = *held.count;
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
