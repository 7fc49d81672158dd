#include "operations.h"

namespace fuzz {
namespace {

// The domain or the pool of the victim, as base, kind and offset.
struct Which {
  uint32_t kind;
  uint64_t offset;
};
Which anyHeap(Stage& s) {
  return s.random.below(2) ? Which{TREL_HEAP_DOMAIN, 0} : Which{TREL_HEAP_POOL, s.poolOffset};
}
#define HEAP s.base, heap.kind, heap.offset

// Work on a heap whose latch the caller holds.
template <class Work>
void latched(Stage& s, const Which& heap, Work&& work) {
  const bool isDomain = heap.kind == TREL_HEAP_DOMAIN;
  if (isDomain ? trelLatchShmDomain(s.domain) : trelLatchShmPool(s.pool)) return;
  work();
  isDomain ? trelUnlatchShmDomain(s.domain) : trelUnlatchShmPool(s.pool);
}
#define LATCHED(phase, name, ...)                 \
  WORK(phase, name, {                             \
    const Which heap = anyHeap(s);                \
    latched(s, heap, [&] { name(__VA_ARGS__); }); \
  })

// Work on a free block that was taken out of the lists, and goes back.
template <class Work>
void withBlock(Stage& s, Work&& work) {
  const Which heap = anyHeap(s);
  latched(s, heap, [&] {
    auto *block = s.out<uint64_t>(), *size = s.out<uint64_t>();
    if (trelGetFreeBlockFromSList(HEAP, 128, block, size) == 0) work(heap, block, size);
  });
}

// The user area, with the room that the library says it needs.
template <class Info, class Told, class Read>
void readUserArea(Stage& s, Told&& told, Read&& read) {
  auto* info = s.out<Info>();
  if (told(info)) return;
  auto* size = s.out<uint64_t>();
  *size = s.roomFor(info->userAreaSize);
  if (uint8_t* data = s.outs.take(*size)) read(size, data);
}

template <class Handle>
Handle* copyOnHeap(const Handle& handle) {
  void* block = nullptr;
  _platMemAlloc(&block, 0, sizeof(Handle), 1, "", 0);
  return new (block) Handle(handle);
}

const Operation kRows[] = {
    WORK(read, trelGetUserAppAreaSize,
         { trelGetUserAppAreaSize(s.base, anyHeap(s).offset, s.out<uint64_t>()); }),
    WORK(end, trelInitializeExsLatch,
         {
           auto* header = reinterpret_cast<HeapHeader_t*>(s.base);
           trelInitializeExsLatch(&header->heapLatch, TREL_STRUCTURE_VERSION);
         }),
    WORK(write, trelEnterELCriticalSection,
         {
           auto* header = reinterpret_cast<HeapHeader_t*>(s.base + anyHeap(s).offset);
           if (trelEnterELCriticalSection(&header->heapLatch) == 0)
             trelExitELCriticalSection(&header->heapLatch);
         }),
    WORK(end, trelExitELCriticalSection,
         {
           auto* header = reinterpret_cast<HeapHeader_t*>(s.base + anyHeap(s).offset);
           trelExitELCriticalSection(&header->heapLatch);
         }),
    WORK(write, trelCreateShmDomain,
         {
           const PLATIPCResID key = s.world.freeKey(0);
           ShmDomainHandle_t* made = nullptr;
           if (trelCreateShmDomain(&key, 0, 0x4000, nullptr, &made) == 0)
             trelFreeShmDomain(&made, 2);
         }),
    WORK(door, trelConnectToShmDomain,
         {
           ShmDomainHandle_t* handle = nullptr;
           ShmPoolHandle_t* pool = nullptr;
           if (trelConnectToShmDomain(&s.key, 0, nullptr, &handle)) return;
           auto* info = s.out<ShmDomainInfo_t>();
           trelGetShmDomainInfo(handle, info);
           const auto offset = static_cast<uint32_t>(s.world.map.poolOffset);
           if (trelConnectToShmPool(&pool, handle, offset, nullptr) == 0)
             trelDisconnectFromShmPool(&pool);
           trelDisconnectFromShmDomain(&handle);
         }),
    WORK(end, trelFreeShmDomain,
         {
           ShmDomainHandle_t* handle = nullptr;
           if (trelConnectToShmDomain(&s.key, 0, nullptr, &handle) == 0 &&
               trelFreeShmDomain(&handle, 1))
             trelDisconnectFromShmDomain(&handle);
         }),
    WORK(end, trelMarkShmDomainForDeletion,
         {
           latched(s, {TREL_HEAP_DOMAIN, 0}, [&] { trelMarkShmDomainForDeletion(s.domain); });
         }),
    WORK(read, trelDestroyShmDomainHandle,
         {
           auto* handle = copyOnHeap(*s.domain);
           handle->ipcMemory = nullptr;
           trelDestroyShmDomainHandle(&handle);
         }),
    WORK(write, trelLatchShmDomain,
         {
           trelLatchShmDomain(s.domain);
           trelUnlatchShmDomain(s.domain);
         }),
    CALL(end, trelUnlatchShmDomain, s.domain),
    CALL(read, trelGetShmDomainInfo, s.domain, s.out<ShmDomainInfo_t>()),
    WORK(write, trelSetDomainUserAppData,
         { trelSetDomainUserAppData(s.domain, s.random.below(64), s.value); }),
    WORK(read, trelGetDomainUserAppData,
         {
           readUserArea<ShmDomainInfo_t>(
               s, [&](auto* info) { return trelGetShmDomainInfo(s.domain, info); },
               [&](uint64_t* size, void* data) { trelGetDomainUserAppData(s.domain, size, data); });
         }),
    WORK(write, _trelCreateShmPool,
         {
           ShmPoolHandle_t* made = nullptr;
           if (_trelCreateShmPool(&made, s.domain, 0x400, nullptr, 1, 2, "fuzz") == 0)
             _trelFreeShmPool(&made, 4, 1, 2, "fuzz");
         }),
    WORK(read, trelConnectToShmPool,
         {
           ShmPoolHandle_t* handle = nullptr;
           const auto offset = static_cast<uint32_t>(s.poolOffset);
           if (trelConnectToShmPool(&handle, s.domain, offset, nullptr) == 0)
             trelDisconnectFromShmPool(&handle);
         }),
    WORK(end, _trelFreeShmPool,
         {
           ShmPoolHandle_t* handle = nullptr;
           const auto offset = static_cast<uint32_t>(s.poolOffset);
           if (trelConnectToShmPool(&handle, s.domain, offset, nullptr) == 0 &&
               _trelFreeShmPool(&handle, 3 + s.random.below(2), 1, 2, "fuzz"))
             trelDisconnectFromShmPool(&handle);
         }),
    WORK(read, trelDestroyShmPoolHandle,
         {
           auto* handle = copyOnHeap(*s.pool);
           trelDestroyShmPoolHandle(&handle);
         }),
    WORK(write, trelLatchShmPool,
         {
           trelLatchShmPool(s.pool);
           trelUnlatchShmPool(s.pool);
         }),
    CALL(end, trelUnlatchShmPool, s.pool),
    CALL(read, trelGetShmPoolInfo, s.pool, s.out<ShmPoolInfo_t>()),
    WORK(write, trelSetPoolUserAppData,
         { trelSetPoolUserAppData(s.pool, s.random.below(64), s.value); }),
    WORK(read, trelGetPoolUserAppData,
         {
           readUserArea<ShmPoolInfo_t>(
               s, [&](auto* info) { return trelGetShmPoolInfo(s.pool, info); },
               [&](uint64_t* size, void* data) { trelGetPoolUserAppData(s.pool, size, data); });
         }),
    WORK(write, _trelAllocateShmBlock,
         {
           void *first = nullptr, *second = nullptr;
           const auto size = static_cast<uint32_t>(1 + s.random.below(600));
           if (_trelAllocateShmBlock(&first, s.pool, size, 0, 1, 2, "fuzz")) return;
           s.look(static_cast<uint8_t*>(first));
           _trelAllocateShmBlock(&second, s.pool, size, 0, 1, 2, "fuzz");
           _trelFreeShmBlock(&first, s.pool, 1, 2, "fuzz");
           if (second) _trelFreeShmBlock(&second, s.pool, 1, 2, "fuzz");
         }),
    WORK(end, _trelFreeShmBlock,
         {
           void* block = s.base + s.world.nodes[s.random.below(kNodes)];
           _trelFreeShmBlock(&block, s.pool, 1, 2, "fuzz");
         }),
    WORK(write, trelSetShmDebug,
         {
           const Which heap = anyHeap(s);
           trelSetShmDebug(HEAP, 3, TREL_PAD_FILE_GUARD, 1, 1);
         }),
    WORK(read, _trelCheckAllocShmChunk,
         {
           const Which heap{TREL_HEAP_POOL, s.poolOffset};
           latched(s, heap, [&] {
             _trelCheckAllocShmChunk(HEAP, s.world.nodes[s.target], s.out<char>(24), 1, 2, "fuzz");
           });
         }),
    WORK(read, _trelCheckAllocShmPool,
         { _trelCheckAllocShmPool(s.domain, s.poolOffset, 1, 2, "fuzz"); }),
    WORK(read, _trelCheckAllocShmBlock,
         {
           void* block = s.node;
           _trelCheckAllocShmBlock(&block, s.pool, 1, 2, "fuzz");
         }),
    WORK(read, _trelShmAllocSList,
         {
           const Which heap = anyHeap(s);
           _trelShmAllocSList(HEAP, 1, 2, "fuzz");
         }),
    WORK(read, trelPrintOutSkipLists,
         { trelPrintOutSkipLists(s.pool, 1 + s.random.below(2), s.random.below(6)); }),
    WORK(end, trelCreateInitStorageHeap,
         {
           auto *nodes = s.out<uint64_t>(), *level = s.out<uint64_t>(), *header = s.out<uint64_t>(),
                *lists = s.out<uint64_t>(), *space = s.out<uint64_t>();
           *level = 7;
           if (trelGetHHeaderInfo(0x4000, TREL_HEAP_POOL, nodes, level, 0, header, lists, space))
             return;
           trelCreateInitStorageHeap(s.base, TREL_HEAP_POOL, 0x4000, s.poolOffset, *nodes, *level,
                                     *header, *lists, *space, 8, 0, nullptr, TREL_STRUCTURE_VERSION,
                                     TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION, 0, 0);
         }),
    WORK(write, trelConnectToStorageHeap,
         {
           const Which heap = anyHeap(s);
           if (trelConnectToStorageHeap(HEAP) == 0) trelDisconnectFromStorageHeap(HEAP);
         }),
    WORK(end, trelDisconnectFromStorageHeap,
         {
           const Which heap = anyHeap(s);
           trelDisconnectFromStorageHeap(HEAP);
         }),
    WORK(write, trelGetMemChunkFromShmHeap,
         {
           const Which heap = anyHeap(s);
           auto *size = s.out<uint64_t>(), *block = s.out<uint64_t>(), *data = s.out<uint64_t>();
           *size = 200;
           if (trelGetMemChunkFromShmHeap(HEAP, 200, 0, 0, size, block, data, 1, 2, "fuzz")) return;
           s.look(s.base + *data);
           trelReturnMemChunkToShmHeap(HEAP, *block, *data, 0, 1, 2, "fuzz");
         }),
    WORK(end, trelReturnMemChunkToShmHeap,
         {
           const Which heap = anyHeap(s);
           const uint64_t data = s.world.nodes[s.target];
           trelReturnMemChunkToShmHeap(HEAP, data - 80, data, 0, 1, 2, "fuzz");
         }),
    WORK(write, trelGetFreeBlockFromSList,
         {
           withBlock(s, [&](const Which& heap, uint64_t* block, uint64_t* size) {
             trelReturnFreeBlockToSList(HEAP, *block, *size);
           });
         }),
    WORK(end, trelReturnFreeBlockToSList,
         {
           const Which heap{TREL_HEAP_POOL, s.poolOffset};
           latched(s, heap,
                   [&] { trelReturnFreeBlockToSList(HEAP, s.world.nodes[s.target] - 80, 128); });
         }),
    WORK(end, trelInsertFreeMemChunk,
         {
           withBlock(s, [&](const Which& heap, uint64_t* block, uint64_t* size) {
             trelInsertFreeMemChunk(s.base, heap.offset, *block, *size);
           });
         }),
    WORK(end, trelDeleteFreeMemBlock,
         {
           const Which heap = anyHeap(s);
           latched(s, heap, [&] {
             const uint64_t at = s.world.nodes[s.target] - 80;
             auto *node = s.out<uint64_t>(), *size = s.out<uint64_t>();
             if (trelFindFreeBlockInSList(HEAP, at, node, size) == 0 && *node)
               trelDeleteFreeMemBlock(s.base, heap.offset, *node);
           });
         }),
    LATCHED(read, trelFindFreeBlockInSList, HEAP, s.poolOffset + s.random.below(0x10000),
            s.out<uint64_t>(), s.out<uint64_t>()),
    WORK(end, trelInsertAllocMemChunk,
         {
           withBlock(s, [&](const Which& heap, uint64_t* block, uint64_t* size) {
             trelInsertAllocMemChunk(HEAP, *block, *size, *block + 16, 100, 1, 2,
                                     s.out<uint64_t>());
           });
         }),
    LATCHED(end, trelDeleteAllocMemBlock, HEAP, s.world.nodes[s.target] - 80, s.out<uint64_t>()),
    WORK(end, trelInsertFreeMemBlock,
         {
           withBlock(s, [&](const Which& heap, uint64_t* block, uint64_t* size) {
             trelInsertFreeMemBlock(HEAP, block, size);
           });
         }),
    WORK(end, trelInsertAllocMemBlock,
         {
           withBlock(s, [&](const Which& heap, uint64_t* block, uint64_t* size) {
             auto* data = s.out<uint64_t>();
             *data = *block + 16;
             trelInsertAllocMemBlock(HEAP, block, size, data, 100, 1, 2, 16, s.out<uint64_t>());
           });
         }),
    WORK(end, trelDefragmentSList,
         {
           withBlock(s, [&](const Which& heap, uint64_t* block, uint64_t* size) {
             trelDefragmentSList(HEAP, block, size);
             trelReturnFreeBlockToSList(HEAP, *block, *size);
           });
         }),
    WORK(end, trelChangeSlistSpace,
         {
           withBlock(s, [&](const Which& heap, uint64_t* block, uint64_t* size) {
             auto* space =
                 reinterpret_cast<SkipListHeader_t*>(s.base + heap.offset + TREL_HEAP_HEADER_SIZE);
             const auto direction = static_cast<uint32_t>(1 + s.random.below(2));
             trelChangeSlistSpace(HEAP, space->slSpaceSize + (direction == 1 ? 64 : -64), direction,
                                  block, size);
             trelReturnFreeBlockToSList(HEAP, *block, *size);
           });
         }),
    LATCHED(end, trelDefragmentSLInPlace, HEAP),

    // Called by name in the rows above, as the second half of them.
    WORK(write, trelDisconnectFromShmDomain,
         {
           ShmDomainHandle_t* handle = nullptr;
           if (trelConnectToShmDomain(&s.key, 0, nullptr, &handle) == 0)
             trelDisconnectFromShmDomain(&handle);
         }),
    WORK(write, trelDisconnectFromShmPool,
         {
           ShmPoolHandle_t* handle = nullptr;
           const auto offset = static_cast<uint32_t>(s.world.nodes[s.target]);
           if (trelConnectToShmPool(&handle, s.domain, offset, nullptr) == 0)
             trelDisconnectFromShmPool(&handle);
         }),
};

}  // namespace

Operations storageOperations() { return {std::begin(kRows), std::end(kRows)}; }

}  // namespace fuzz
