#include "treli/attachment.h"

#include <initializer_list>

#include "trel/lists.h"
#include "trelshm/domain.h"
#include "trelshm/handle.h"
#include "trelshm/pool.h"

namespace trel {

uint32_t holdOfKey(uint32_t key, Hold* hold) {
  const PLATIPCResID id = {PLAT_STRUCTURE_TAG, key};
  SegAttachNode_t* node = nullptr;
  if (const uint32_t rc = trelFindAttachInfoNodeInLList(&id, &node)) return rc;
  if (!node) return TREL_RC_NOT_ATTACHED;
  *hold = {node->segInfo, &node->refCount};
  return 0;
}

uint32_t holdOfSlot(Hold* hold) {
  if (trelGASegInfo.state != TREL_GA_SLOT_IN_USE) return TREL_RC_SLOT_EMPTY;
  *hold = {&trelGASegInfo.segInfo, &trelGARefCount};
  return 0;
}

uint32_t holdOf(const SegIdentity_t& identity, Hold* hold) {
  switch (identity.accessMode) {
    case 1:
    case 2:
      return holdOfKey(identity.segmentKey.key, hold);
    case kByAddress:
      return holdOfSlot(hold);
    default:
      return TREL_RC_ACCESS_MODE;
  }
}

namespace {

// The first attached domain that fits.
template <class Fits>
const ShmDomainHandle_t* findDomain(Fits&& fits) {
  const ShmDomainHandle_t* inSlot = trelGASegInfo.segInfo.shmDomainHandle;
  if (trelGASegInfo.state == TREL_GA_SLOT_IN_USE && inSlot && fits(inSlot)) return inSlot;
  if (!isInitialised()) return nullptr;
  for (const SegAttachNode_t* node = *pSegAttachList; node; node = node->next) {
    const ShmDomainHandle_t* domain = node->segInfo->shmDomainHandle;
    if (domain && fits(domain)) return domain;
  }
  return nullptr;
}

}  // namespace

const ShmDomainHandle_t* domainAround(const void* address, uint64_t size) {
  return findDomain([&](const ShmDomainHandle_t* domain) {
    return address >= domain->base && liesInDomain(domain, offsetOf(address, domain->base), size);
  });
}

const ShmDomainHandle_t* domainAt(const void* base) {
  return findDomain([&](const ShmDomainHandle_t* domain) { return domain->base == base; });
}

uint64_t attachedBytes() {
  uint64_t bytes = 0;
  findDomain([&](const ShmDomainHandle_t* domain) {
    const uint64_t stored = at<HeapHeader_t>(domain->base, domain->heapOffset)->heapSize;
    bytes += domain->ipcMemory ? domain->ipcMemory->getSize() : stored;
    return false;
  });
  return bytes;
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

uint32_t NewHold::begin(const SegmentForm& form, const PLATIPCResID* key) {
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

uint32_t NewHold::publish() {
  if (!node_) {
    trelGARefCount = 1;
    trelGASegInfo.state = TREL_GA_SLOT_IN_USE;
    return 0;
  }
  // A hold of a deleted segment would be found in place of the new one of its key.
  Hold held;
  if (holdOfKey(segInfo_->identity.segmentKey.key, &held) == 0) return TREL_RC_SEGMENT_EXISTS;
  node_->refCount = 1;
  return trelInsertAttachInfoNodeIntoLList(segInfo_, &node_);
}

void NewHold::drop() {
  if (segInfo_) {
    freeHandle(&segInfo_->shmPoolHandle);
    freeHandle(&segInfo_->shmDomainHandle);
    if (node_) release(&segInfo_);
  }
  release(&node_);
}

uint32_t endHold(const SegIdentity_t& identity) {
  if (identity.accessMode == kByAddress) {
    trelGARefCount = 0;
    trelGASegInfo.state = TREL_GA_SLOT_EMPTY;
    return 0;
  }
  const PLATIPCResID key = {identity.segmentKey.structureTag, identity.segmentKey.key};
  return trelDeleteAttachInfoNodeInLList(&key);
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

namespace {

// As many as there are threads that look at a node at one instant. What finds no place is not
// marked.
constexpr uint32_t kMostUndecided = 64;
const ShmSegInfo_t* undecided[kMostUndecided];
uint32_t undecidedCount = 0;

}  // namespace

void markUndecided(const ShmSegInfo_t* segInfo) {
  Hold hold;
  if (holdOf(segInfo->identity, &hold) || *hold.count != 1) return;
  if (undecidedCount < kMostUndecided) undecided[undecidedCount++] = segInfo;
}

bool isUndecided(const ShmSegInfo_t* segInfo) {
  for (uint32_t i = 0; i < undecidedCount; ++i)
    if (undecided[i] == segInfo) return true;
  return false;
}

bool decideToHold(const ShmSegInfo_t* segInfo) {
  for (uint32_t i = 0; i < undecidedCount; ++i) {
    if (undecided[i] != segInfo) continue;
    undecided[i] = undecided[--undecidedCount];
    return true;
  }
  return false;
}

void undoAttach(ShmSegInfo_t* segInfo) {
  const SegIdentity_t identity = segInfo->identity;
  Hold hold;
  if (holdOf(identity, &hold)) return;
  if (*hold.count > 1) {
    --*hold.count;
    return;
  }
  decideToHold(segInfo);  // takes the mark away
  if (leaveSegment(hold.segInfo, true) == 0) endHold(identity);
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

}  // namespace trel
