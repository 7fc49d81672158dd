#include "trelshm/engine.h"
#include "trelshm/handle.h"
#include "trelshm/heap.h"
#include "trelshm/store.h"

namespace trel {
namespace {

constexpr uint64_t kDefaultLevel = 10, kDefaultGranularity = 8;

ShmPoolParam_t complete(const ShmPoolParam_t* given) {
  return completed(given, kDefaultLevel, kDefaultGranularity);
}

// A pool is made while its chunk is still in flight, so that a death leaves both or none.
struct NewPool {
  void* base;
  const HeapPlan& plan;
  uint32_t rc;

  static void create(void* context, uint64_t dataOffset) {
    auto* pool = static_cast<NewPool*>(context);
    pool->rc = createHeap(pool->base, dataOffset, kPoolKind, pool->plan);
  }
};

uint32_t makeHandle(ShmPoolHandle_t** handle) {
  void* block = nullptr;
  if (_platMemAlloc(&block, 0, sizeof(ShmPoolHandle_t), 1, __FILE__, __LINE__) != 0)
    return TREL_RC_POOL_NO_MEMORY;
  *handle = static_cast<ShmPoolHandle_t*>(block);
  return 0;
}

uint32_t checkDomain(const Heap& domain) {
  if (!isAligned8(domain.offset())) return TREL_RC_DOMAIN_OFFSET_ALIGN;
  return checkHeap(domain);
}

Heap domainOf(const ShmPoolHandle_t* handle) {
  return Heap(handle->base, handle->domainOffset, kDomainKind);
}

// Whether a pool at that offset can be looked at. What lies outside belongs to another domain, if
// to any.
uint32_t checkPoolOffset(Heap* domain, uint64_t poolOffset) {
  if (const uint32_t rc = domain->openHeader()) return rc;
  if (poolOffset < domain->offset() || poolOffset >= domain->end()) return TREL_RC_DOMAIN_OFFSET;
  const bool fits =
      poolOffset >= domain->listOffset() && domain->end() - poolOffset >= TREL_HEAP_HEADER_SIZE;
  return fits ? 0 : uint32_t{TREL_RC_POOL_STATE};
}

// The block offset of the chunk whose data begins at the pool.
uint32_t findChunk(const void* base, uint64_t poolOffset, uint64_t* chunkOffset) {
  int64_t block = 0;
  if (const uint32_t rc = blockOffsetOf(base, poolOffset, &block)) return rc;
  if (block < 0) return TREL_RC_POOL_OFFSET;
  if (!isAligned8(static_cast<uint64_t>(block))) return TREL_RC_CHUNK_OFFSET_ALIGN;
  *chunkOffset = static_cast<uint64_t>(block);
  return 0;
}

// From link to link of a shared list. The first word of a node is the offset of the next.
class ListWalk {
 public:
  ListWalk(const Heap& domain, TrelU64* head)
      : link(head), domain_(domain), steps_(domain.size() / sizeof(SegListNode_t)) {}

  // The link in the node that `link` leads to. Null at the end, or where the list leaves the
  // domain.
  TrelU64* next() {
    const uint64_t node = *link;
    const bool inside =
        node >= domain_.listOffset() && node <= domain_.end() - sizeof(SegListNode_t);
    return inside && steps_-- > 0 ? domain_.at<TrelU64>(node) : nullptr;
  }

  TrelU64* link;

 private:
  const Heap& domain_;
  uint64_t steps_;
};

// Takes the nodes that lie in a pool off the list, each by one store.
void unlinkNodesInside(const Heap& domain, TrelU64* head, uint64_t poolOffset, uint64_t poolSize) {
  ListWalk walk(domain, head);
  while (TrelU64* next = walk.next())
    if (*walk.link - poolOffset < poolSize)
      *walk.link = *next;
    else
      walk.link = next;
}

}  // namespace

void endPool(const Heap& domain, uint64_t poolOffset, uint64_t poolSize) {
  storeLast(&domain.at<HeapHeader_t>(poolOffset)->heapState, 0);
  TrelU64* const heads[] = {&domain.segmentListHead(), &domain.hdmListHead()};
  // The lists of a domain lie in its top pool.
  const bool top = domain.header()->topPool == poolOffset;
  for (TrelU64* head : heads) {
    if (top)
      *head = 0;
    else
      unlinkNodesInside(domain, head, poolOffset, poolSize);
  }
  if (top) storeLast(&domain.header()->topPool, 0);
}

bool isOnSharedList(const Heap& domain, uint64_t node) {
  TrelU64* const heads[] = {&domain.segmentListHead(), &domain.hdmListHead()};
  for (TrelU64* head : heads) {
    ListWalk walk(domain, head);
    for (TrelU64* next = walk.next(); next; next = walk.next()) {
      if (*walk.link == node) return true;
      walk.link = next;
    }
  }
  return false;
}

}  // namespace trel

using namespace trel;

uint32_t _trelCreateShmPool(ShmPoolHandle_t** handle, ShmDomainHandle_t* domainHandle,
                            uint32_t poolSize, const ShmPoolParam_t* given, uint32_t function,
                            uint32_t line, const char* file) {
  return traced(FID__trelCreateShmPool, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, domainHandle)) return rc;
    const ShmPoolParam_t param = complete(given);
    if (param.userAreaSize > poolSize) return flow.fail(TREL_RC_USER_AREA_SIZE);
    if (const uint32_t rc = checkVersions(param)) return flow.fail(rc);
    Heap domain = heapOf(domainHandle);
    if (const uint32_t rc = checkDomain(domain)) return flow.fail(rc);
    if (const uint32_t rc = checkGranularity(param.granularity, poolSize, TREL_RC_POOL_GRANULARITY,
                                             TREL_RC_POOL_GRANULARITY_ALIGN))
      return flow.fail(rc);
    if (!handle) return flow.fail(TREL_RC_POOL_HANDLE_NULL);

    HeapPlan plan = planOf(param, TREL_HEAP_POOL, poolSize, domain.offset());
    const uint64_t extra = plan.sizes.headerSize + plan.sizes.space;
    plan.size = (poolSize + extra + param.granularity - 1) / param.granularity * param.granularity;

    const Caller caller = {function, line, file};
    NewPool pool = {domainHandle->base, plan, 0};
    Allocation chunk = {poolSize, 0, extra, plan.size, 0, 0, nullptr, NewPool::create, &pool};
    if (const uint32_t rc = allocate(&domain, &chunk, caller)) return flow.fail(rc);
    ShmPoolHandle_t* made = nullptr;
    const uint32_t rc = pool.rc ? uint32_t{TREL_RC_POOL_HEAP} : makeHandle(&made);
    if (rc) {
      Heap(domain.base(), chunk.dataOffset, kPoolKind).header()->heapState = 0;
      release(&domain, chunk.blockOffset, chunk.dataOffset, false, caller);
      return flow.fail(rc);
    }
    *made = {domainHandle->base, domain.offset(), chunk.dataOffset, chunk.blockOffset};
    *handle = made;
    return 0;
  });
}

uint32_t trelConnectToShmPool(ShmPoolHandle_t** handle, ShmDomainHandle_t* domainHandle,
                              uint32_t poolOffset, const ShmPoolParam_t* given) {
  return traced(FID_trelConnectToShmPool, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, domainHandle)) return rc;
    const ShmPoolParam_t param = complete(given);
    if (param.heapVersion != TREL_STRUCTURE_VERSION) return flow.fail(TREL_RC_HEAP_VERSION);
    if (param.handleVersion != TREL_STRUCTURE_VERSION) return flow.fail(TREL_RC_HANDLE_VERSION);
    Heap domain = heapOf(domainHandle);
    if (const uint32_t rc = checkDomain(domain)) return flow.fail(rc);
    if (!isAligned8(poolOffset)) return flow.fail(TREL_RC_POOL_OFFSET_ALIGN);
    if (const uint32_t rc = checkPoolOffset(&domain, poolOffset)) return flow.fail(rc);
    Heap pool(domainHandle->base, poolOffset, kPoolKind);
    if (const uint32_t rc = checkHeap(pool)) return flow.fail(rc);
    if (pool.header()->topPool != domain.offset()) return flow.fail(TREL_RC_DOMAIN_OFFSET);
    if (pool.header()->heapSize > domain.end() - poolOffset) return flow.fail(TREL_RC_POOL_STATE);
    if (!handle) return flow.fail(TREL_RC_POOL_HANDLE_NULL);

    if (const uint32_t rc = connectHeap(&pool)) return flow.fail(rc);
    ShmPoolHandle_t* made = nullptr;
    uint64_t chunkOffset = 0;
    uint32_t rc = makeHandle(&made);
    if (rc == 0) rc = findChunk(domainHandle->base, poolOffset, &chunkOffset);
    if (rc) {
      disconnectHeap(&pool);
      if (made) freeHandle(&made);
      return flow.fail(rc);
    }
    *made = {domainHandle->base, domain.offset(), poolOffset, chunkOffset};
    *handle = made;
    return 0;
  });
}

uint32_t trelDisconnectFromShmPool(ShmPoolHandle_t** handle) {
  return traced(FID_trelDisconnectFromShmPool, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle ? *handle : nullptr)) return rc;
    const ShmPoolHandle_t* h = *handle;
    if (!isAligned8(h->domainOffset)) return flow.fail(TREL_RC_DOMAIN_OFFSET_ALIGN);
    if (!isAligned8(h->poolOffset)) return flow.fail(TREL_RC_POOL_OFFSET_ALIGN);
    Heap pool = heapOf(h);
    if (const uint32_t rc = checkStoredVersions(pool, true)) return flow.fail(rc);
    if (pool.header()->topPool != h->domainOffset) return flow.fail(TREL_RC_DOMAIN_OFFSET);
    if (const uint32_t rc = disconnectHeap(&pool)) return flow.fail(rc);
    return freeHandle(handle);
  });
}

uint32_t _trelFreeShmPool(ShmPoolHandle_t** handle, uint32_t freeMode, uint32_t function,
                          uint32_t line, const char* file) {
  return traced(FID__trelFreeShmPool, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle ? *handle : nullptr)) return rc;
    const ShmPoolHandle_t* h = *handle;
    if (!isAligned8(h->domainOffset)) return flow.fail(TREL_RC_DOMAIN_OFFSET_ALIGN);
    if (!isAligned8(h->poolOffset)) return flow.fail(TREL_RC_POOL_OFFSET_ALIGN);
    if (!isAligned8(h->chunkOffset)) return flow.fail(TREL_RC_CHUNK_OFFSET_ALIGN);
    Heap domain = domainOf(h);
    if (const uint32_t rc = checkHeap(domain)) return flow.fail(rc);
    if (const uint32_t rc = checkStoredVersions(domain, true)) return flow.fail(rc);
    Heap pool = heapOf(h);
    if (const uint32_t rc = checkHeap(pool)) return flow.fail(rc);
    if (freeMode != 3 && freeMode != 4) return flow.fail(TREL_RC_POOL_FREE_MODE);
    if (const uint32_t rc = domain.openHeader()) return flow.fail(rc);
    if (const uint32_t rc = pool.openHeader()) return flow.fail(rc);

    const uint32_t freed = insideHeap(&domain, [&]() -> uint32_t {
      if (const uint32_t rc = checkHeap(pool)) return rc;  // another may have freed it meanwhile
      TrelU64* const words[] = {&domain.header()->topPool, &domain.segmentListHead(),
                                &domain.hdmListHead()};
      const uint64_t before[] = {*words[0], *words[1], *words[2]};
      TrelU64* freeing = &domain.intent()->freeing;
      // The chunk can be handed out again, and be overwritten, as soon as it is back, so the pool
      // ends before. A death from here on does not bring it back.
      const auto end = [&]() -> uint32_t {
        if (freeMode == 3 && pool.header()->connectionCount > 1) return TREL_RC_POOL_CONNECTED;
        storeLast(freeing, h->chunkOffset);
        endPool(domain, h->poolOffset, pool.size());
        return 0;
      };
      // Counted, nobody connects between the look at the count and the end.
      uint32_t rc = freeMode == 3 ? insideHeap(&pool, end) : end();
      if (rc == 0)
        rc = release(&domain, h->chunkOffset, h->poolOffset, true, {function, line, file});
      if (rc && *freeing) {
        for (int i = 0; i < 3; ++i) *words[i] = before[i];
        pool.header()->heapState = TREL_POOL_STATE;
      }
      storeLast(freeing, 0);
      return rc;
    });
    if (freed) return flow.fail(freed);
    return freeHandle(handle);
  });
}

uint32_t trelDestroyShmPoolHandle(ShmPoolHandle_t** handle) {
  return destroyHandle(FID_trelDestroyShmPoolHandle, handle);
}

uint32_t trelLatchShmPool(ShmPoolHandle_t* handle) {
  return latchHandle(FID_trelLatchShmPool, handle);
}

uint32_t trelUnlatchShmPool(ShmPoolHandle_t* handle) {
  return unlatchHandle(FID_trelUnlatchShmPool, handle);
}

uint32_t trelSetPoolUserAppData(ShmPoolHandle_t* handle, uint64_t size, const void* data) {
  return setUserArea(FID_trelSetPoolUserAppData, handle, size, data);
}

uint32_t trelGetPoolUserAppData(ShmPoolHandle_t* handle, uint64_t* size, void* data) {
  return getUserArea(FID_trelGetPoolUserAppData, handle, size, data);
}

uint32_t trelGetShmPoolInfo(ShmPoolHandle_t* handle, ShmPoolInfo_t* info) {
  return traced(FID_trelGetShmPoolInfo, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle)) return rc;
    if (!info) return flow.logged(TREL_RC_POOL_INFO_NULL, info);
    info->ownerDomainOffset = heapOf(handle).header()->topPool;
    return readInfo(flow, heapOf(handle), info);
  });
}
