// What domains and pools have in common as seen through their handles.
#pragma once

#include <string.h>

#include "trel/storage.h"
#include "trelshm/heap.h"
#include "trelshm/heap_look.h"
#include "trelshm/mapping.h"
#include "trelshm/process_memory.h"

namespace trel {

// How many handles this process has on a heap: each enters when it is made, and leaves when it is
// freed. False without process memory.
bool enterHandle(const void* handle, const void* heap);
void removeHandle(const void* handle, const void* heap);

// Whether nobody is connected but the caller. A process that died has left its count behind: where
// the system knows of one attachment, and this process has one handle on the heap, the others are
// dead. The caller holds heapLatch. `memory` is the segment in which the heap lies; null where it
// is bound to no key, and then the count alone tells.
bool isLastConnection(const Heap& heap, const PLATHIPCMemory* memory);

template <class T>
inline void takeDefault(T* field, T byDefault) {
  if (*field == 0) *field = byDefault;
}

// The caller's record, with the defaults that both kinds have in place of zeros.
template <class Param>
Param completed(const Param* given, uint64_t granularity) {
  Param p = given ? *given : Param{};
  takeDefault(&p.heapVersion, uint64_t{TREL_STRUCTURE_VERSION});
  takeDefault(&p.handleVersion, uint64_t{TREL_STRUCTURE_VERSION});
  takeDefault(&p.latchVersion, uint64_t{TREL_STRUCTURE_VERSION});
  takeDefault(&p.granularity, granularity);
  return p;
}

// The heap that such a record describes; its sizes are worked out from `payload` bytes.
template <class Param>
HeapPlan planOf(const Param& p, uint32_t kind, uint64_t payload, uint64_t ownerOffset) {
  HeapPlan plan = {payload,       {p.nodeCount, p.maxLevel, 0, 0, 0},
                   p.granularity, p.userAreaSize,
                   p.userData,    p.latchVersion,
                   p.heapVersion, p.handleVersion,
                   p.heapFlags,   ownerOffset};
  plan.sizes.compute(payload, kind, p.userAreaSize);
  if (p.maxLevel == 0) {
    plan.sizes.maxLevel = defaultMaxLevel(kind, plan.sizes.nodeCount);
    plan.sizes.compute(payload, kind, p.userAreaSize);
  }
  return plan;
}

// Parameters of either kind, their defaults in place.
template <class Param>
uint32_t checkVersions(const Param& param) {
  if (param.handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (param.latchVersion != TREL_STRUCTURE_VERSION) return TREL_RC_LATCH_VERSION;
  return param.heapVersion != TREL_STRUCTURE_VERSION ? uint32_t{TREL_RC_HEAP_VERSION} : 0;
}

inline uint32_t checkGranularity(uint64_t granularity, uint64_t size, uint32_t rcRange,
                                 uint32_t rcAlign) {
  if (granularity != 8 && (granularity < 8 || granularity > size)) return rcRange;
  return isAligned8(granularity) ? 0 : rcAlign;
}

// The kinds of handle.
template <class Handle>
struct HandleTraits;

template <>
struct HandleTraits<ShmDomainHandle_t> {
  static constexpr const HeapKind& kind = kDomainKind;
  static constexpr uint32_t rcNull = TREL_RC_DOMAIN_HANDLE_NULL;
  static constexpr uint32_t rcFree = TREL_RC_DOMAIN_HANDLE_FREE;
  static constexpr uint32_t rcUserArea = TREL_RC_DOMAIN_USER_AREA;
  static constexpr uint32_t rcData = TREL_RC_DOMAIN_DATA_NULL;
  static uint64_t offset(const ShmDomainHandle_t* handle) { return handle->heapOffset; }
  static void forget(const ShmDomainHandle_t* handle) { forgetMapping(handle); }
};

template <>
struct HandleTraits<ShmPoolHandle_t> {
  static constexpr const HeapKind& kind = kPoolKind;
  static constexpr uint32_t rcNull = TREL_RC_POOL_HANDLE_NULL;
  static constexpr uint32_t rcFree = TREL_RC_POOL_HANDLE_FREE;
  static constexpr uint32_t rcUserArea = TREL_RC_POOL_USER_AREA;
  static constexpr uint32_t rcData = TREL_RC_POOL_DATA_NULL;
  static uint64_t offset(const ShmPoolHandle_t* handle) { return handle->poolOffset; }
  static void forget(const ShmPoolHandle_t*) {}
};

template <class Handle>
Heap heapOf(const Handle* handle) {
  return Heap(handle->base, HandleTraits<Handle>::offset(handle), HandleTraits<Handle>::kind);
}

template <class Handle>
uint32_t checkHandle(const Flow& flow, const Handle* handle) {
  if (!handle) return flow.logged(HandleTraits<Handle>::rcNull, handle);
  return handle->base ? 0 : flow.logged(TREL_RC_BASE_NULL, handle->base);
}

// The versions that the heap itself holds.
inline uint32_t checkStoredVersions(const Heap& heap, bool latchToo) {
  const HeapHeader_t* h = heap.header();
  if (h->heapVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HEAP_VERSION;
  if (h->handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  return latchToo && h->latchVersion != TREL_STRUCTURE_VERSION ? uint32_t{TREL_RC_LATCH_VERSION}
                                                               : 0;
}

// Frees a handle and no more: the heap still counts a connection. Where somebody looks at the
// segment, who may use its handles, the last one frees it.
template <class Handle>
uint32_t freeHandle(Handle** handle) {
  if (!*handle) return 0;
  HandleTraits<Handle>::forget(*handle);
  removeHandle(*handle, heapOf(*handle).header());
  if (!freeWithLastPin((*handle)->base, *handle))
    return release(handle) ? HandleTraits<Handle>::rcFree : 0;
  *handle = nullptr;
  return 0;
}

// Unmaps the memory of a domain, and frees the handle; where somebody looks, the last one does
// both.
inline uint32_t dropHandle(ShmDomainHandle_t** handle, uint32_t unmapFailed) {
  const uint32_t mode = (*handle)->accessMode;
  if (mode != 1 && mode != 2 && mode != 3) return TREL_RC_ACCESS_MODE;
  ShmDomainHandle_t* const leaving = *handle;
  const void* heap = heapOf(leaving).header();
  switch (leaveMapping(leaving)) {
    case Unmapped::failed:
      return unmapFailed;
    case Unmapped::later:
      removeHandle(leaving, heap);
      *handle = nullptr;
      return 0;
    default:
      return freeHandle(handle);
  }
}

template <class Handle>
uint32_t destroyHandle(uint32_t function, Handle** handle) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle ? *handle : nullptr)) return rc;
    if (heapOf(*handle).header()->handleVersion != TREL_STRUCTURE_VERSION)
      return flow.fail(TREL_RC_HANDLE_VERSION);
    return freeHandle(handle);
  });
}

template <class Handle>
uint32_t latchHandle(uint32_t function, Handle* handle) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle)) return rc;
    Heap heap = heapOf(handle);
    if (const uint32_t rc = checkHeap(heap)) return flow.fail(rc);
    if (const uint32_t rc = heap.openHeader()) return flow.fail(rc);
    if (heap.isReadOnly()) return flow.fail(TREL_RC_READING_ONLY);
    enterHeap(&heap);  // a failure is not told: it shows when the latch is to be left
    return 0;
  });
}

template <class Handle>
uint32_t unlatchHandle(uint32_t function, Handle* handle) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle)) return rc;
    const Heap heap = heapOf(handle);
    if (isReadOnly(heap.header())) return flow.fail(TREL_RC_READING_ONLY);
    const uint32_t rc = checkHeap(heap);
    return firstOf(rc, leaveHeap(heap));
  });
}

// The stored size of the user area, tested against the heap's.
template <class Handle, class Work>
uint32_t onUserArea(uint32_t function, const Handle* handle, const void* data, Work&& work) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle)) return rc;
    if (!data) return flow.logged(HandleTraits<Handle>::rcData, data);
    Heap heap = heapOf(handle);
    const bool isSound = heap.openHeader() == 0;
    return work(flow, heap, heap.userAreaSize(), isSound ? 0 : HandleTraits<Handle>::rcUserArea);
  });
}

template <class Handle>
uint32_t setUserArea(uint32_t function, Handle* handle, uint64_t size, const void* data) {
  return onUserArea(
      function, handle, data,
      [&](const Flow& flow, const Heap& heap, uint64_t stored, uint32_t rcStored) -> uint32_t {
        if (rcStored) return flow.fail(rcStored);
        if (size != stored) return flow.fail(TREL_RC_USER_AREA_SIZE);
        if (heap.isReadOnly()) return flow.fail(TREL_RC_READING_ONLY);
        memcpy(heap.userArea(), data, size);
        return 0;
      });
}

template <class Handle>
uint32_t getUserArea(uint32_t function, Handle* handle, uint64_t* size, void* data) {
  return onUserArea(
      function, handle, data,
      [&](const Flow& flow, const Heap& heap, uint64_t stored, uint32_t rcStored) -> uint32_t {
        if (!size) return flow.fail(HandleTraits<Handle>::rcData);
        *size = stored;
        if (rcStored) return flow.fail(rcStored);
        memcpy(data, heap.userArea(), stored);
        return 0;
      });
}

// The figures that both information records have, by name. The header is open.
template <class Info>
void copyInfo(const Heap& heap, Info* info) {
  const HeapHeader_t& h = *heap.header();
  const SkipListHeader_t& list = *heap.list();
  info->heapVersion = h.heapVersion;
  info->handleVersion = h.handleVersion;
  info->latchVersion = h.latchVersion;
  info->heapFlags = h.heapFlags;
  info->heapOffset = h.heapOffset;
  info->connectionCount = h.connectionCount;
  info->heapSize = heap.size();
  info->freeBytes = h.freeBytes;
  info->allocatedBytes = h.allocatedBytes;
  info->requestedNodeCount = h.requestedNodeCount;
  info->granularity = h.granularity;
  info->userAreaSize = heap.userAreaSize();
  info->maxLevel = loadOnce(&list.maxLevel);
  info->slSpaceSize = list.slSpaceSize;
  info->slUsedBytes = list.slUsedBytes;
  info->allocNodeCount = list.allocNodeCount;
  info->freeNodeCount = list.freeNodeCount;
  info->rebuildCount = list.rebuildCount;
  info->allocListLevel = list.allocListLevel;
  // Its place follows from the number of levels.
  info->freeListLevel = 0;
  if (info->maxLevel <= TREL_HEAP_MAX_LEVEL &&
      heap.headerSize() + slHeaderSizeOf(info->maxLevel) <= heap.size())
    info->freeListLevel = heap.freeListLevel(info->maxLevel);
  info->word0 = heap.tail()->words[0];
  info->word2 = heap.tail()->words[2];
}

template <class Info>
uint32_t readInfo(const Flow& flow, Heap heap, Info* info) {
  const uint32_t rc = lookAtHeap(&heap, [&]() -> uint32_t {
    copyInfo(heap, info);
    return 0;
  });
  return rc ? flow.fail(rc) : 0;
}

}  // namespace trel
