/* Storage: domains, pools and blocks in shared memory.
 *
 * A domain is a heap that fills a segment, or memory at a given address; a pool is a heap in one
 * chunk of a domain; a block is what a pool hands out. A process works with them through handles,
 * which belong to the caller that got them.
 *
 * Operations return 0 or a TREL_RC_ code, the first failure. Unless told otherwise a failure
 * changes and writes nothing. A null handle or base is also reported to the log. function, line and
 * file name the caller: the first two are kept beside the allocation, the third in the pads that
 * have room for it. */
#ifndef TREL_STORAGE_H
#define TREL_STORAGE_H

#include "trel/records.h"

TREL_BEGIN_C

/* ---- Domains ---- */

/* Makes a domain of `size` bytes. Access mode 1: a new segment of that key, mapped at address if
 * that can be had; TREL_RC_SEGMENT_EXISTS if there is one. Mode 3: the memory at address. param may
 * be null. The heap starts with one connection, the caller's. */
TREL_API uint32_t trelCreateShmDomain(const PLATIPCResID* resId, uintptr_t address, uint32_t size,
                                      const ShmDomainParam_t* param, ShmDomainHandle_t** handle);

/* Joins a domain, by key (modes 1, 2) or at an address (3), and counts a connection. A segment that
 * is too small for what its header says gives TREL_RC_DOMAIN_STATE; one marked for deletion
 * TREL_RC_DOMAIN_MARKED. Enters heapLatch for the count. */
TREL_API uint32_t trelConnectToShmDomain(const PLATIPCResID* resId, uintptr_t address,
                                         const ShmDomainParam_t* param, ShmDomainHandle_t** handle);

/* Leaves a domain: the connection is counted out, the segment unmapped, *handle freed and null. */
TREL_API uint32_t trelDisconnectFromShmDomain(ShmDomainHandle_t** handle);

/* Ends a domain and its segment. freeMode 1: if no other connection is left, else
 * TREL_RC_DOMAIN_CONNECTED; 2: whoever is connected. Enters heapLatch. */
TREL_API uint32_t trelFreeShmDomain(ShmDomainHandle_t** handle, uint32_t freeMode);

/* Refuses new connections from now on. The caller holds heapLatch by trelLatchShmDomain. */
TREL_API uint32_t trelMarkShmDomainForDeletion(ShmDomainHandle_t* handle);

/* Frees the handle alone; memory and connection stay. */
TREL_API uint32_t trelDestroyShmDomainHandle(ShmDomainHandle_t** handle);

/* Enter and leave the domain's heapLatch. Of entering, 0 says only that the handle was good: a
 * failure to take the latch is not told, and shows at the unlatch. Leaving does so even where it
 * reports a wrong state. */
TREL_API uint32_t trelLatchShmDomain(ShmDomainHandle_t* handle);
TREL_API uint32_t trelUnlatchShmDomain(ShmDomainHandle_t* handle);

/* All figures of one moment, without a latch and without the right to write. Where writers leave no
 * such moment for 200 ms: TREL_RC_WRITER_INSIDE for who may only read; others take heapLatch. A
 * heapSize beyond the mapping gives the code of a wrong state. A failure leaves *info undefined. */
TREL_API uint32_t trelGetShmDomainInfo(ShmDomainHandle_t* handle, ShmDomainInfo_t* info);

/* The user area, always whole: `size` must be its size. The read writes *size also where a damaged
 * size makes it fail, and needs that much room at data. No latch. */
TREL_API uint32_t trelSetDomainUserAppData(ShmDomainHandle_t* handle, uint64_t size,
                                           const void* data);
TREL_API uint32_t trelGetDomainUserAppData(ShmDomainHandle_t* handle, uint64_t* size, void* data);

/* ---- Pools ---- */

/* Makes a pool that can hand out poolSize bytes, in a chunk of the domain. The chunk is the pool's
 * header and node space larger, and costs the pads of the domain besides. */
TREL_API uint32_t _trelCreateShmPool(ShmPoolHandle_t** handle, ShmDomainHandle_t* domain,
                                     uint32_t poolSize, const ShmPoolParam_t* param,
                                     uint32_t function, uint32_t line, const char* file);

/* Joins the pool at an offset from the segment base, and counts a connection. */
TREL_API uint32_t trelConnectToShmPool(ShmPoolHandle_t** handle, ShmDomainHandle_t* domain,
                                       uint32_t poolOffset, const ShmPoolParam_t* param);
TREL_API uint32_t trelDisconnectFromShmPool(ShmPoolHandle_t** handle);

/* Ends a pool: its chunk goes back to the domain, and shared list entries in it are unlinked.
 * freeMode 3: if no other connection is left, else TREL_RC_POOL_CONNECTED; 4: whoever is connected.
 * Enters the domain's heapLatch; nobody may use the pool any more. */
TREL_API uint32_t _trelFreeShmPool(ShmPoolHandle_t** handle, uint32_t freeMode, uint32_t function,
                                   uint32_t line, const char* file);

/* As their domain twins. */
TREL_API uint32_t trelDestroyShmPoolHandle(ShmPoolHandle_t** handle);
TREL_API uint32_t trelLatchShmPool(ShmPoolHandle_t* handle);
TREL_API uint32_t trelUnlatchShmPool(ShmPoolHandle_t* handle);
TREL_API uint32_t trelGetShmPoolInfo(ShmPoolHandle_t* handle, ShmPoolInfo_t* info);
TREL_API uint32_t trelSetPoolUserAppData(ShmPoolHandle_t* handle, uint64_t size, const void* data);
TREL_API uint32_t trelGetPoolUserAppData(ShmPoolHandle_t* handle, uint64_t* size, void* data);

/* ---- Blocks ---- */

/* Gives a block of `size` bytes, 8-aligned. options is 0. TREL_RC_POOL_ABOVE_HEAP, _ABOVE_FREE,
 * _NO_BLOCK: larger than the pool, than its free bytes, than any of its free blocks. Enters the
 * pool's debugLatch, then its heapLatch. */
TREL_API uint32_t _trelAllocateShmBlock(void** block, ShmPoolHandle_t* pool, uint32_t size,
                                        uint32_t options, uint32_t function, uint32_t line,
                                        const char* file);

/* Gives a block back and sets *block to null. Damage to its pads is reported as an assertion; a
 * block that is free already gives TREL_RC_PAD_MODE. On failure the block stays allocated. */
TREL_API uint32_t _trelFreeShmBlock(void** block, ShmPoolHandle_t* pool, uint32_t function,
                                    uint32_t line, const char* file);

/* ---- Debug settings ---- */

/* debugFlags: bit 0 fills new blocks, bit 1 freed blocks with 0xff. debugMode: one of TREL_PAD_...,
 * not tested here. The pad words are 1 to 8. From the first allocation on pads can neither be
 * switched on nor off. Enters debugLatch. */
TREL_API uint32_t trelSetShmDebug(void* base, uint32_t heapKind, uint64_t heapOffset,
                                  uint32_t debugFlags, uint32_t debugMode, uint32_t frontPadWords,
                                  uint32_t backPadWords);

/* Checks one allocation against its pads and its node; findings are reported as assertions and do
 * not change the result. fileName, 24 bytes or null, gets the file name that the pads hold. The
 * caller holds heapLatch. */
TREL_API uint32_t _trelCheckAllocShmChunk(void* base, uint32_t heapKind, uint64_t heapOffset,
                                          uint64_t dataOffset, char* fileName, uint32_t function,
                                          uint32_t line, const char* file);

/* ---- The inside of a heap ----
 *
 * base is the segment's address, heapKind 1 a domain and 2 a pool, heapOffset H. Unless told
 * otherwise the caller holds heapLatch. */

/* Sizes: of a heap header, of a skip-list header, and the stored user area (0 for a null base). */
TREL_API void trelGetHHeaderSize(uint64_t userAreaSize, uint64_t* size);
TREL_API void trelGetSLHeaderSize(uint64_t maxLevel, uint64_t* size);
TREL_API void trelGetUserAppAreaSize(const void* base, uint64_t heapOffset, uint64_t* size);

/* The sizes of a heap of `size` bytes. A *nodeCount of 0 is worked out; *nodeCount and *maxLevel
 * are clipped in place. */
TREL_API uint32_t trelGetHHeaderInfo(uint64_t size, uint32_t heapKind, uint64_t* nodeCount,
                                     uint64_t* maxLevel, uint64_t userAreaSize,
                                     uint64_t* heapHeaderSize, uint64_t* slHeaderSize,
                                     uint64_t* slSpaceSize);

/* Exclusive latches of a heap. A heapLatch that is taken over here from a dead owner may guard
 * lists that are half written: the next operation that enters the heap by itself repairs them. */
TREL_API uint32_t trelInitializeExsLatch(ExclusiveLatch_t* record, uint64_t latchVersion);
TREL_API uint32_t trelEnterELCriticalSection(ExclusiveLatch_t* record);
TREL_API uint32_t trelExitELCriticalSection(ExclusiveLatch_t* record);

/* Lays a heap out in `size` bytes of memory at H; the sizes are those of trelGetHHeaderInfo. Enters
 * the new heapLatch. Memory that cannot hold them gives TREL_RC_DOMAIN_HEADER_SIZE or
 * TREL_RC_POOL_HEADER_SIZE. */
TREL_API uint32_t trelCreateInitStorageHeap(
    void* base, uint32_t heapKind, uint64_t size, uint64_t heapOffset, uint64_t nodeCount,
    uint64_t maxLevel, uint64_t heapHeaderSize, uint64_t slHeaderSize, uint64_t slSpaceSize,
    uint64_t granularity, uint64_t userAreaSize, const void* userData, uint64_t latchVersion,
    uint64_t heapVersion, uint64_t handleVersion, uint64_t flags, uint64_t ownerOffset);
/* Count a connection in and out; enter heapLatch. */
TREL_API uint32_t trelConnectToStorageHeap(void* base, uint32_t heapKind, uint64_t heapOffset);
TREL_API uint32_t trelDisconnectFromStorageHeap(void* base, uint32_t heapKind, uint64_t heapOffset);

/* The engine: an allocation of *size bytes, of which the caller will use requestedSize; *size comes
 * back with the pads. Enters the latches by itself. */
TREL_API uint32_t trelGetMemChunkFromShmHeap(void* base, uint32_t heapKind, uint64_t heapOffset,
                                             uint64_t requestedSize, uint64_t options,
                                             uint64_t extraSize, uint64_t* size,
                                             uint64_t* blockOffset, uint64_t* dataOffset,
                                             uint32_t function, uint32_t line, const char* file);
/* And its return; enters heapLatch unless latchHeld. */
TREL_API uint32_t trelReturnMemChunkToShmHeap(void* base, uint32_t heapKind, uint64_t heapOffset,
                                              uint64_t blockOffset, uint64_t dataOffset,
                                              uint64_t latchHeld, uint32_t function, uint32_t line,
                                              const char* file);

/* Free memory, best fit; merged when it comes back. */
TREL_API uint32_t trelGetFreeBlockFromSList(void* base, uint32_t heapKind, uint64_t heapOffset,
                                            uint64_t size, uint64_t* blockOffset,
                                            uint64_t* blockSize);
TREL_API uint32_t trelReturnFreeBlockToSList(void* base, uint32_t heapKind, uint64_t heapOffset,
                                             uint64_t blockOffset, uint64_t blockSize);

/* Plain operations on the lists. TREL_RC_SPACE_FULL: no room for the node, nothing changed. */
TREL_API uint32_t trelInsertFreeMemChunk(void* base, uint64_t heapOffset, uint64_t blockOffset,
                                         uint64_t blockSize);
TREL_API uint32_t trelDeleteFreeMemBlock(void* base, uint64_t heapOffset, uint64_t nodeOffset);
TREL_API uint32_t trelFindFreeBlockInSList(void* base, uint32_t heapKind, uint64_t heapOffset,
                                           uint64_t blockOffset, uint64_t* nodeOffset,
                                           uint64_t* blockSize);
TREL_API uint32_t trelInsertAllocMemChunk(void* base, uint32_t heapKind, uint64_t heapOffset,
                                          uint64_t blockOffset, uint64_t blockSize,
                                          uint64_t dataOffset, uint64_t requestedSize,
                                          uint32_t function, uint32_t line, uint64_t* nodeOffset);
TREL_API uint32_t trelDeleteAllocMemBlock(void* base, uint32_t heapKind, uint64_t heapOffset,
                                          uint64_t blockOffset, uint64_t* blockSize);

/* Guarded insertions: they make room for the node where it runs short. A change of space may move
 * the start of the free block that is being inserted, never that of an allocated one. */
TREL_API uint32_t trelInsertFreeMemBlock(void* base, uint32_t heapKind, uint64_t heapOffset,
                                         uint64_t* blockOffset, uint64_t* blockSize);
TREL_API uint32_t trelInsertAllocMemBlock(void* base, uint32_t heapKind, uint64_t heapOffset,
                                          uint64_t* blockOffset, uint64_t* blockSize,
                                          uint64_t* dataOffset, uint64_t requestedSize,
                                          uint32_t function, uint32_t line, uint64_t frontPadSize,
                                          uint64_t* nodeOffset);

/* Make room: the choice, a change of space (direction 1 grows, 2 shrinks) and a rebuild. Blocks
 * stay where they are. *blockOffset and *blockSize tell of a block that is on no list just now. */
TREL_API uint32_t trelDefragmentSList(void* base, uint32_t heapKind, uint64_t heapOffset,
                                      uint64_t* blockOffset, uint64_t* blockSize);
TREL_API uint32_t trelChangeSlistSpace(void* base, uint32_t heapKind, uint64_t heapOffset,
                                       uint64_t newSize, uint32_t direction, uint64_t* blockOffset,
                                       uint64_t* blockSize);
TREL_API uint32_t trelDefragmentSLInPlace(void* base, uint32_t heapKind, uint64_t heapOffset);

TREL_END_C
#endif
