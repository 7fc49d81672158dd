#include "trelshm/domain.h"

#include "platsvc/ipc.h"
#include "trelshm/handle.h"
#include "trelshm/heap.h"
#include "trelshm/mapping.h"
#include "trelshm/process_memory.h"
#include "trelshm/segment_memory.h"
#include "trelshm/store.h"

namespace trel {
namespace {

constexpr uint64_t kDefaultGranularity = 4096;
constexpr uint32_t kDefaultPermissions = 0660;

bool byKey(uint32_t accessMode) { return accessMode == 1 || accessMode == 2; }

// Whether a segment is large enough for the heap that it claims to hold.
bool holds(const SegmentMemory& memory, uint64_t heapOffset) {
  if (!memory.object()) return true;
  const uint64_t size = memory.object()->getSize();
  if (heapOffset > size || size - heapOffset < TREL_HEAP_HEADER_SIZE) return false;
  return Heap(memory.base, heapOffset, kDomainKind).header()->heapSize <= size - heapOffset;
}

// Gives the memory to a new handle, which enters the table of what is mapped.
uint32_t hand(SegmentMemory* memory, ShmDomainHandle_t** handle, const ShmDomainParam_t& param,
              uint64_t heapSize, bool writable = true) {
  ShmDomainHandle_t* made = nullptr;
  if (obtain(&made)) return TREL_RC_DOMAIN_NO_MEMORY;
  PLATHIPCMemory* const object = memory->object();
  *made = {memory->base, param.accessMode, param.heapOffset, object};
  if (!enterMapping(made, object ? object->getSize() : param.heapOffset + heapSize, writable)) {
    release(&made);
    return TREL_RC_DOMAIN_NO_MEMORY;
  }
  if (!enterHandle(made, heapOf(made).header())) {
    forgetMapping(made);
    release(&made);
    return TREL_RC_DOMAIN_NO_MEMORY;
  }
  *handle = made;
  return 0;
}

// The caller's record with the defaults in place of zeros.
ShmDomainParam_t complete(const ShmDomainParam_t* given, uint32_t accessMode) {
  ShmDomainParam_t p = completed(given, kDefaultGranularity);
  takeDefault(&p.accessMode, accessMode);
  takeDefault(&p.permissions, kDefaultPermissions);
  return p;
}

// The tests of a handle that stands.
uint32_t checkDomainHandle(const ShmDomainHandle_t* handle) {
  return isAligned8(handle->heapOffset) ? 0 : uint32_t{TREL_RC_DOMAIN_OFFSET_ALIGN};
}

}  // namespace

namespace {

// All of a domain but its heapState. The caller holds heapLatch.
uint32_t layOutDomain(SegmentMemory* memory, const ShmDomainParam_t& param, const HeapPlan& plan,
                      const Furnishing* furnishing, ShmDomainHandle_t** handle) {
  Heap heap(memory->base, param.heapOffset, kDomainKind);
  if (const uint32_t rc = initHeap(&heap, plan)) return rc;
  if (const uint32_t rc = hand(memory, handle, param, plan.size)) return rc;
  const uint32_t rc = furnishing ? furnishing->work(furnishing->context, *handle) : 0;
  if (rc) freeHandle(handle);
  return rc;
}

uint32_t createByKey(const PLATIPCResID* id, uintptr_t address, const ShmDomainParam_t& param,
                     const HeapPlan& plan, const Furnishing* furnishing,
                     ShmDomainHandle_t** handle) {
  for (;;) {
    SegmentMemory memory;
    ShmDomainHandle_t* made = nullptr;
    if (const uint32_t rc =
            memory.begin(id, address, static_cast<uint32_t>(plan.size), param.permissions))
      return rc;
    uint32_t rc = checkPlan(kDomainKind, plan);
    if (rc == 0) rc = layOutDomain(&memory, param, plan, furnishing, &made);
    if (rc == 0) rc = memory.finish();
    if (rc == 0) {
      memory.keep();
      *handle = made;
      return 0;
    }
    if (made) freeHandle(&made);
    if (rc != kMakeAgain) return rc;
  }
}

uint32_t createAtAddress(uintptr_t address, const ShmDomainParam_t& param, const HeapPlan& plan,
                         const Furnishing* furnishing, ShmDomainHandle_t** handle) {
  SegmentMemory memory;
  memory.base = reinterpret_cast<void*>(address);
  Heap heap(memory.base, param.heapOffset, kDomainKind);
  if (const uint32_t rc = checkPlan(kDomainKind, plan)) return rc;
  if (const uint32_t rc = takeFreshHeap(&heap, plan.latchVersion)) return rc;
  ShmDomainHandle_t* made = nullptr;
  const uint32_t rc = layOutDomain(&memory, param, plan, furnishing, &made);
  if (rc == 0) storeLast(&heap.header()->heapState, TREL_DOMAIN_STATE);
  leaveHeap(heap);
  if (rc == 0) *handle = made;
  return rc;
}

}  // namespace

uint32_t createDomain(const PLATIPCResID* id, uintptr_t address, uint32_t size,
                      const ShmDomainParam_t* given, ShmDomainHandle_t** handle,
                      const Furnishing* furnishing) {
  const ShmDomainParam_t param = complete(given, 1);
  if (!isAligned8(param.heapOffset)) return TREL_RC_HEAP_OFFSET_ALIGN;
  if (param.userAreaSize > size) return TREL_RC_USER_AREA_SIZE;
  if (const uint32_t rc = checkVersions(param)) return rc;
  if (const uint32_t rc = checkGranularity(param.granularity, size, TREL_RC_DOMAIN_GRANULARITY,
                                           TREL_RC_DOMAIN_GRANULARITY_ALIGN))
    return rc;
  if (!handle) return TREL_RC_DOMAIN_HANDLE_NULL;
  const HeapPlan plan = planOf(param, TREL_HEAP_DOMAIN, size, 0);
  switch (param.accessMode) {
    case 1:
      if (!id) return TREL_RC_SEGMENT_NULL;
      // The segment has the size of the heap, so the heap can begin nowhere but at its start.
      if (param.heapOffset != 0) return TREL_RC_HEAP_OFFSET_ALIGN;
      return createByKey(id, address, param, plan, furnishing, handle);
    case 3:
      if (!address) return TREL_RC_BASE_NULL;
      return createAtAddress(address, param, plan, furnishing, handle);
    default:
      return TREL_RC_ACCESS_MODE;
  }
}

namespace {

// Why nobody can connect to a segment, whatever its heap says of itself.
uint32_t connectFailure(const SegmentMemory& memory) {
  switch (stateOf(memory.base)) {
    case SegmentState::whole:
      return 0;
    case SegmentState::foreign:
      return TREL_RC_SEGMENT_FOREIGN;
    default:
      return TREL_RC_SEGMENT_HALF_MADE;
  }
}

}  // namespace

uint32_t connectDomain(const PLATIPCResID* id, uintptr_t address, const ShmDomainParam_t* given,
                       ShmDomainHandle_t** handle, bool forReading) {
  const ShmDomainParam_t param = complete(given, 2);
  if (!isAligned8(param.heapOffset)) return TREL_RC_HEAP_OFFSET_ALIGN;
  if (param.handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (param.heapVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HEAP_VERSION;
  if (!handle) return TREL_RC_DOMAIN_HANDLE_NULL;

  SegmentMemory memory;
  if (byKey(param.accessMode)) {
    if (!id) return TREL_RC_SEGMENT_NULL;
    if (const uint32_t rc = memory.attach(id, address, forReading)) return rc;
  } else if (param.accessMode == 3) {
    if (!address) return TREL_RC_BASE_NULL;
    memory.base = reinterpret_cast<void*>(address);
  } else {
    return TREL_RC_ACCESS_MODE;
  }
  Heap heap(memory.base, param.heapOffset, kDomainKind);
  if (const uint32_t rc = memory.object() ? connectFailure(memory) : 0) return rc;
  if (!holds(memory, param.heapOffset)) return TREL_RC_DOMAIN_STATE;
  // In the table first, so that its bounds hold for all that is read from here on.
  ShmDomainHandle_t* made = nullptr;
  if (const uint32_t rc = hand(&memory, &made, param, heap.header()->heapSize, !forReading))
    return rc;
  memory.keep();
  if (const uint32_t rc = connectHeap(&heap)) {
    dropHandle(&made, rc);
    return rc;
  }
  *handle = made;
  return 0;
}

uint32_t disconnectDomain(ShmDomainHandle_t** handle) {
  if (const uint32_t rc = checkDomainHandle(*handle)) return rc;
  Heap heap = heapOf(*handle);
  if (const uint32_t rc = checkStoredVersions(heap, false)) return rc;
  if (const uint32_t rc = disconnectHeap(&heap)) return rc;
  const uint32_t rc = dropHandle(handle, TREL_RC_SEGMENT_DETACH);
  if (rc == TREL_RC_SEGMENT_DETACH)
    insideHeap(&heap, [&] {
      heap.header()->connectionCount += 1;
      return 0u;
    });
  return rc;
}

namespace {

// The end of a domain that is somebody's last, or that is ended by force.
class Ending {
 public:
  Ending(const ShmDomainHandle_t* domain, const ShmPoolHandle_t* pool, uint32_t poolFreeMode)
      : domain_(heapOf(domain)),
        pool_(domain->base, pool ? pool->poolOffset : 0, kPoolKind),
        memory_(domain->ipcMemory),
        hasPool_(pool != nullptr),
        poolIsCounted_(poolFreeMode == 3) {}

  uint32_t byForce() { return end(); }
  // Under the latches of both heaps nobody connects between the look at the counts and the end. A
  // latch that cannot be had does not stop it.
  uint32_t ifLast() {
    PLATSegmentState state;
    if (memory_ && memory_->getState(&state) == 0 && !state.mayRemove)
      return TREL_RC_SEGMENT_DESTROY;
    const bool latched = domain_.openHeader() == 0 && enterHeap(&domain_) == 0;
    const uint32_t rc = hasPool_ && poolIsCounted_ ? endWithCountedPool() : endIfLast();
    if (latched) leaveHeap(domain_);
    return rc;
  }

 private:
  uint32_t endWithCountedPool() {
    if (const uint32_t rc = pool_.openHeader()) return rc;
    return insideHeap(&pool_, [&]() -> uint32_t {
      return isLastConnection(pool_, memory_) ? endIfLast() : uint32_t{TREL_RC_POOL_CONNECTED};
    });
  }
  uint32_t endIfLast() {
    return isLastConnection(domain_, memory_) ? end() : uint32_t{TREL_RC_DOMAIN_CONNECTED};
  }
  // The key first: a death behind it leaves memory without a name, which goes with the last who has
  // it mapped.
  uint32_t end() {
    if (memory_ && memory_->remove() != 0) return TREL_RC_SEGMENT_DESTROY;
    if (hasPool_ && checkHeap(pool_) == 0) storeLast(&pool_.header()->heapState, 0);
    domain_.header()->heapFlags |= TREL_HEAP_MARKED;
    storeLast(&domain_.header()->heapState, 0);
    return 0;
  }

  Heap domain_, pool_;
  PLATHIPCMemory* memory_;
  bool hasPool_, poolIsCounted_;
};

}  // namespace

uint32_t freeDomainWithPool(ShmDomainHandle_t** domain, ShmPoolHandle_t** pool,
                            uint32_t poolFreeMode, uint32_t freeMode) {
  const ShmPoolHandle_t* poolHandle = pool ? *pool : nullptr;
  if (const uint32_t rc = checkDomainHandle(*domain)) return rc;
  const Heap heap = heapOf(*domain);
  if (const uint32_t rc = checkStoredVersions(heap, true)) return rc;
  if (const uint32_t rc = checkHeap(heap)) return rc;
  if (freeMode != 1 && freeMode != 2) return TREL_RC_DOMAIN_FREE_MODE;
  if (isReadOnly(heap.header())) return TREL_RC_READING_ONLY;
  if (poolHandle && freeMode == 1) {
    if (poolFreeMode != 3 && poolFreeMode != 4) return TREL_RC_POOL_FREE_MODE;
    if (const uint32_t rc = checkHeap(heapOf(poolHandle))) return rc;
  }
  Ending ending(*domain, poolHandle, poolFreeMode);
  if (const uint32_t rc = freeMode == 2 ? ending.byForce() : ending.ifLast()) return rc;
  if (poolHandle)
    if (const uint32_t rc = freeHandle(pool)) return rc;
  return dropHandle(domain, TREL_RC_SEGMENT_DESTROY);
}

uint32_t freeDomain(ShmDomainHandle_t** handle, uint32_t freeMode) {
  return freeDomainWithPool(handle, nullptr, 0, freeMode);
}

}  // namespace trel

using namespace trel;

uint32_t trelCreateShmDomain(const PLATIPCResID* resId, uintptr_t address, uint32_t size,
                             const ShmDomainParam_t* given, ShmDomainHandle_t** handle) {
  return traced(FID_trelCreateShmDomain, [&](const Flow& flow) -> uint32_t {
    const uint32_t rc = createDomain(resId, address, size, given, handle);
    return rc ? flow.fail(rc) : 0;
  });
}

uint32_t trelConnectToShmDomain(const PLATIPCResID* resId, uintptr_t address,
                                const ShmDomainParam_t* given, ShmDomainHandle_t** handle) {
  return traced(FID_trelConnectToShmDomain, [&](const Flow& flow) -> uint32_t {
    const uint32_t rc = connectDomain(resId, address, given, handle);
    return rc ? flow.fail(rc) : 0;
  });
}

uint32_t trelDisconnectFromShmDomain(ShmDomainHandle_t** handle) {
  return traced(FID_trelDisconnectFromShmDomain, [&](const Flow& flow) -> uint32_t {
    const uint32_t rc = checkHandle(flow, handle ? *handle : nullptr);
    return rc ? rc : disconnectDomain(handle);
  });
}

uint32_t trelFreeShmDomain(ShmDomainHandle_t** handle, uint32_t freeMode) {
  return traced(FID_trelFreeShmDomain, [&](const Flow& flow) -> uint32_t {
    const uint32_t rc = checkHandle(flow, handle ? *handle : nullptr);
    return rc ? rc : freeDomain(handle, freeMode);
  });
}

uint32_t trelMarkShmDomainForDeletion(ShmDomainHandle_t* handle) {
  return traced(FID_trelMarkShmDomainForDeletion, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle)) return rc;
    if (const uint32_t rc = checkDomainHandle(handle)) return flow.fail(rc);
    const Heap heap = heapOf(handle);
    if (const uint32_t rc = checkHeap(heap)) return flow.fail(rc);
    if (isReadOnly(heap.header())) return flow.fail(TREL_RC_READING_ONLY);
    heap.header()->heapFlags |= TREL_HEAP_MARKED;
    return 0;
  });
}

uint32_t trelDestroyShmDomainHandle(ShmDomainHandle_t** handle) {
  return destroyHandle(FID_trelDestroyShmDomainHandle, handle);
}

uint32_t trelLatchShmDomain(ShmDomainHandle_t* handle) {
  return latchHandle(FID_trelLatchShmDomain, handle);
}

uint32_t trelUnlatchShmDomain(ShmDomainHandle_t* handle) {
  return unlatchHandle(FID_trelUnlatchShmDomain, handle);
}

uint32_t trelSetDomainUserAppData(ShmDomainHandle_t* handle, uint64_t size, const void* data) {
  return setUserArea(FID_trelSetDomainUserAppData, handle, size, data);
}

uint32_t trelGetDomainUserAppData(ShmDomainHandle_t* handle, uint64_t* size, void* data) {
  return getUserArea(FID_trelGetDomainUserAppData, handle, size, data);
}

uint32_t trelGetShmDomainInfo(ShmDomainHandle_t* handle, ShmDomainInfo_t* info) {
  return traced(FID_trelGetShmDomainInfo, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle)) return rc;
    if (!info) return flow.logged(TREL_RC_DOMAIN_INFO_NULL, info);
    return readInfo(flow, heapOf(handle), info);
  });
}
