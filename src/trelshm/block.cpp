// Blocks of a pool, and the engine as it is exported.
#include "trelshm/allocator.h"
#include "trelshm/handle.h"

using namespace trel;

namespace trel {
namespace {

// The data of an allocation is at least so far from the start of its heap.
constexpr uint64_t kLeastDataOffset = TREL_HEAP_HEADER_SIZE;

bool liesInPool(const Heap& pool, int64_t blockOffset) {
  const uint64_t offset = static_cast<uint64_t>(blockOffset);
  return offset >= pool.offset() && offset - pool.offset() <= pool.header()->heapSize;
}

// Whether the pad in front of that data lies in the heap.
bool hasPad(const Heap& heap, uint64_t dataOffset) {
  return dataOffset >= heap.offset() + kLeastDataOffset &&
         dataOffset - heap.offset() <= heap.header()->heapSize;
}

// The same for the domain around a pool.
bool hasPadInDomain(const Heap& pool, uint64_t dataOffset) {
  const uint64_t owner = pool.header()->topPool;
  if (owner > pool.offset() || pool.offset() - owner < TREL_HEAP_HEADER_SIZE) return false;
  const Heap domain(pool.base(), owner, kDomainKind);
  return checkHeap(domain) == 0 && hasPad(domain, dataOffset);
}

}  // namespace

uint32_t locateBlock(const Flow& flow, const Heap& pool, const void* block, uint64_t* blockOffset,
                     uint64_t* dataOffset) {
  if (reinterpret_cast<uintptr_t>(block) < reinterpret_cast<uintptr_t>(pool.base()))
    return flow.fail(TREL_RC_BLOCK_BELOW_BASE);
  *dataOffset = offsetOf(block, pool.base());
  const bool inPool = hasPad(pool, *dataOffset);
  if (!inPool && !hasPadInDomain(pool, *dataOffset)) return flow.fail(TREL_RC_BLOCK_OUTSIDE_POOL);
  int64_t offset = 0;
  if (const uint32_t rc = blockOffsetOf(pool.base(), *dataOffset, &offset)) return flow.fail(rc);
  if (offset < 0) return flow.fail(TREL_RC_BLOCK_OFFSET_NEGATIVE);
  if (!isAligned8(static_cast<uint64_t>(offset))) return flow.fail(TREL_RC_BLOCK_OFFSET_ALIGN);
  if (!inPool || !liesInPool(pool, offset)) return flow.fail(TREL_RC_BLOCK_OUTSIDE_POOL);
  *blockOffset = static_cast<uint64_t>(offset);
  return 0;
}

uint32_t allocateBlock(void** block, ShmPoolHandle_t* handle, uint32_t size, uint32_t options,
                       const Caller& caller, BlockName name) {
  return traced(FID__trelAllocateShmBlock, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle)) return rc;
    if (!block) return flow.logged(TREL_RC_BLOCK_ADDRESS_NULL, block);
    if (!isAligned8(handle->poolOffset)) return flow.fail(TREL_RC_POOL_OFFSET_ALIGN);
    Heap pool = heapOf(handle);
    const HeapHeader_t* header = pool.header();
    if (header->heapState != TREL_POOL_STATE) return flow.fail(TREL_RC_POOL_STATE);
    const uint64_t granularity = header->granularity;
    if (!isAligned8(granularity)) return flow.fail(TREL_RC_POOL_GRANULARITY_ALIGN);
    if (granularity < 8 && size > granularity) return flow.fail(TREL_RC_POOL_GRANULARITY);
    // Nearly all pools count in eights, and there a division would be the dearest instruction.
    const uint64_t rounded =
        granularity <= 8 ? round8(size) : (size + granularity - 1) / granularity * granularity;
    Allocation wanted = {size, options, 0, rounded, 0, 0, name};
    if (const uint32_t rc = allocate(&pool, &wanted, caller)) return flow.fail(rc);
    if (!liesInPool(pool, static_cast<int64_t>(wanted.blockOffset)))
      return flow.fail(TREL_RC_BLOCK_OUTSIDE_POOL);
    *block = pool.at<void>(wanted.dataOffset);
    return 0;
  });
}

uint32_t freeBlock(void** block, ShmPoolHandle_t* handle, const Caller& caller, BlockName name) {
  return traced(FID__trelFreeShmBlock, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkHandle(flow, handle)) return rc;
    if (!isAligned8(handle->poolOffset)) return flow.fail(TREL_RC_POOL_OFFSET_ALIGN);
    if (!block) return flow.logged(TREL_RC_BLOCK_ADDRESS_NULL, block);
    if (!*block) return flow.logged(TREL_RC_BLOCK_NULL, *block);
    Heap pool = heapOf(handle);
    uint64_t blockOffset = 0, dataOffset = 0;
    if (const uint32_t rc = locateBlock(flow, pool, *block, &blockOffset, &dataOffset)) return rc;
    if (const uint32_t rc = release(&pool, blockOffset, dataOffset, false, caller, name))
      return flow.fail(rc);
    *block = nullptr;
    return 0;
  });
}

}  // namespace trel

uint32_t _trelAllocateShmBlock(void** block, ShmPoolHandle_t* handle, uint32_t size,
                               uint32_t options, uint32_t function, uint32_t line,
                               const char* file) {
  return allocateBlock(block, handle, size, options, {function, line, file});
}

uint32_t _trelFreeShmBlock(void** block, ShmPoolHandle_t* handle, uint32_t function, uint32_t line,
                           const char* file) {
  return freeBlock(block, handle, {function, line, file});
}

uint32_t trelGetMemChunkFromShmHeap(void* base, uint32_t heapKind, uint64_t heapOffset,
                                    uint64_t requestedSize, uint64_t options, uint64_t extraSize,
                                    uint64_t* size, uint64_t* blockOffset, uint64_t* dataOffset,
                                    uint32_t function, uint32_t line, const char* file) {
  return onHeap(FID_trelGetMemChunkFromShmHeap, base, heapKind, heapOffset,
                [&](const Flow& flow, Heap* heap) -> uint32_t {
                  if (!size) return flow.fail(TREL_RC_BLOCK_SIZE_NULL);
                  if (!blockOffset || !dataOffset) return flow.fail(TREL_RC_BLOCK_OFFSET_NULL);
                  Allocation wanted = {requestedSize, options, extraSize, *size, 0, 0};
                  const uint32_t rc = allocate(heap, &wanted, {function, line, file});
                  *size = wanted.size;
                  if (rc) return flow.fail(rc);
                  *blockOffset = wanted.blockOffset;
                  *dataOffset = wanted.dataOffset;
                  return 0;
                });
}

uint32_t trelReturnMemChunkToShmHeap(void* base, uint32_t heapKind, uint64_t heapOffset,
                                     uint64_t blockOffset, uint64_t dataOffset, uint64_t latchHeld,
                                     uint32_t function, uint32_t line, const char* file) {
  return onHeap(
      FID_trelReturnMemChunkToShmHeap, base, heapKind, heapOffset, [&](const Flow&, Heap* heap) {
        return release(heap, blockOffset, dataOffset, latchHeld != 0, {function, line, file});
      });
}
