#include "treli/attachment.h"

#include <initializer_list>

#include "trel/lists.h"
#include "treli/top_node.h"
#include "trelll/attach_list.h"
#include "trelshm/domain.h"
#include "trelshm/handle.h"
#include "trelshm/pool.h"

namespace trel {
namespace {

bool found(const Mapping& mapping, Attachment* held) {
  *held = {mapping.attachment, mapping.attachCount};
  return true;
}

// By the list itself, which others may have changed.
uint32_t findOnList(uint32_t key, Attachment* held) {
  const PLATIPCResID id = {PLAT_STRUCTURE_TAG, key};
  SegAttachNode_t* node = nullptr;
  if (const uint32_t rc = trelFindAttachInfoNodeInLList(&id, &node)) return rc;
  if (!node) return TREL_RC_NOT_ATTACHED;
  *held = {node->segInfo, &node->refCount};
  return 0;
}

}  // namespace

uint32_t attachmentOfKey(uint32_t key, Attachment* held) {
  if (!isInitialised()) return TREL_RC_NOT_INITIALISED;
  if (!attachListIsOurs()) return findOnList(key, held);
  Mapping mapping;
  return findAttachment(key, &mapping) && found(mapping, held) ? 0 : uint32_t{TREL_RC_NOT_ATTACHED};
}

uint32_t attachmentOfSlot(Attachment* held) {
  if (trelGASegInfo.state != TREL_GA_SLOT_IN_USE) return TREL_RC_SLOT_EMPTY;
  *held = {&trelGASegInfo.segInfo, &trelGARefCount};
  return 0;
}

uint32_t attachmentOf(const SegIdentity_t& identity, Attachment* held) {
  switch (identity.accessMode) {
    case 1:
    case 2:
      return attachmentOfKey(identity.segmentKey.key, held);
    case kByAddress:
      return attachmentOfSlot(held);
    default:
      return TREL_RC_ACCESS_MODE;
  }
}

uint32_t attachmentOf(const ShmSegInfo_t* record, Attachment* held) {
  Mapping mapping;
  if (findAttachment(record, &mapping) && found(mapping, held)) return 0;
  return attachmentOf(record->identity, held);
}

uint32_t countAttach(const Attachment& held) {
  if (*held.count == UINT32_MAX) return TREL_RC_ATTACH_COUNT_FULL;
  if (++*held.count == 1) decideAttachment(held.segInfo, false);
  return 0;
}

uint32_t keepForWalk(const ShmSegInfo_t* segInfo) {
  Mapping mapping;
  if (!findAttachment(segInfo, &mapping)) return TREL_RC_NOT_ATTACHED;
  if (!mapping.undecidedBy) return 0;
  *mapping.attachCount = 1;
  decideAttachment(segInfo, true);
  return 0;
}

bool isForReading(const Attachment& held) {
  const ShmDomainHandle_t* domain = held.segInfo->shmDomainHandle;
  return domain && isReadOnly(domain->base);
}

bool isDeleted(const ShmSegInfo_t* segInfo) {
  const ShmDomainHandle_t* domain = segInfo->shmDomainHandle;
  if (!domain) return false;
  if (heapOf(domain).header()->heapState != TREL_DOMAIN_STATE) return true;
  if (!domain->ipcMemory) return false;
  const PLATIPCResID key = {PLAT_STRUCTURE_TAG, segInfo->identity.segmentKey.key};
  const uint32_t rc = domain->ipcMemory->findKey(&key);
  return rc == PLAT_RC_NO_SEGMENT || rc == PLAT_RC_OTHER_SEGMENT;
}

uint32_t endIfDeleted(const Attachment& held) {
  if (!isDeleted(held.segInfo)) return 0;
  Mapping mapping;
  if (!findAttachment(held.segInfo, &mapping)) return TREL_RC_DOMAIN_STATE;
  const uint32_t byWalks = mapping.byWalk ? 1 : 0;
  if (*held.count > byWalks) return TREL_RC_DOMAIN_STATE;
  const uint32_t rc =
      endAttachment(held, [](ShmSegInfo_t* handles) { return leaveSegment(handles, true); });
  return rc ? rc : uint32_t{TREL_RC_NOT_ATTACHED};
}

SegmentForm readForm(const ShmDomainParam_t* param, uint32_t defaultMode) {
  SegmentForm form = {0, 0, 0, 0};
  if (param)
    form = {param->heapVersion, param->handleVersion, param->latchVersion, param->accessMode};
  for (uint64_t* version : {&form.heapVersion, &form.handleVersion, &form.latchVersion})
    if (*version == 0) *version = TREL_STRUCTURE_VERSION;
  if (form.accessMode == 0) form.accessMode = defaultMode;
  return form;
}

uint32_t NewAttachment::begin(const SegmentForm& form, const PLATIPCResID* key) {
  if (form.accessMode == kByAddress) {
    segInfo_ = &trelGASegInfo.segInfo;
  } else {
    if (obtain(&node_) || obtain(&segInfo_)) {
      drop();
      return TREL_RC_ATTACH_NO_MEMORY;
    }
    *node_ = {nullptr, segInfo_, 0};
    *segInfo_ = {};
    segInfo_->identity.segmentKey = {key->structureTag, key->key};
  }
  SegIdentity_t& identity = segInfo_->identity;
  identity.handleVersion = static_cast<uint32_t>(form.handleVersion);
  identity.heapVersion = static_cast<uint32_t>(form.heapVersion);
  identity.latchVersion = static_cast<uint32_t>(form.latchVersion);
  identity.accessMode = form.accessMode;
  identity.connected = 1;
  segInfo_->shmDomainHandle = nullptr;
  segInfo_->shmPoolHandle = nullptr;
  return 0;
}

uint32_t NewAttachment::publish(const void* undecidedBy) {
  uint32_t* const count = node_ ? &node_->refCount : &trelGARefCount;
  const uint32_t key = node_ ? segInfo_->identity.segmentKey.key : 0;
  if (node_) {
    // One of a deleted segment would be found in place of the new one of its key.
    Attachment held;
    if (attachmentOfKey(key, &held) == 0 && !isForReading(held) &&
        endIfDeleted(held) != TREL_RC_NOT_ATTACHED)
      return TREL_RC_SEGMENT_EXISTS;
    linkAttachment(node_);
  } else {
    trelGASegInfo.state = TREL_GA_SLOT_IN_USE;
  }
  *count = undecidedBy ? 0 : 1;
  publishAttachment(segInfo_->shmDomainHandle, {key, segInfo_, count, false, undecidedBy});
  return 0;
}

void NewAttachment::drop() {
  if (segInfo_) {
    freeHandle(&segInfo_->shmPoolHandle);
    freeHandle(&segInfo_->shmDomainHandle);
    if (node_) release(&segInfo_);
  }
  release(&node_);
}

Ending::Ending(const Attachment& held) : held_(held), handles_(*held.segInfo) {
  wasKnown_ = findAttachment(held.segInfo, &was_);
  hideAttachment(held.segInfo);
  isPinned_ = !isSlot() && handles_.shmDomainHandle &&
              freeWithLastPin(handles_.shmDomainHandle->base, held.segInfo);
}

bool Ending::isSlot() const { return held_.segInfo == &trelGASegInfo.segInfo; }

uint32_t Ending::finish(uint32_t rc) {
  if (rc || isSlot()) {
    held_.segInfo->shmPoolHandle = handles_.shmPoolHandle;
    held_.segInfo->shmDomainHandle = handles_.shmDomainHandle;
  }
  if (rc) {
    if (isPinned_) takeFromLastPin(handles_.shmDomainHandle->base, held_.segInfo);
    const bool isKnown = wasKnown_ && publishAttachment(handles_.shmDomainHandle,
                                                        {was_.key, held_.segInfo, held_.count,
                                                         was_.byWalk, was_.undecidedBy});
    if (!isKnown) distrustAttachList();
    return rc;
  }
  if (isSlot()) {
    trelGARefCount = 0;
    trelGASegInfo.state = TREL_GA_SLOT_EMPTY;
    return 0;
  }
  ShmSegInfo_t* segInfo = isPinned_ ? nullptr : held_.segInfo;
  SegAttachNode_t* node = unlinkAttachment(held_.segInfo);
  rc = release(&segInfo);
  return firstOf(rc, release(&node));
}

namespace {

// Leaves a domain that cannot be disconnected from in good order.
uint32_t unmap(ShmDomainHandle_t** domain) { return dropHandle(domain, TREL_RC_SEGMENT_DETACH); }

}  // namespace

uint32_t destroyMemory(ShmDomainHandle_t** domain) {
  PLATHIPCMemory* memory = (*domain)->ipcMemory;
  if (memory && memory->remove() != 0) return TREL_RC_SEGMENT_DESTROY;
  return dropHandle(domain, TREL_RC_SEGMENT_DESTROY);
}

uint32_t leaveSegment(ShmSegInfo_t* segInfo, bool forced) {
  if (segInfo->shmPoolHandle) {
    uint32_t rc = disconnectPool(&segInfo->shmPoolHandle);
    if (forced && isGone(rc)) rc = freeHandle(&segInfo->shmPoolHandle);
    if (rc) return rc;
  }
  if (!segInfo->shmDomainHandle) return 0;
  const uint32_t rc = disconnectDomain(&segInfo->shmDomainHandle);
  return forced && isGone(rc) ? unmap(&segInfo->shmDomainHandle) : rc;
}

void undoPoolConnection(ShmPoolHandle_t** pool) {
  if (*pool && disconnectPool(pool) != 0) freeHandle(pool);
}

void undoDomainConnection(ShmDomainHandle_t** domain) {
  if (*domain && disconnectDomain(domain) != 0 && *domain) unmap(domain);
}

void undoPoolCreation(ShmPoolHandle_t** pool) {
  if (*pool && freePool(pool, 4, {FID_trelGetProtectedStatusSegment, __LINE__, kModuleName}) != 0)
    freeHandle(pool);
}

void undoDomainCreation(ShmDomainHandle_t** domain) {
  if (*domain && freeDomain(domain, 2) != 0 && *domain) destroyMemory(domain);
}

namespace {

uint32_t attachAgain(const Attachment& held, ShmSegInfo_t** segInfo) {
  const ShmDomainHandle_t* domain = held.segInfo->shmDomainHandle;
  // A detach that failed half way has left an attachment that can only be detached again.
  if (!held.segInfo->shmPoolHandle) return TREL_RC_POOL_HANDLE_NULL;
  if (!domain) return TREL_RC_DOMAIN_HANDLE_NULL;
  if (const uint32_t rc = endIfDeleted(held)) return rc;
  if (heapOf(domain).header()->heapFlags & TREL_HEAP_MARKED) return TREL_RC_DOMAIN_MARKED;
  if (const uint32_t rc = countAttach(held)) return rc;
  *segInfo = held.segInfo;
  return 0;
}

uint32_t connectPoolAt(const SegmentAddress& where, ShmSegInfo_t* segInfo) {
  uint32_t poolOffset = where.poolOffset;
  if (!isAligned8(poolOffset)) return TREL_RC_POOL_OFFSET_ALIGN;
  if (poolOffset == 0) {
    TopNodeInfo_t top;
    if (const uint32_t rc = readTopNode(segInfo->shmDomainHandle, &top)) return rc;
    poolOffset = top.poolOffset;
  }
  return connectPool(&segInfo->shmPoolHandle, segInfo->shmDomainHandle, poolOffset,
                     where.poolParam);
}

// Connects domain and pool, and publishes the attachment.
uint32_t connect(const SegmentAddress& where, NewAttachment* made, const void* undecidedBy) {
  ShmSegInfo_t* segInfo = made->segInfo();
  if (const uint32_t rc = connectDomain(where.key, where.address, where.domainParam,
                                        &segInfo->shmDomainHandle, where.forReading))
    return rc;
  uint32_t rc = connectPoolAt(where, segInfo);
  if (rc == 0) rc = made->publish(undecidedBy);
  if (rc == 0) return 0;
  undoPoolConnection(&segInfo->shmPoolHandle);
  undoDomainConnection(&segInfo->shmDomainHandle);
  return rc;
}

}  // namespace

uint32_t attachNew(const SegmentForm& form, const SegmentAddress& where, const void* undecidedBy,
                   ShmSegInfo_t** segInfo) {
  if (form.accessMode != kByAddress && form.handleVersion != TREL_STRUCTURE_VERSION)
    return TREL_RC_HANDLE_VERSION;
  NewAttachment made;
  if (const uint32_t rc = made.begin(form, where.key)) return rc;
  if (const uint32_t rc = connect(where, &made, undecidedBy)) {
    made.drop();
    return rc;
  }
  *segInfo = made.segInfo();
  return 0;
}

uint32_t attachSegment(const SegmentAddress& where, ShmSegInfo_t** segInfo) {
  const SegmentForm form = readForm(where.domainParam, 2);
  if (!isInitialised()) return TREL_RC_NOT_INITIALISED;
  Attachment held;
  uint32_t rc = 0;
  switch (form.accessMode) {
    case 1:
    case 2:
      if (!where.key) return TREL_RC_SEGMENT_NULL;
      rc = attachmentOfKey(where.key->key, &held);
      break;
    case kByAddress:
      rc = attachmentOfSlot(&held);
      break;
    default:
      return TREL_RC_ACCESS_MODE;
  }
  if (rc == 0 && (where.forReading || !isForReading(held))) {
    rc = attachAgain(held, segInfo);
  } else if (rc == 0) {
    rc = TREL_RC_NOT_ATTACHED;
  }
  if (rc != TREL_RC_NOT_ATTACHED && rc != TREL_RC_SLOT_EMPTY) return rc;
  return attachNew(form, where, nullptr, segInfo);
}

}  // namespace trel
