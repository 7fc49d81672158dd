// The beginning and the end of a status segment.
#include "platsvc/ipc.h"
#include "trel/segment.h"
#include "trel/segment_creation.h"
#include "trel/storage.h"
#include "treli/attach_latch.h"
#include "treli/attachment.h"
#include "trelshm/domain.h"
#include "trelshm/handle.h"
#include "trelshm/node_room.h"
#include "trelshm/pool.h"
#include "trelshm/segment_memory.h"

namespace trel {
namespace {

constexpr uint64_t kMostPads = 216;  // what a chunk can cost in any debug mode
constexpr uint64_t kUsualPads = 32;  // in the mode of a new domain

// The defaults by which a heap is sized, taken from a parameter record that may be null.
template <class Param>
struct HeapSizing {
  uint32_t kind;
  uint64_t nodeCount = 0, maxLevel, userAreaSize = 0;

  HeapSizing(uint32_t heapKind, uint64_t defaultLevel, const Param* param)
      : kind(heapKind), maxLevel(defaultLevel) {
    if (!param) return;
    nodeCount = param->nodeCount;
    if (param->maxLevel) maxLevel = param->maxLevel;
    userAreaSize = param->userAreaSize;
  }

  // The bytes that a heap sized by `size` needs for itself, or with `used` what it needs once it
  // has handed out a block.
  uint32_t overhead(uint64_t size, uint64_t* bytes, bool used = false) const {
    uint64_t count = nodeCount, level = maxLevel, header = 0, listHeader = 0, listSpace = 0;
    if (const uint32_t rc = trelGetHHeaderInfo(size, kind, &count, &level, round8(userAreaSize),
                                               &header, &listHeader, &listSpace))
      return rc;
    const uint64_t first = used ? spaceForFirst(level) : 0;
    *bytes = header + (first > listSpace ? first : listSpace);
    return 0;
  }
};

struct Creation : NewSegment {
  explicit Creation(const NewSegment& wanted) : NewSegment(wanted) {}
  uint32_t check(const SegmentForm& form) const;
  uint32_t create(NewAttachment* made) const;

 private:
  uint32_t payload(uint32_t* bytes) const;
  uint32_t largestPayload(const HeapSizing<ShmPoolParam_t>& sizing, uint64_t managed,
                          uint64_t atMost, uint64_t* bytes) const;
};

uint32_t Creation::check(const SegmentForm& form) const {
  if (size == 0) return TREL_RC_SEGMENT_SIZE_ZERO;
  if (domainParam && !isAligned8(domainParam->heapOffset)) return TREL_RC_HEAP_OFFSET_ALIGN;
  if (domainParam && domainParam->userAreaSize > size) return TREL_RC_USER_AREA_SIZE;
  if (form.handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (form.latchVersion != TREL_STRUCTURE_VERSION) return TREL_RC_LATCH_VERSION;
  return form.heapVersion != TREL_STRUCTURE_VERSION ? uint32_t{TREL_RC_HEAP_VERSION} : 0;
}

// A pool's own needs grow in steps with its payload, and the next step may begin just above the
// size by which they were estimated. So this is the first of atMost, atMost - 8, ... with which the
// pool's chunk fits.
uint32_t Creation::largestPayload(const HeapSizing<ShmPoolParam_t>& sizing, uint64_t managed,
                                  uint64_t atMost, uint64_t* bytes) const {
  const uint64_t unit = poolParam && poolParam->granularity ? poolParam->granularity : 8;
  uint64_t first = 0, end = atMost / 8 + 1;
  while (first < end) {
    const uint64_t middle = first + (end - first) / 2;
    uint64_t own = 0;
    if (const uint32_t rc = sizing.overhead(atMost - 8 * middle, &own)) return rc;
    const bool fits = (atMost - 8 * middle + own + unit - 1) / unit * unit + kUsualPads <= managed;
    if (fits)
      end = middle;
    else
      first = middle + 1;
  }
  *bytes = atMost - 8 * first;
  return 8 * first > atMost ? uint32_t{TREL_RC_SEGMENT_SMALL} : 0;
}

// The payload of the pool, as poolSize asks for it.
uint32_t Creation::payload(uint32_t* bytes) const {
  uint64_t own = 0;
  const HeapSizing<ShmDomainParam_t> domain(TREL_HEAP_DOMAIN, 7, domainParam);
  if (const uint32_t rc = domain.overhead(size, &own)) return rc;
  const uint64_t managed = size > own ? size - own : 0;

  if (poolParam && poolParam->userAreaSize > size) return TREL_RC_USER_AREA_SIZE;
  const HeapSizing<ShmPoolParam_t> pool(TREL_HEAP_POOL, 10, poolParam);
  if (const uint32_t rc = pool.overhead(managed, &own)) return rc;
  const uint64_t margin = own + kMostPads;
  if (managed < margin) return TREL_RC_SEGMENT_SMALL;
  const uint64_t sure = managed - margin;

  uint64_t wanted = 0;
  if (wholePool) {
    if (const uint32_t rc = largestPayload(pool, wholePool + kUsualPads, wholePool, &wanted))
      return rc;
  } else if (poolSize == 0) {
    // The list of a domain of very few nodes takes from that memory what the pool's node needs.
    if (const uint32_t rc = domain.overhead(size, &own, true)) return rc;
    if (const uint32_t rc = largestPayload(pool, size > own ? size - own : 0, sure, &wanted))
      return rc;
  } else if (poolSize <= sure) {
    wanted = poolSize + margin;
  } else if (poolSize <= managed) {
    wanted = poolSize > margin ? poolSize - margin : 0;
  } else {
    return TREL_RC_DOMAIN_ABOVE_HEAP;
  }
  if (wanted == 0) return TREL_RC_SEGMENT_SMALL;
  *bytes = static_cast<uint32_t>(wanted);
  return 0;
}

// Makes domain and pool, and publishes the attachment.
uint32_t Creation::create(NewAttachment* made) const {
  struct Context {
    const Creation* creation;
    ShmSegInfo_t* segInfo;
  } context = {this, made->segInfo()};
  const Furnishing pool = {
      [](void* given, const ShmDomainHandle_t* domain) -> uint32_t {
        const auto& [creation, segInfo] = *static_cast<Context*>(given);
        uint32_t bytes = 0;
        freeHandle(&segInfo->shmPoolHandle);  // of a domain that had to be made again
        if (const uint32_t rc = creation->payload(&bytes)) return rc;
        return createPoolInNew(&segInfo->shmPoolHandle, domain, bytes, creation->poolParam,
                               {FID_trelGetProtectedStatusSegment, __LINE__, kModuleName});
      },
      &context};
  ShmSegInfo_t* segInfo = made->segInfo();
  uint32_t rc = createDomain(key, address, size, domainParam, &segInfo->shmDomainHandle, &pool);
  if (rc == 0) rc = made->publish();
  if (rc == 0) return 0;
  freeHandle(&segInfo->shmPoolHandle);
  undoDomainCreation(&segInfo->shmDomainHandle);
  return rc;
}

// Handles that are gone already are passed over, so that a failed call can be repeated. Forced, so
// is a segment that others have ended.
uint32_t freeSegment(ShmSegInfo_t* segInfo, uint32_t poolFreeMode, uint32_t freeMode) {
  const bool forced = freeMode == 2;
  if (freeMode != 1 && !forced) return TREL_RC_DOMAIN_FREE_MODE;
  if (!segInfo->shmDomainHandle) return freeHandle(&segInfo->shmPoolHandle);
  const uint32_t rc = freeDomainWithPool(&segInfo->shmDomainHandle, &segInfo->shmPoolHandle,
                                         poolFreeMode, freeMode);
  if (!forced || !isGone(rc)) return rc;
  if (const uint32_t failed = freeHandle(&segInfo->shmPoolHandle)) return failed;
  return destroyMemory(&segInfo->shmDomainHandle);
}

}  // namespace

uint32_t createSegment(const NewSegment& wanted, ShmSegInfo_t** seg) {
  const Creation creation(wanted);
  const SegmentForm form = readForm(wanted.domainParam, 1);
  if (const uint32_t rc = creation.check(form)) return rc;
  const AttachLatch latch;
  if (!isInitialised()) return TREL_RC_NOT_INITIALISED;
  if (form.accessMode == kByAddress) {
    if (trelGASegInfo.state == TREL_GA_SLOT_IN_USE) return TREL_RC_SEGMENT_EXISTS;
  } else if (form.accessMode != 1) {
    return TREL_RC_ACCESS_MODE;
  } else if (!wanted.key) {
    return TREL_RC_SEGMENT_NULL;
  }
  NewAttachment made;
  if (const uint32_t rc = made.begin(form, wanted.key)) return rc;
  if (const uint32_t rc = creation.create(&made)) {
    made.drop();
    return rc;
  }
  *seg = made.segInfo();
  return 0;
}

}  // namespace trel

using namespace trel;

uint32_t trelGetProtectedStatusSegment(ShmSegInfo_t** seg, uint32_t size, const PLATIPCResID* key,
                                       uintptr_t address, uint32_t poolSize,
                                       const ShmDomainParam_t* domainParam,
                                       const ShmPoolParam_t* poolParam) {
  return traced(FID_trelGetProtectedStatusSegment, [&](const Flow& flow) -> uint32_t {
    if (!seg) return flow.fail(TREL_RC_SEGMENT_NULL);
    const uint32_t rc = createSegment({size, key, address, poolSize, domainParam, poolParam}, seg);
    return rc ? flow.fail(rc) : 0;
  });
}

uint32_t trelAuthorizeStatusSegment(ShmSegInfo_t* seg, const SegSecurity_t* security) {
  return traced(FID_trelAuthorizeStatusSegment, [&](const Flow& flow) -> uint32_t {
    if (!seg) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (!security) return flow.fail(TREL_RC_SECURITY_NULL);
    if (seg->identity.handleVersion != TREL_STRUCTURE_VERSION)
      return flow.fail(TREL_RC_HANDLE_VERSION);
    if (!seg->shmDomainHandle) return flow.logged(TREL_RC_DOMAIN_HANDLE_NULL, nullptr);
    PLATHIPCMemory* memory = seg->shmDomainHandle->ipcMemory;
    if (!memory) return 0;
    const PLATIPCSecurityParam param = {PLAT_STRUCTURE_TAG, security->ownerId, security->groupId,
                                        security->accessBits};
    return memory->authorize(&param) ? flow.fail(TREL_RC_AUTHORIZE) : 0;
  });
}

uint32_t trelRemoveStatusSegment(const PLATIPCResID* key, uint32_t mode) {
  return traced(FID_trelRemoveStatusSegment, [&](const Flow& flow) -> uint32_t {
    if (!key) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (mode != 1 && mode != 2) return flow.fail(TREL_RC_REMOVE_MODE);
    const uint32_t rc = removeSegment(key, mode);
    return rc ? flow.fail(rc) : 0;
  });
}

uint32_t trelDeleteStatusSegment(ShmSegInfo_t** segInfo, uint32_t poolFreeMode, uint32_t freeMode,
                                 uint32_t countMode) {
  return traced(FID_trelDeleteStatusSegment, [&](const Flow& flow) -> uint32_t {
    if (!segInfo || !*segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    const AttachLatch latch;
    if (!isInitialised()) return flow.fail(TREL_RC_NOT_INITIALISED);
    Attachment held;
    if (const uint32_t rc = attachmentOf(*segInfo, &held)) return flow.fail(rc);
    if (countMode != 1 && countMode != 2) return flow.fail(TREL_RC_COUNT_MODE);
    if (isForReading(held)) return flow.fail(TREL_RC_READING_ONLY);
    if (countMode == 1 && *held.count > 1) {
      --*held.count;
      return 0;
    }
    const uint32_t rc = endAttachment(
        held, [&](ShmSegInfo_t* handles) { return freeSegment(handles, poolFreeMode, freeMode); });
    if (rc) return flow.fail(rc);
    *segInfo = nullptr;
    return 0;
  });
}
