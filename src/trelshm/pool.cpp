#include "trelshm/pool.h"

#include <initializer_list>

#include "trelshm/allocator.h"
#include "trelshm/handle.h"
#include "trelshm/heap.h"
#include "trelshm/live_nodes.h"
#include "trelshm/store.h"

namespace trel {
namespace {

constexpr uint64_t kDefaultGranularity = 8;

ShmPoolParam_t complete(const ShmPoolParam_t* given) {
  return completed(given, kDefaultGranularity);
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

uint32_t makeHandle(ShmPoolHandle_t** handle, const ShmPoolHandle_t& value) {
  ShmPoolHandle_t* made = nullptr;
  if (obtain(&made)) return TREL_RC_POOL_NO_MEMORY;
  *made = value;
  if (!enterHandle(made, heapOf(made).header())) {
    release(&made);
    return TREL_RC_POOL_NO_MEMORY;
  }
  *handle = made;
  return 0;
}

// The segment in which a domain lies, null if it is bound to no key.
const PLATHIPCMemory* memoryOf(const Heap& domain) {
  Mapping mapping;
  return findMapping(domain.header(), &mapping) ? mapping.handle->ipcMemory : nullptr;
}

uint32_t checkDomain(const Heap& domain) {
  if (!isAligned8(domain.offset())) return TREL_RC_DOMAIN_OFFSET_ALIGN;
  return checkHeap(domain);
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
    node = once(*link);
    const bool inside =
        node >= domain_.listOffset() && node <= domain_.end() - sizeof(SegListNode_t);
    return inside && steps_-- > 0 ? domain_.at<TrelU64>(node) : nullptr;
  }

  TrelU64* link;
  uint64_t node = 0;  // what it led to when it was read

 private:
  const Heap& domain_;
  uint64_t steps_;
};

// Ends a pool by store(word, value), word by word. Entries that lie in other pools stay on their
// list.
template <class Store>
void endPoolBy(const Heap& domain, uint64_t poolOffset, uint64_t poolSize, Store&& store) {
  store(&domain.at<HeapHeader_t>(poolOffset)->heapState, 0);
  TrelU64* const topPool = &domain.header()->topPool;
  const bool isTop = *topPool == poolOffset;
  for (TrelU64* head : {&domain.segmentListHead(), &domain.hdmListHead()}) {
    ListWalk walk(domain, head);
    while (TrelU64* next = walk.next()) {
      if (walk.node - poolOffset < poolSize)
        store(walk.link, *next);
      else
        walk.link = next;
    }
    if (isTop && walk.node) store(walk.link, 0);  // it leads out of the domain
  }
  DescriptionAnchor_t* const description = domain.description();
  for (TrelU64* place : {&description->place[0], &description->place[1], &description->publisher})
    if (*place - poolOffset < poolSize) store(place, 0);
  if (isTop) store(topPool, 0);
}

uint64_t countEntries(const Heap& domain) {
  uint64_t count = 0;
  for (TrelU64* head : {&domain.segmentListHead(), &domain.hdmListHead()}) {
    ListWalk walk(domain, head);
    for (; TrelU64* next = walk.next(); ++count) walk.link = next;
  }
  return count;
}

// Stores that can be undone. What there is no room for is not stored.
class Changes {
 public:
  bool prepare(uint64_t most) { return changes_.allocate(most_ = most); }
  void store(TrelU64* word, uint64_t value) {
    isWhole_ = isWhole_ && count_ < most_;
    if (!isWhole_) return;
    changes_[count_++] = {word, *word};
    storeLast(word, value);
  }
  bool isWhole() const { return isWhole_; }
  void undo() {
    while (count_ > 0) {
      --count_;
      storeLast(changes_[count_].word, changes_[count_].before);
    }
  }

 private:
  struct Change {
    TrelU64* word;
    uint64_t before;
  };
  Records<Change> changes_;
  uint64_t most_ = 0, count_ = 0;
  bool isWhole_ = true;
};

// Ends the pool and gives its chunk back. The caller holds the domain's heapLatch. The chunk can be
// handed out again, and be overwritten, as soon as it is back, so the pool ends before. A death
// from the first store on does not bring it back.
uint32_t freeHeldPool(Heap* domain, Heap* pool, const ShmPoolHandle_t& handle, bool counted,
                      const Caller& caller) {
  if (const uint32_t rc = checkHeap(*pool)) return rc;  // another may have freed it meanwhile
  Changes changes;
  // Both lists, what may be wrong with their ends, the state, the top pool and the description.
  if (!changes.prepare(countEntries(*domain) + 7)) return TREL_RC_POOL_NO_MEMORY;
  TrelU64* const freeing = &domain->intent()->freeing;
  const auto end = [&]() -> uint32_t {
    if (counted && !isLastConnection(*pool, memoryOf(*domain))) return TREL_RC_POOL_CONNECTED;
    storeLast(freeing, handle.chunkOffset);
    endPoolBy(*domain, handle.poolOffset, pool->size(),
              [&](TrelU64* word, uint64_t value) { changes.store(word, value); });
    // A list that grows under the latch is changed by somebody who does not hold it.
    return changes.isWhole() ? 0 : uint32_t{TREL_RC_DOMAIN_STATE};
  };
  // Counted, nobody connects between the look at the count and the end.
  uint32_t rc = counted ? insideHeap(pool, end) : end();
  if (rc == 0) rc = release(domain, handle.chunkOffset, handle.poolOffset, true, caller);
  if (rc) changes.undo();
  storeLast(freeing, 0);
  return rc;
}

}  // namespace

void endPool(const Heap& domain, uint64_t poolOffset, uint64_t poolSize) {
  endPoolBy(domain, poolOffset, poolSize,
            [](TrelU64* word, uint64_t value) { storeLast(word, value); });
}

bool isLedTo(const Heap& domain, uint64_t node) {
  TrelU64* const heads[] = {&domain.segmentListHead(), &domain.hdmListHead()};
  for (TrelU64* head : heads) {
    ListWalk walk(domain, head);
    for (TrelU64* next = walk.next(); next; next = walk.next()) {
      if (walk.node == node) return true;
      walk.link = next;
    }
  }
  const DescriptionAnchor_t* description = domain.description();
  return node == description->place[0] || node == description->place[1] ||
         node == description->publisher;
}

namespace {

uint32_t makePool(ShmPoolHandle_t** handle, const ShmDomainHandle_t* domainHandle,
                  uint32_t poolSize, const ShmPoolParam_t* given, const Caller& caller,
                  bool inNewDomain) {
  const ShmPoolParam_t param = complete(given);
  if (param.userAreaSize > poolSize) return TREL_RC_USER_AREA_SIZE;
  if (const uint32_t rc = checkVersions(param)) return rc;
  Heap domain = heapOf(domainHandle);
  if (!inNewDomain)
    if (const uint32_t rc = checkDomain(domain)) return rc;
  if (const uint32_t rc = checkGranularity(param.granularity, poolSize, TREL_RC_POOL_GRANULARITY,
                                           TREL_RC_POOL_GRANULARITY_ALIGN))
    return rc;
  if (!handle) return TREL_RC_POOL_HANDLE_NULL;

  HeapPlan plan = planOf(param, TREL_HEAP_POOL, poolSize, domain.offset());
  const uint64_t extra = plan.sizes.headerSize + plan.sizes.space;
  plan.size = (poolSize + extra + param.granularity - 1) / param.granularity * param.granularity;

  NewPool pool = {domainHandle->base, plan, 0};
  Allocation chunk = {poolSize, 0,       extra,           plan.size, 0,
                      0,        nullptr, NewPool::create, &pool,     inNewDomain};
  if (const uint32_t rc = allocate(&domain, &chunk, caller)) return rc;
  const uint32_t rc = pool.rc ? uint32_t{TREL_RC_POOL_HEAP}
                              : makeHandle(handle, {domainHandle->base, domain.offset(),
                                                    chunk.dataOffset, chunk.blockOffset});
  if (rc && !inNewDomain) {
    Heap(domain.base(), chunk.dataOffset, kPoolKind).header()->heapState = 0;
    release(&domain, chunk.blockOffset, chunk.dataOffset, false, caller);
  }
  return rc;
}

}  // namespace

uint32_t createPool(ShmPoolHandle_t** handle, const ShmDomainHandle_t* domain, uint32_t poolSize,
                    const ShmPoolParam_t* given, const Caller& caller) {
  return makePool(handle, domain, poolSize, given, caller, false);
}

uint32_t createPoolInNew(ShmPoolHandle_t** handle, const ShmDomainHandle_t* domain,
                         uint32_t poolSize, const ShmPoolParam_t* given, const Caller& caller) {
  return makePool(handle, domain, poolSize, given, caller, true);
}

uint32_t connectPool(ShmPoolHandle_t** handle, const ShmDomainHandle_t* domainHandle,
                     uint32_t poolOffset, const ShmPoolParam_t* given) {
  const ShmPoolParam_t param = complete(given);
  if (param.heapVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HEAP_VERSION;
  if (param.handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  Heap domain = heapOf(domainHandle);
  if (const uint32_t rc = checkDomain(domain)) return rc;
  if (!isAligned8(poolOffset)) return TREL_RC_POOL_OFFSET_ALIGN;
  if (const uint32_t rc = checkPoolOffset(&domain, poolOffset)) return rc;
  Heap pool(domainHandle->base, poolOffset, kPoolKind);
  if (const uint32_t rc = checkHeap(pool)) return rc;
  if (pool.header()->topPool != domain.offset()) return TREL_RC_DOMAIN_OFFSET;
  if (pool.header()->heapSize > domain.end() - poolOffset) return TREL_RC_POOL_STATE;
  if (!handle) return TREL_RC_POOL_HANDLE_NULL;

  if (const uint32_t rc = connectHeap(&pool)) return rc;
  uint64_t chunkOffset = 0;
  uint32_t rc = findChunk(domainHandle->base, poolOffset, &chunkOffset);
  if (rc == 0)
    rc = makeHandle(handle, {domainHandle->base, domain.offset(), poolOffset, chunkOffset});
  if (rc) disconnectHeap(&pool);
  return rc;
}

uint32_t disconnectPool(ShmPoolHandle_t** handle) {
  const ShmPoolHandle_t* h = *handle;
  if (!isAligned8(h->domainOffset)) return TREL_RC_DOMAIN_OFFSET_ALIGN;
  if (!isAligned8(h->poolOffset)) return TREL_RC_POOL_OFFSET_ALIGN;
  Heap pool = heapOf(h);
  if (const uint32_t rc = checkStoredVersions(pool, true)) return rc;
  if (pool.header()->topPool != h->domainOffset) return TREL_RC_DOMAIN_OFFSET;
  if (const uint32_t rc = disconnectHeap(&pool)) return rc;
  return freeHandle(handle);
}

uint32_t freePool(ShmPoolHandle_t** handle, uint32_t freeMode, const Caller& caller) {
  const ShmPoolHandle_t h = **handle;
  if (!isAligned8(h.domainOffset)) return TREL_RC_DOMAIN_OFFSET_ALIGN;
  if (!isAligned8(h.poolOffset)) return TREL_RC_POOL_OFFSET_ALIGN;
  if (!isAligned8(h.chunkOffset)) return TREL_RC_CHUNK_OFFSET_ALIGN;
  Heap domain(h.base, h.domainOffset, kDomainKind);
  if (const uint32_t rc = checkHeap(domain)) return rc;
  if (const uint32_t rc = checkStoredVersions(domain, true)) return rc;
  Heap pool = heapOf(&h);
  if (const uint32_t rc = checkHeap(pool)) return rc;
  if (freeMode != 3 && freeMode != 4) return TREL_RC_POOL_FREE_MODE;
  if (isReadOnly(pool.header())) return TREL_RC_READING_ONLY;
  if (const uint32_t rc = domain.openHeader()) return rc;
  if (const uint32_t rc = pool.openHeader()) return rc;
  if (const uint32_t rc = insideHeap(
          &domain, [&] { return freeHeldPool(&domain, &pool, h, freeMode == 3, caller); }))
    return rc;
  return freeHandle(handle);
}

}  // namespace trel

using namespace trel;

uint32_t _trelCreateShmPool(ShmPoolHandle_t** handle, ShmDomainHandle_t* domain, uint32_t poolSize,
                            const ShmPoolParam_t* given, uint32_t function, uint32_t line,
                            const char* file) {
  return traced(FID__trelCreateShmPool, [&](const Flow& flow) -> uint32_t {
    const uint32_t rc = checkHandle(flow, domain);
    return rc ? rc : createPool(handle, domain, poolSize, given, {function, line, file});
  });
}

uint32_t trelConnectToShmPool(ShmPoolHandle_t** handle, ShmDomainHandle_t* domain,
                              uint32_t poolOffset, const ShmPoolParam_t* given) {
  return traced(FID_trelConnectToShmPool, [&](const Flow& flow) -> uint32_t {
    const uint32_t rc = checkHandle(flow, domain);
    return rc ? rc : connectPool(handle, domain, poolOffset, given);
  });
}

uint32_t trelDisconnectFromShmPool(ShmPoolHandle_t** handle) {
  return traced(FID_trelDisconnectFromShmPool, [&](const Flow& flow) -> uint32_t {
    const uint32_t rc = checkHandle(flow, handle ? *handle : nullptr);
    return rc ? rc : disconnectPool(handle);
  });
}

uint32_t _trelFreeShmPool(ShmPoolHandle_t** handle, uint32_t freeMode, uint32_t function,
                          uint32_t line, const char* file) {
  return traced(FID__trelFreeShmPool, [&](const Flow& flow) -> uint32_t {
    const uint32_t rc = checkHandle(flow, handle ? *handle : nullptr);
    return rc ? rc : freePool(handle, freeMode, {function, line, file});
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
