// Operations on the lists of a heap and on their space, as they are exported. heapLatch is the
// caller's.
#include "trel/storage.h"
#include "trelshm/alloc_list.h"
#include "trelshm/free_blocks.h"
#include "trelshm/heap_latch.h"
#include "trelshm/space.h"

namespace trel {
namespace {

// The frame of such an operation.
template <class Work>
uint32_t onLists(uint32_t function, void* base, uint32_t heapKind, uint64_t heapOffset,
                 bool testOffset, Work&& work) {
  return onHeap(function, base, heapKind, heapOffset,
                [&](const Flow& flow, Heap* heap) -> uint32_t {
                  if (testOffset && loadOnce(&heap->header()->heapOffset) != heapOffset)
                    return flow.fail(heap->kind().rcOffset);
                  if (const uint32_t rc = heap->openHeader()) return flow.fail(rc);
                  if (heap->isReadOnly()) return flow.fail(TREL_RC_READING_ONLY);
                  if (const uint32_t rc = repairIfDue(heap)) return flow.fail(rc);
                  if (const uint32_t rc = heap->openLists()) return flow.fail(rc);
                  const HeapChange change(*heap);
                  return work(heap);
                });
}

// Merges a block that was on no list.
uint32_t giveBack(Heap* heap, uint64_t offset, uint64_t size) {
  if (!heap->containsBlock(offset, size)) return heap->kind().rcState;
  for (uint32_t attempt = 0;; ++attempt) {
    BlockChange block(heap);
    block.offset = offset;
    block.size = size;
    Surroundings around;
    if (const uint32_t rc = findSurroundings(*heap, offset, size, &around)) return rc;
    const uint32_t rc = coalesce(around, attempt > 0, &block);
    if (rc == 0) return block.change.apply();
    if (rc != TREL_RC_SPACE_FULL || attempt == 3) return rc;
    const uint32_t failed = makeRoomForReturn(heap, attempt);
    if (failed && attempt > 0) return failed;
  }
}

uint32_t removeFree(Heap* heap, uint64_t offset) {
  FreeNode node = {};
  if (!loadFree(*heap, offset, 0, &node.ref)) return heap->kind().rcState;
  node.offset = loadOnce(&heap->free(offset)->blockOffset);
  node.size = loadOnce(&heap->free(offset)->blockSize);
  FreeChange change(heap);
  const uint32_t rc = change.remove(node);
  return rc ? rc : change.apply();
}

// Two of the operations are not told the kind; the signature tells it.
uint32_t kindBySignature(const void* base, uint64_t heapOffset) {
  return base && Heap(base, heapOffset, kPoolKind).header()->heapState == TREL_POOL_STATE
             ? TREL_HEAP_POOL
             : TREL_HEAP_DOMAIN;
}

// The pointers to the block in flight, which the space operations take.
template <class Work>
uint32_t onInFlight(uint32_t function, void* base, uint64_t* blockOffset, uint64_t* blockSize,
                    Work&& work) {
  if (base && blockOffset && blockSize) {
    InFlight block = {*blockOffset, *blockSize};
    const uint32_t rc = work(&block);
    *blockOffset = block.offset;
    *blockSize = block.size;
    return rc;
  }
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (!base) return flow.logged(TREL_RC_BASE_NULL, base);
    return blockOffset ? flow.logged(TREL_RC_BLOCK_SIZE_NULL, blockSize)
                       : flow.logged(TREL_RC_BLOCK_OFFSET_NULL, blockOffset);
  });
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelGetFreeBlockFromSList(void* base, uint32_t heapKind, uint64_t heapOffset,
                                   uint64_t size, uint64_t* blockOffset, uint64_t* blockSize) {
  return onInFlight(FID_trelGetFreeBlockFromSList, base, blockOffset, blockSize,
                    [&](InFlight* block) {
                      return onLists(FID_trelGetFreeBlockFromSList, base, heapKind, heapOffset,
                                     true, [&](Heap* heap) {
                                       BlockChange carved(heap);
                                       uint32_t rc = carve(*heap, size, &carved);
                                       if (rc == 0) rc = carved.change.apply();
                                       if (rc == 0) *block = {carved.offset, carved.size};
                                       return rc;
                                     });
                    });
}

uint32_t trelReturnFreeBlockToSList(void* base, uint32_t heapKind, uint64_t heapOffset,
                                    uint64_t blockOffset, uint64_t blockSize) {
  return onLists(FID_trelReturnFreeBlockToSList, base, heapKind, heapOffset, true,
                 [&](Heap* heap) { return giveBack(heap, blockOffset, blockSize); });
}

uint32_t trelInsertFreeMemChunk(void* base, uint64_t heapOffset, uint64_t blockOffset,
                                uint64_t blockSize) {
  return onLists(FID_trelInsertFreeMemChunk, base, kindBySignature(base, heapOffset), heapOffset,
                 false, [&](Heap* heap) { return insertFree(heap, blockOffset, blockSize); });
}

uint32_t trelDeleteFreeMemBlock(void* base, uint64_t heapOffset, uint64_t nodeOffset) {
  return onLists(FID_trelDeleteFreeMemBlock, base, kindBySignature(base, heapOffset), heapOffset,
                 false, [&](Heap* heap) { return removeFree(heap, nodeOffset); });
}

uint32_t trelFindFreeBlockInSList(void* base, uint32_t heapKind, uint64_t heapOffset,
                                  uint64_t blockOffset, uint64_t* nodeOffset, uint64_t* blockSize) {
  return onLists(FID_trelFindFreeBlockInSList, base, heapKind, heapOffset, false,
                 [&](Heap* heap) -> uint32_t {
                   if (!nodeOffset) return TREL_RC_BLOCK_OFFSET_NULL;
                   if (!blockSize) return TREL_RC_BLOCK_SIZE_NULL;
                   FreeNode found;
                   if (const uint32_t rc = findFree(*heap, blockOffset, &found)) return rc;
                   *nodeOffset = found.ref.node;
                   *blockSize = found.size;
                   return 0;
                 });
}

uint32_t trelInsertAllocMemChunk(void* base, uint32_t heapKind, uint64_t heapOffset,
                                 uint64_t blockOffset, uint64_t blockSize, uint64_t dataOffset,
                                 uint64_t requestedSize, uint32_t function, uint32_t line,
                                 uint64_t* nodeOffset) {
  return onLists(
      FID_trelInsertAllocMemChunk, base, heapKind, heapOffset, true, [&](Heap* heap) -> uint32_t {
        if (!nodeOffset) return TREL_RC_BLOCK_OFFSET_NULL;
        return insertAlloc(heap,
                           {blockOffset, blockSize, dataOffset, requestedSize, 0, function, line},
                           nodeOffset);
      });
}

uint32_t trelDeleteAllocMemBlock(void* base, uint32_t heapKind, uint64_t heapOffset,
                                 uint64_t blockOffset, uint64_t* blockSize) {
  return onLists(FID_trelDeleteAllocMemBlock, base, heapKind, heapOffset, true,
                 [&](Heap* heap) -> uint32_t {
                   if (!blockSize) return TREL_RC_BLOCK_SIZE_NULL;
                   AllocPath path;
                   AllocRef found;
                   if (const uint32_t rc = findAlloc(*heap, blockOffset, &path, &found)) return rc;
                   *blockSize = found.fields.blockSize;
                   unlinkAlloc(*heap, found, path);
                   leaveRoom(*heap, NodeKind::allocated, found.node, found.fields.level);
                   return 0;
                 });
}

uint32_t trelInsertFreeMemBlock(void* base, uint32_t heapKind, uint64_t heapOffset,
                                uint64_t* blockOffset, uint64_t* blockSize) {
  return onInFlight(FID_trelInsertFreeMemBlock, base, blockOffset, blockSize, [&](InFlight* block) {
    return onLists(FID_trelInsertFreeMemBlock, base, heapKind, heapOffset, false,
                   [&](Heap* heap) { return insertFreeGuarded(heap, block, false); });
  });
}

uint32_t trelInsertAllocMemBlock(void* base, uint32_t heapKind, uint64_t heapOffset,
                                 uint64_t* blockOffset, uint64_t* blockSize, uint64_t* dataOffset,
                                 uint64_t requestedSize, uint32_t function, uint32_t line,
                                 uint64_t frontPadSize, uint64_t* nodeOffset) {
  return onInFlight(
      FID_trelInsertAllocMemBlock, base, blockOffset, blockSize, [&](const InFlight* block) {
        return onLists(
            FID_trelInsertAllocMemBlock, base, heapKind, heapOffset, false,
            [&](Heap* heap) -> uint32_t {
              if (!dataOffset || !nodeOffset) return TREL_RC_BLOCK_OFFSET_NULL;
              *dataOffset = block->offset + frontPadSize;
              return insertAllocGuarded(
                  heap, {block->offset, block->size, *dataOffset, requestedSize, 0, function, line},
                  nodeOffset);
            });
      });
}

uint32_t trelDefragmentSList(void* base, uint32_t heapKind, uint64_t heapOffset,
                             uint64_t* blockOffset, uint64_t* blockSize) {
  return onInFlight(FID_trelDefragmentSList, base, blockOffset, blockSize, [&](InFlight* block) {
    return onLists(FID_trelDefragmentSList, base, heapKind, heapOffset, true,
                   [&](Heap* heap) { return defragment(heap, block); });
  });
}

uint32_t trelChangeSlistSpace(void* base, uint32_t heapKind, uint64_t heapOffset, uint64_t newSize,
                              uint32_t direction, uint64_t* blockOffset, uint64_t* blockSize) {
  return onInFlight(FID_trelChangeSlistSpace, base, blockOffset, blockSize, [&](InFlight* block) {
    return onLists(FID_trelChangeSlistSpace, base, heapKind, heapOffset, false,
                   [&](Heap* heap) -> uint32_t {
                     if (direction != 1 && direction != 2) return TREL_RC_SPACE_DIRECTION;
                     return changeSpace(heap, newSize, Direction{direction}, block);
                   });
  });
}

uint32_t trelDefragmentSLInPlace(void* base, uint32_t heapKind, uint64_t heapOffset) {
  return onLists(FID_trelDefragmentSLInPlace, base, heapKind, heapOffset, false,
                 [](Heap* heap) { return rebuild(heap); });
}
