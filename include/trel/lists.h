/* Process lists: what segments this process is attached to, and what other segments and modules the
 * nodes of a tree refer to.
 *
 * The attach list has one SegAttachNode_t per segment held in access mode 1 or 2. It is guarded by
 * trelSegAttachLatch, which its operations leave to the caller.
 *
 * The other lists exist in two memories. LList: blocks of a pool, linked by offsets, with their
 * heads in the header of the pool's domain, guarded by the domain's heapLatch, which the operations
 * take. PMLList: process memory, one list per process, no lock at all: the caller keeps others
 * away. In both memories the segment list stands newest first, the HDM list by descending
 * modulePath.
 *
 * An operation gives the payload of a node, never the node, and payloads do not move: their offsets
 * from the segment base are the segInfoOffset and hdmInfoOffset of node information records.
 *
 * Operations return 0 or a TREL_RC_ code. Common failures: TREL_RC_POOL_HANDLE_NULL and
 * TREL_RC_BASE_NULL (both logged), TREL_RC_LIST_RECORD_NULL, TREL_RC_LATCH. A shared list with an
 * offset that leads nowhere, or with a loop, gives TREL_RC_BLOCK_OUTSIDE_POOL. */
#ifndef TREL_LISTS_H
#define TREL_LISTS_H

#include "trel/records.h"

TREL_BEGIN_C

/* Compares two segments by their key words alone: *result 0 if equal, else 1. version: the
 * handleVersion of whoever asks; if wrong, TREL_RC_HANDLE_VERSION and *result untouched. */
TREL_API uint32_t trelCompareSegID(const PLATIPCResID* key1, const PLATIPCResID* key2,
                                   uint32_t version, int32_t* result);

/* Attach list. All give TREL_RC_NOT_INITIALISED before anything else. */

/* *node: the node of that key, or null. */
TREL_API uint32_t trelFindAttachInfoNodeInLList(const PLATIPCResID* key, SegAttachNode_t** node);
/* Links the caller's ready node in front of the first node of another key: at the head, or behind
 * the nodes of its own key that stand there. segInfo has its key. A key already there is no
 * obstacle. */
TREL_API uint32_t trelInsertAttachInfoNodeIntoLList(const ShmSegInfo_t* segInfo,
                                                    SegAttachNode_t** node);
/* Unlinks the node of that key and frees its record and the node, the handles excepted. A key that
 * is not there is a success. */
TREL_API uint32_t trelDeleteAttachInfoNodeInLList(const PLATIPCResID* key);
TREL_API uint32_t trelPrintAttachInfoNodeLList(void);

/* Shared lists. The blocks of new nodes come from the pool given.
 *
 * Find: *segment or *module gets the payload, or null; an empty list leaves it as it was, so set it
 * to null before.
 * Insert: TREL_RC_LIST_PRESENT if the way to the new node's place met an equal one. Segments go to
 * the head and so meet the head alone: find first.
 * Delete: TREL_RC_LIST_ABSENT if there is no such entry.
 * Print: one line a node on standard output. */
TREL_API uint32_t trelFindAttachSegInfoNodeInLList(ShmPoolHandle_t* pool,
                                                   const SegIdentity_t* record,
                                                   SegIdentity_t** segment);
TREL_API uint32_t trelInsertAttachSegInfoNodeIntoLList(ShmPoolHandle_t* pool,
                                                       const SegIdentity_t* record,
                                                       SegIdentity_t** segment);
TREL_API uint32_t trelDeleteAttachSegInfoNodeFromLList(ShmPoolHandle_t* pool,
                                                       const SegIdentity_t* record);
TREL_API uint32_t trelDeleteAttachSegInfoLList(ShmPoolHandle_t* pool);
TREL_API uint32_t trelPrintAttachSegInfoNodeLList(ShmPoolHandle_t* pool);

TREL_API uint32_t trelFindHDMNodeInLList(ShmPoolHandle_t* pool, const HdmModuleRecord_t* record,
                                         HdmModuleRecord_t** module);
TREL_API uint32_t trelInsertHDMNodeIntoLList(ShmPoolHandle_t* pool, const HdmModuleRecord_t* record,
                                             HdmModuleRecord_t** module);
TREL_API uint32_t trelDeleteHDMNodeFromLList(ShmPoolHandle_t* pool,
                                             const HdmModuleRecord_t* record);
TREL_API uint32_t trelDeleteHDMLList(ShmPoolHandle_t* pool);
TREL_API uint32_t trelPrintHDMNodeLList(ShmPoolHandle_t* pool);

/* The same lists in process memory. A find writes null for an empty list too; lack of memory gives
 * the platform's code. */
TREL_API uint32_t trelFindAttachSegInfoNodeInPMLList(const SegIdentity_t* record,
                                                     SegIdentity_t** segment);
TREL_API uint32_t trelInsertAttachSegInfoNodeIntoPMLList(const SegIdentity_t* record,
                                                         SegIdentity_t** segment);
TREL_API uint32_t trelDeleteAttachSegInfoNodeFromPMLList(const SegIdentity_t* record);
TREL_API uint32_t trelDeleteAttachSegInfoPMLList(void);
TREL_API uint32_t trelPrintAttachSegInfoNodePMLList(void);

TREL_API uint32_t trelFindHDMNodeInPMLList(const HdmModuleRecord_t* record,
                                           HdmModuleRecord_t** module);
TREL_API uint32_t trelInsertHDMNodeIntoPMLList(const HdmModuleRecord_t* record,
                                               HdmModuleRecord_t** module);
TREL_API uint32_t trelDeleteHDMNodeFromPMLList(const HdmModuleRecord_t* record);
TREL_API uint32_t trelDeleteHDMPMLList(void);
TREL_API uint32_t trelPrintHDMNodePMLList(void);

TREL_END_C
#endif
