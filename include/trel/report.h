/* Reports on storage heaps, for a maintainer. They change nothing but the state of the latches that
 * they take. Findings of the checks go to platAssertFailed, tables and lists to standard output.
 *
 * function, line and file name who asks; findings are shown with them. Operations return 0 or a
 * TREL_RC_ code; findings do not change the result. */
#ifndef TREL_REPORT_H
#define TREL_REPORT_H

#include "trel/records.h"

TREL_BEGIN_C

/* Checks the pads of one chunk of a domain, given by the offset of its data: the poolOffset of the
 * pool in it. Holds the domain's heapLatch, unless the segment may only be read. */
TREL_API uint32_t _trelCheckAllocShmPool(ShmDomainHandle_t* domain, uint64_t dataOffset,
                                         uint32_t function, uint32_t line, const char* file);

/* Checks the pads of one block of a pool; *block is what the allocation gave. TREL_RC_PAD_MODE for
 * a block that was freed. Holds the pool's heapLatch, unless the segment may only be read. */
TREL_API uint32_t _trelCheckAllocShmBlock(void** block, ShmPoolHandle_t* pool, uint32_t function,
                                          uint32_t line, const char* file);

/* Prints what is still allocated in a heap, with the place that allocated it, and checks the pads
 * of each entry. heapKind is TREL_HEAP_DOMAIN or TREL_HEAP_POOL, heapOffset the heap's offset from
 * base. Prints nothing where nothing is allocated. The list is that of one moment, read as by
 * trelGetShmPoolInfo; pads are looked at as they are now, so of blocks that others free meanwhile
 * faults may be told that are none. */
TREL_API uint32_t _trelShmAllocSList(void* base, uint32_t heapKind, uint64_t heapOffset,
                                     uint32_t function, uint32_t line, const char* file);

/* Prints the skip lists of the pool (TREL_HEAP_POOL), or of the domain that it lies in
 * (TREL_HEAP_DOMAIN). detailLevel: 0 nothing, 1 headings and blocks, 2 and the pads, 3 and the
 * links, 4 and node offsets and sentinels, 5 and the links of the other order. A list is cut short
 * where a link leads out of the node space. All is of one moment, read as by trelGetShmPoolInfo. */
TREL_API uint32_t trelPrintOutSkipLists(ShmPoolHandle_t* pool, uint32_t heapKind,
                                        uint64_t detailLevel);

TREL_END_C
#endif
