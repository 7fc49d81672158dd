/* Status segments: the library's state in a process, creation, attach and detach, and the road from
 * a record to a node.
 *
 * A status segment is a domain with one pool in it, bound to a key. A process holds it by a
 * ShmSegInfo_t and counts its attaches: a second attach of a key only counts, and gives the same
 * record.
 *
 *   TRELOneTimeOnlyInitialization, then create or attach, use, detach or delete, then TRELCleanup.
 *
 * Access modes: 1, a segment made by key; 2, attached by key, the default of attach; 3, memory that
 * the caller has mapped, of which a process holds at most one, in trelGASegInfo.
 *
 * A forked child may read what it inherited, but must neither detach nor delete it: the counts are
 * its parent's. fork() waits until no other thread is inside one of the two latches below, up to a
 * second; then the child starts not initialised (TREL_RC_NOT_INITIALISED) rather than in the middle
 * of what that thread did. A bare clone() does not wait: its child may use the library only if no
 * other thread did at that time.
 *
 * Operations return 0 or a TREL_RC_ code, the first failure, and write no out argument on failure
 * unless told otherwise. */
#ifndef TREL_SEGMENT_H
#define TREL_SEGMENT_H

#include "trel/records.h"

TREL_BEGIN_C

/* ---- State of the process. Written by the library alone. ---- */

#define TREL_API_INITIALISED 0xf4eebee4u /* trelAPIIsInitialized: any other value is no */
#define TREL_API_UNINITIALISED 0xbee4f4eeu
#define TREL_GA_SLOT_IN_USE 0xf4eebeefu /* state of trelGASegInfo */
#define TREL_GA_SLOT_EMPTY 0xbeeff4eeu

/* The slot for the segment held in access mode 3. */
typedef struct GASegInfo_t {
  uint32_t state;
  ShmSegInfo_t segInfo;
} GASegInfo_t;

extern TREL_API uint32_t trelAPIIsInitialized;
extern TREL_API uint32_t trelAPIInitRefCount; /* initialisations not yet undone */
/* Byte latches between the threads of the process, taken in this order. The second guards the
 * attach list, its nodes and the slot, and is held across the platform's attach and detach. */
extern TREL_API uint8_t trelAPIInitLatch;
extern TREL_API uint8_t trelSegAttachLatch;
extern TREL_API SegAttachNode_t** pSegAttachList; /* a block that holds the head */
extern TREL_API GASegInfo_t trelGASegInfo;
extern TREL_API uint32_t trelGARefCount; /* attaches of the segment in the slot */
/* Headers of the lists in process memory. `next` is the first node; of the identity only the handle
 * and latch versions are set, the module is spare. */
extern TREL_API PMSegListNode_t trelSegLLHeader;
extern TREL_API PMHdmListNode_t trelHDMLLHeader;

/* Makes the library ready in this process. Both arguments are TREL_STRUCTURE_VERSION. May be
 * called again; each success asks for a TRELCleanup(1). */
TREL_API uint32_t TRELOneTimeOnlyInitialization(uint32_t handleVersion, uint32_t latchVersion);

/* cleanupMode 1 undoes one initialisation, and cleans up with the last; 2 cleans up at once. Frees
 * the process's records and handles; what is still attached stays mapped until the process ends. */
TREL_API uint32_t TRELCleanup(uint32_t cleanupMode);

/* The text of a return code. Works without initialisation. */
TREL_API const char* trelPrintrc(uint32_t code);

/* ---- Creation and end of a segment. ---- */

/* Makes a segment of `size` bytes: a domain with one pool, no nodes, no tree, an attach count of 1.
 * address: a hint in access mode 1, the memory itself in access mode 3. The records may be null.
 *
 * poolSize 0: the largest payload that fits. With x the largest payload sure to fit and A the bytes
 * that the domain manages: from 1 to x a payload, to which the pool's own needs are added; above x
 * and up to A the size of the whole pool, from which they are taken. Above A:
 * TREL_RC_DOMAIN_ABOVE_HEAP. No payload left: TREL_RC_SEGMENT_SMALL. Key taken, or still held by
 * this process, or the slot of access mode 3 in use: TREL_RC_SEGMENT_EXISTS.
 *
 * What a dead maker has left half made under the key is made anew in place, if it is the caller's
 * user's own and of the same size, or removed, if the caller may; but only while nobody else has it
 * attached. It waits up to some 200 ms for others to finish or to go. TREL_RC_SEGMENT_LIMIT: the
 * system has no room for another segment. A failure leaves no segment behind, except that memory
 * that could be made but not mapped stays under the key, for the next creation or removal.
 * trelSegAttachLatch is held throughout. */
TREL_API uint32_t trelGetProtectedStatusSegment(ShmSegInfo_t** seg, uint32_t size,
                                                const PLATIPCResID* key, uintptr_t address,
                                                uint32_t poolSize,
                                                const ShmDomainParam_t* domainParam,
                                                const ShmPoolParam_t* poolParam);

/* Removes the segment of that key, which the caller need not have attached; the library need not be
 * initialised. mode 1: only if nobody has it attached, else TREL_RC_POOL_CONNECTED; 2: whoever has,
 * without waiting for anybody: they go on with memory that has no name any more. What a dead maker
 * has left half made is removed as well; but one in which not even a version stands could be
 * somebody else's, so it is removed only while nobody has it attached. TREL_RC_SEGMENT_FOREIGN: not
 * a segment of this library, or one of another version; it stays. TREL_RC_SEGMENT_ABSENT: there is
 * none. TREL_RC_SEGMENT_FORBIDDEN: the caller may not look at it, or not remove it. */
TREL_API uint32_t trelRemoveStatusSegment(const PLATIPCResID* key, uint32_t mode);

/* Sets owner, group and access bits of the segment. In access mode 3 there is nothing to set. */
TREL_API uint32_t trelAuthorizeStatusSegment(ShmSegInfo_t* seg, const SegSecurity_t* security);

/* Ends the segment for everybody, and sets *segInfo to null. countMode 1: while this process has
 * further attaches, only counts one down; 2: at once. freeMode 2: whoever is connected; 1: with
 * other processes connected TREL_RC_DOMAIN_CONNECTED, and the pool goes by poolFreeMode (3 counted,
 * 4 forced). With freeMode 2 it also ends an attachment to a segment that was deleted
 * meanwhile, and can be repeated after a failure. The nodes are not visited.
 *
 * The key goes first. Without the right to remove it TREL_RC_SEGMENT_DESTROY, and nothing has
 * changed; nor has it where others are connected. Counts that processes have left behind when they
 * died do not count, once the system knows of one attachment and this process has one handle. */
TREL_API uint32_t trelDeleteStatusSegment(ShmSegInfo_t** segInfo, uint32_t poolFreeMode,
                                          uint32_t freeMode, uint32_t countMode);

/* ---- Attach and detach. ---- */

/* Attaches the segment of that key and delivers its top node, checked: initialised, active or
 * disassociated, and of the tag that the domain header names. *top is filled also where a later
 * check fails. Failures that are of no use to a reader are all TREL_RC_CONNECT; these tell what is
 * wrong with the key: TREL_RC_SEGMENT_ABSENT, TREL_RC_SEGMENT_FORBIDDEN, TREL_RC_SEGMENT_FOREIGN,
 * TREL_RC_SEGMENT_HALF_MADE, TREL_RC_NO_TREE, TREL_RC_SEGMENT_LIMIT. */
TREL_API uint32_t trelConnectToATree(ShmSegInfo_t** segInfo, SNodeCB_t** node, TopNodeInfo_t* top,
                                     const PLATIPCResID* key, uintptr_t address,
                                     const ShmDomainParam_t* domainParam,
                                     const ShmPoolParam_t* poolParam);
/* The same for who only looks. It asks for the right to read alone (mode 640 or 644), takes no
 * latch and writes nothing, so it neither slows nor damages anybody, and its death leaves nothing
 * behind. Segments that are met on the way are attached likewise. What would write or take a latch,
 * or delete the segment, gives TREL_RC_READING_ONLY at once; a store by the caller's own pointer is
 * a fault. A segment that this process holds for writing already serves. An attach for writing of
 * one that is held for reading maps it once more, with a record of its own; by its key that one is
 * found first. Undone by the detaches below.
 *
 * What works then: values and RC by key and by held record, counts, listings, finds, attributes of
 * nodes, the condition, trelIsStillBeingUpdated, parents, dependents, searches, sums and walks;
 * figures, user areas, reports and dumps of domain and pool, finds and prints of their lists,
 * descriptions and the publisher; trelCopyNode and trelCopyTreeRecursively out of it, into process
 * memory or into a segment held for writing. trelCopyTreeIntoSingleShmSegment ends its source, so
 * it is refused; so are the latches, for reading too, and what asks to be called under one. Pass
 * inCriticalSection 0. trelAuthorizeStatusSegment is between the caller and the kernel.
 *
 * A read answers from one instant at which nobody wrote to that node or heap; it does not wait for
 * somebody inside a read section, and two reads are of two instants. Where there is no such instant
 * for 200 ms, since a writer stays inside or died there: TREL_RC_WRITER_INSIDE. Try again: who may
 * write repairs after a death when he comes next. */
TREL_API uint32_t trelConnectToATreeForReading(ShmSegInfo_t** segInfo, SNodeCB_t** node,
                                               TopNodeInfo_t* top, const PLATIPCResID* key,
                                               uintptr_t address,
                                               const ShmDomainParam_t* domainParam,
                                               const ShmPoolParam_t* poolParam);
/* trelConnectToATree with the code as it was raised. A failure leaves the attach count as it was;
 * *node is null after a failure that came behind the attach. */
TREL_API uint32_t trelAttachToTopNode(ShmSegInfo_t** segInfo, SNodeCB_t** node, TopNodeInfo_t* top,
                                      const PLATIPCResID* key, uintptr_t address,
                                      const ShmDomainParam_t* domainParam,
                                      const ShmPoolParam_t* poolParam);

/* Attaches the segment: by key, or in access mode 3 at the address. poolOffset 0: the pool that the
 * domain header names; TREL_RC_NO_TREE if it names none, whatever newPoolSize says. Access mode 3
 * with the slot in use ignores the address. A segment marked for deletion gives
 * TREL_RC_DOMAIN_MARKED, also where this process holds it already. One that was deleted meanwhile,
 * or made anew under its key: where only walks have attached it here, they are detached and the new
 * one is attached; where explicit attaches count, TREL_RC_DOMAIN_STATE until they are undone. More
 * attaches than can be counted: TREL_RC_ATTACH_COUNT_FULL. */
TREL_API uint32_t trelAttachStatusSegment(ShmSegInfo_t** segInfo, const PLATIPCResID* key,
                                          uintptr_t address, uint32_t poolOffset,
                                          uint32_t newPoolSize, const ShmDomainParam_t* domainParam,
                                          const ShmPoolParam_t* poolParam);

/* Undoes one attach (detachMode 1) or all of this process (2). *segInfo becomes null when the
 * attachment ends. Forced, it also ends an attachment to a segment that another process deleted. */
TREL_API uint32_t trelDetachFromTopNode(ShmSegInfo_t** segInfo, uint32_t detachMode);
TREL_API uint32_t trelDetachStatusSegment(ShmSegInfo_t** segInfo, uint32_t detachMode);

/* Delivers the node that a record names, attaching its segment if this process does not hold it.
 * The segment stays attached, with a count of 1; where it was held already, the count stays. Other
 * threads may detach it meanwhile: it stays mapped until the call ends, no longer. A node that is
 * not active gives the code of its condition: with *node set, unless this call had attached the
 * segment, for then it has detached again and *node is null. */
TREL_API uint32_t trelAttachToNode(const SNodeInfo_t* record, SNodeCB_t** node);

/* The same, and delivers the attachment. Bit 64 of options keeps the caller in the segment
 * `current`: *otherSegment gets 1 for a node of another segment, else 0. If that other segment is
 * not attached, it stays so: success, *segInfo is `current` and *node null. Without the bit
 * *otherSegment is left alone, and current may be null. The tag is tested only where *otherSegment
 * is 0. */
TREL_API uint32_t trelAttachToNodeAndGetSegInfo(const SNodeInfo_t* record, SNodeCB_t** node,
                                                ShmSegInfo_t** segInfo, ShmSegInfo_t* current,
                                                uint32_t* otherSegment, uint32_t options);

/* Detaches the segment of the node that the record names. A segment that is not attached is a
 * success. */
TREL_API uint32_t trelDetachFromNode(const SNodeInfo_t* record, uint32_t detachMode);

/* From now on the segment refuses new attaches; those who hold it go on. */
TREL_API uint32_t trelMarkStatusSegmentForDeletion(ShmSegInfo_t* segInfo);

/* The attach count of this process. operation 1 adds one, 2 takes one, but never the last. */
TREL_API uint32_t trelUpdateShmAttachRefCount(ShmSegInfo_t* segInfo, uint32_t operation);
TREL_API uint32_t trelGetShmAttachRefCount(ShmSegInfo_t* segInfo, uint32_t* count);

/* Frees a record that is neither listed nor in the slot, with both its handles, without
 * disconnecting. The segment stays mapped: whoever is to unmap it takes ipcMemory from the domain's
 * handle before. */
TREL_API uint32_t trelDestroySegInfoAndHandles(ShmSegInfo_t** segInfo);

/* ---- From records to nodes. ---- */

/* The node that the record names, in this process. TREL_RC_NOT_ATTACHED if its segment is not held.
 * A record in process memory must have segBase set. A record that leads out of its segment gives
 * TREL_RC_BLOCK_OUTSIDE_POOL, one whose node would not lie in the segment
 * TREL_RC_TOP_NODE_BOUNDS. */
TREL_API uint32_t trelGetControlBlockPtrFromSNodeInfo(const SNodeInfo_t* record, SNodeCB_t** node);
/* For a tree in process memory, whose records hold addresses. */
TREL_API uint32_t trelGetControlBlockPtrFromSNodeInfoInPM(const SNodeInfo_t* record,
                                                          SNodeCB_t** node);
/* As the first, and delivers the attachment. With bit 64 of options *otherSegment becomes 1 if that
 * is another segment than `current`, else 0. */
TREL_API uint32_t trelGetShmSegInfoPtrUsingSNodeInfo(const SNodeInfo_t* record, SNodeCB_t** node,
                                                     ShmSegInfo_t** segInfo, ShmSegInfo_t* current,
                                                     uint32_t* otherSegment, uint32_t options);
TREL_API uint32_t trelGetTopNodeCBPtrFromShmSegInfo(ShmSegInfo_t* segInfo, SNodeCB_t** node);

/* The top node in the domain's header, read and written under heapLatch. The outs of the read are
 * set also where the values turn out to be out of bounds. Offsets count from the segment base and
 * are tested against the size of the domain, so that in a domain with a non-zero heapOffset a node
 * or pool near its end is refused (TREL_RC_TOP_NODE_BOUNDS, TREL_RC_TOP_POOL_BOUNDS). */
TREL_API uint32_t trelGetTopNodeInfoFromDomainHeader(ShmDomainHandle_t* domain, uint64_t* tag,
                                                     uint64_t* nodeOffset, uint32_t* poolOffset);
TREL_API uint32_t trelPutTopNodeInfoIntoDomainHeader(ShmDomainHandle_t* domain, uint64_t tag,
                                                     uint64_t nodeOffset, uint32_t poolOffset);

/* The record of a node's parent, and the parent's identifier, in place. *id is written only where
 * *idSize is not 0. No latch. */
TREL_API uint32_t trelGetParentNodeLocation(SNodeCB_t* node, SNodeInfo_t** parent);
TREL_API uint32_t trelGetParentNodeIdentifier(SNodeCB_t* node, uint64_t* idSize, uint8_t** id);

TREL_END_C
#endif
