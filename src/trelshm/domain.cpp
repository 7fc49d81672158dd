#include "trelshm/domain.h"

#include "platsvc/ipc.h"
#include "trelshm/handle.h"
#include "trelshm/heap.h"
#include "trelshm/mapping.h"
#include "trelshm/process_memory.h"

namespace trel {
namespace {

constexpr uint64_t kDefaultGranularity = 4096;
constexpr uint32_t kDefaultPermissions = 0660;

bool byKey(uint32_t accessMode) { return accessMode == 1 || accessMode == 2; }

// The memory of a domain that is being created or joined, given back unless it is kept.
class Memory {
 public:
  explicit Memory(bool created) : created_(created) {}
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;
  ~Memory() {
    if (object_ && object_->isAttached()) created_ ? object_->destroy() : object_->detach();
    delete object_;
  }

  uint32_t create(const PLATIPCResID* id, uintptr_t address, uint32_t size, uint32_t permissions) {
    if (!(object_ = new PLATHIPCMemory)) return TREL_RC_DOMAIN_NO_MEMORY;
    const PLATIPCMemoryCreateParam param = {PLAT_STRUCTURE_TAG, *id, size, address, permissions, 0};
    const uint32_t rc = object_->create(&param);
    if (rc) return rc == kPlatSegmentExists ? uint32_t{TREL_RC_SEGMENT_EXISTS} : rc;
    return object_->getAddress(&base) ? uint32_t{TREL_RC_SEGMENT_ADDRESS} : 0;
  }
  uint32_t attach(const PLATIPCResID* id, uintptr_t address) {
    if (!(object_ = new PLATHIPCMemory)) return TREL_RC_DOMAIN_NO_MEMORY;
    if (object_->attach(id, reinterpret_cast<const void*>(address)) != 0)
      return TREL_RC_SEGMENT_ATTACH;
    return object_->getAddress(&base) ? uint32_t{TREL_RC_SEGMENT_ADDRESS} : 0;
  }
  // Whether a segment is large enough for the heap that it claims to hold.
  bool holds(uint64_t heapOffset) const {
    if (!object_) return true;
    const uint64_t size = object_->getSize();
    if (heapOffset > size || size - heapOffset < TREL_HEAP_HEADER_SIZE) return false;
    return Heap(base, heapOffset, kDomainKind).header()->heapSize <= size - heapOffset;
  }
  // Gives the memory to a new handle, which enters the table of what is mapped.
  uint32_t hand(ShmDomainHandle_t** handle, const ShmDomainParam_t& param, uint64_t heapSize) {
    ShmDomainHandle_t* made = nullptr;
    if (obtain(&made)) return TREL_RC_DOMAIN_NO_MEMORY;
    *made = {base, param.accessMode, param.heapOffset, object_};
    if (!enterMapping(made, object_ ? object_->getSize() : param.heapOffset + heapSize, true)) {
      release(&made);
      return TREL_RC_DOMAIN_NO_MEMORY;
    }
    if (!enterHandle(made, heapOf(made).header())) {
      forgetMapping(made);
      release(&made);
      return TREL_RC_DOMAIN_NO_MEMORY;
    }
    object_ = nullptr;
    *handle = made;
    return 0;
  }

  void* base = nullptr;

 private:
  PLATHIPCMemory* object_ = nullptr;
  bool created_;
};

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

uint32_t createDomain(const PLATIPCResID* id, uintptr_t address, uint32_t size,
                      const ShmDomainParam_t* given, ShmDomainHandle_t** handle) {
  const ShmDomainParam_t param = complete(given, 1);
  if (!isAligned8(param.heapOffset)) return TREL_RC_HEAP_OFFSET_ALIGN;
  if (param.userAreaSize > size) return TREL_RC_USER_AREA_SIZE;
  if (const uint32_t rc = checkVersions(param)) return rc;
  if (const uint32_t rc = checkGranularity(param.granularity, size, TREL_RC_DOMAIN_GRANULARITY,
                                           TREL_RC_DOMAIN_GRANULARITY_ALIGN))
    return rc;
  if (!handle) return TREL_RC_DOMAIN_HANDLE_NULL;

  Memory memory(true);
  if (param.accessMode == 1) {
    if (!id) return TREL_RC_SEGMENT_NULL;
    // The segment has the size of the heap, so the heap can begin nowhere but at its start.
    if (param.heapOffset != 0) return TREL_RC_HEAP_OFFSET_ALIGN;
    if (const uint32_t rc = memory.create(id, address, size, param.permissions)) return rc;
  } else if (param.accessMode == 3) {
    if (!address) return TREL_RC_BASE_NULL;
    memory.base = reinterpret_cast<void*>(address);
  } else {
    return TREL_RC_ACCESS_MODE;
  }

  const HeapPlan plan = planOf(param, TREL_HEAP_DOMAIN, size, 0);
  if (const uint32_t rc = createHeap(memory.base, param.heapOffset, kDomainKind, plan)) return rc;
  const uint32_t rc = memory.hand(handle, param, size);
  if (rc) Heap(memory.base, param.heapOffset, kDomainKind).header()->heapState = 0;
  return rc;
}

uint32_t connectDomain(const PLATIPCResID* id, uintptr_t address, const ShmDomainParam_t* given,
                       ShmDomainHandle_t** handle) {
  const ShmDomainParam_t param = complete(given, 2);
  if (!isAligned8(param.heapOffset)) return TREL_RC_HEAP_OFFSET_ALIGN;
  if (param.handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (param.heapVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HEAP_VERSION;
  if (!handle) return TREL_RC_DOMAIN_HANDLE_NULL;

  Memory memory(false);
  if (byKey(param.accessMode)) {
    if (!id) return TREL_RC_SEGMENT_NULL;
    if (const uint32_t rc = memory.attach(id, address)) return rc;
  } else if (param.accessMode == 3) {
    if (!address) return TREL_RC_BASE_NULL;
    memory.base = reinterpret_cast<void*>(address);
  } else {
    return TREL_RC_ACCESS_MODE;
  }
  Heap heap(memory.base, param.heapOffset, kDomainKind);
  if (!memory.holds(param.heapOffset)) return TREL_RC_DOMAIN_STATE;
  // In the table first, so that its bounds hold for all that is read from here on.
  ShmDomainHandle_t* made = nullptr;
  if (const uint32_t rc = memory.hand(&made, param, heap.header()->heapSize)) return rc;
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

uint32_t freeDomain(ShmDomainHandle_t** handle, uint32_t freeMode) {
  if (const uint32_t rc = checkDomainHandle(*handle)) return rc;
  Heap heap = heapOf(*handle);
  if (const uint32_t rc = checkStoredVersions(heap, true)) return rc;
  if (const uint32_t rc = checkHeap(heap)) return rc;
  if (freeMode != 1 && freeMode != 2) return TREL_RC_DOMAIN_FREE_MODE;
  HeapHeader_t* header = heap.header();
  const bool latched = heap.openHeader() == 0 && enterHeap(&heap) == 0;
  const bool inUse = freeMode == 1 && !isLastConnection(heap, (*handle)->ipcMemory);
  if (!inUse) {
    // The key first: a death behind it leaves a key that can be taken anew. A failure comes up
    // again below.
    if ((*handle)->ipcMemory) (*handle)->ipcMemory->remove();
    header->heapFlags |= TREL_HEAP_MARKED;
    header->heapState = 0;
  }
  if (latched) leaveHeap(heap);
  if (inUse) return TREL_RC_DOMAIN_CONNECTED;
  if ((*handle)->ipcMemory && (*handle)->ipcMemory->remove() != 0) return TREL_RC_SEGMENT_DESTROY;
  return dropHandle(handle, TREL_RC_SEGMENT_DESTROY);
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
