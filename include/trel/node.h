/* Status nodes: creation, critical sections, lifecycle, heartbeat, attributes.
 *
 * A node is made by trelCreateNode (in a segment) or trelCreateNodeInPM (in process memory), filled
 * by trelInitNode, published by trelActivateNode. All operations work alike on both kinds.
 *
 * inCriticalSection, the last argument of many operations: 0, and the operation enters and leaves
 * the node's critical section by itself; not 0, and the caller is inside already. Several calls can
 * so be put under one hold of the latch. The latch is not recursive.
 *
 * An operation that changes nothing but what the caller's pointers lead to ("takes the read
 * section") looks at the node without its latch, and looks again if a writer came in between; only
 * where writers leave it no gap does it take the latch. So whatever it gives stood together at one
 * moment, and it disturbs no writer. It does not wait for somebody inside a read section, who must
 * not change anything: whoever changes a node enters it for writing. A buffer of the caller's may
 * hold other bytes within its size until the call returns.
 *
 * On a segment that is attached for reading only these operations work, and wait at most 200 ms for
 * a writer: then TREL_RC_WRITER_INSIDE. All that write, and the entries below, give
 * TREL_RC_READING_ONLY.
 *
 * Operations return 0 or a TREL_RC_ code, the first failure. Unless told otherwise a failure writes
 * nothing, and a node pointer of null gives TREL_RC_NODE_NULL. */
#ifndef TREL_NODE_H
#define TREL_NODE_H

#include "trel/records.h"

TREL_BEGIN_C

/* Makes a node of 2908 bytes and the 64 section sizes in process memory, in condition
 * TREL_CONDITION_CREATED and concurrency model 1. exports: the export bits of the sections it has.
 * sizes[k] belongs to export bit 2^(k + 1): sizes[0] to TREL_EXPORT_ID, 0x2, sizes[10] to
 * TREL_EXPORT_DEPENDENT, 0x800.
 * Each size is at most 0x4000000, the node at most 0x8000000 bytes. *nodeSize gets the total, also
 * where a wrong version or a lack of memory makes the call fail; *nodeOffset gets the address of
 * the block, so that the node's base is 0. version and latchVersion: TREL_STRUCTURE_VERSION. The
 * block is freed with _platMemFree. */
TREL_API uint32_t trelCreateNodeInPM(SNodeCB_t** node, uint64_t exports, const uint64_t sizes[64],
                                     uint64_t* nodeSize, uint64_t* nodeOffset, uint32_t version,
                                     uint32_t latchVersion);

/* The same in the pool of a segment; *nodeOffset is the offset from the segment's base. Takes the
 * pool's latch for the test of its free bytes and again for the block, no node latch. A caller who
 * holds that latch gets TREL_RC_LATCH. *nodeSize is written also where there is no block. */
TREL_API uint32_t trelCreateNode(ShmSegInfo_t* segInfo, SNodeCB_t** node, uint64_t exports,
                                 const uint64_t sizes[64], uint64_t* nodeSize,
                                 uint64_t* nodeOffset);

/* Gives a node's block back to its pool and sets *node to null. No test of the node's condition:
 * the caller owns the node. For nodes in pools only. Takes the write section, waits for whoever is
 * inside and never leaves it: others that wait there, or come later, get TREL_RC_LATCH, or
 * TREL_RC_CONDITION. The caller must not be inside. A failure leaves the node as it was; a death in
 * here leaves the node or nothing that is taken for one. */
TREL_API uint32_t trelDisclaimNode(SNodeCB_t** node, ShmPoolHandle_t* pool, uint32_t version);

/* Fills the node: header, options, and of the sections those that its exports name. maxIdSize, at
 * most 4096 and rounded up to 8, holds for the node's own identifier and for its parent's. The
 * record of the parent is copied, and the caller's left as it was; parentId holds parent->idSize
 * bytes, record24 24. An argument whose section the node lacks is not looked at. A section too
 * small for what is to be written gives TREL_RC_SLOT_USED, with the node untouched. May run again
 * on any node, and then resets what it writes; it may change the concurrency model. Takes the write
 * section. */
TREL_API uint32_t trelInitNode(SNodeCB_t** node, uint64_t nodeOffset, uint64_t idSize,
                               const uint8_t* id, SNodeInfo_t* parent, const uint8_t* parentId,
                               uint64_t maxIdSize, const uint8_t* record24,
                               const HdmModuleRecord_t* module, const NodeOptions_t* options);

/* Concurrency model, 0 to 5, without any latch. The read writes *model also where it refuses it. */
TREL_API uint32_t trelSetConcurrencyModel(SNodeCB_t* node, uint32_t model);
TREL_API uint32_t trelReturnConcurrencyModel(SNodeCB_t* node, uint32_t* model);

/* Makes a latch area ready under model 1; does nothing under the others. */
TREL_API uint32_t trelInitializeLatches(SNodeCB_t* node, LatchArea_t* area, uint32_t latchVersion);

/* The slot of an export bit. *slot is written before the slot is tested. No latch. */
TREL_API uint32_t trelGetPExportPointer(ExportSlot_t** slot, SNodeCB_t* node, uint32_t exportBit);

/* The node's export bits. Takes the read section; active and disassociated nodes only. */
TREL_API uint32_t trelReturnExports(SNodeCB_t* node, uint64_t* exports);
/* Bytes of a register value: 4. Takes the read section; initialised nodes too. */
TREL_API uint32_t trelReturnRegisterSize(SNodeCB_t* node, uint64_t* size);

/* Critical sections. By the latch always, for reading too. area is &node->nodeLatchArea. Model 1:
 * the latch, for readers and writers alike; a write also marks the area. Other models: nothing.
 * Whoever enters must leave, on the same thread, and must not change the model in between. */
TREL_API uint32_t trelEnterCriticalSectionBeforeRead(SNodeCB_t* node, LatchArea_t* area);
TREL_API uint32_t trelExitCriticalSectionAfterRead(SNodeCB_t* node, LatchArea_t* area);
TREL_API uint32_t trelEnterCriticalSectionBeforeWrite(SNodeCB_t* node, LatchArea_t* area);
TREL_API uint32_t trelExitCriticalSectionAfterWrite(SNodeCB_t* node, LatchArea_t* area);

/* The node's condition, without a latch. *condition is written also where TREL_RC_CONDITION says
 * that it is none. */
TREL_API uint32_t trelGetNodeCondition(SNodeCB_t* node, uint32_t* condition);
/* Tests the condition against a mask of bits 1 << condition, without a latch. Active passes any. */
TREL_API uint32_t trelCheckNodeCondition(SNodeCB_t* node, uint32_t mask);

/* Change the condition in a write section. Any node but one that is only created can be made
 * active, abandoned ones included. */
TREL_API uint32_t trelActivateNode(SNodeCB_t** node);
TREL_API uint32_t trelAbandonNode(SNodeCB_t** node);
TREL_API uint32_t trelDisassociateNode(SNodeCB_t** node);

/* Replaces the options, in a write section. The default condition here is active. */
TREL_API uint32_t trelSetNodeOptions(SNodeCB_t* node, const NodeOptions_t* options);

/* The publisher's heartbeat: counts, or stores the tick. Active nodes only. Write section. */
TREL_API uint32_t trelUpdateNodeStatus(SNodeCB_t* node);

/* The observer's test. 0: the publisher has shown life, and the record has moved on. By counter:
 * TREL_RC_NO_UPDATE if the counter is that of the record. By time: TREL_RC_UPDATE_TOO_OLD if the
 * last update is more than twice updateInterval ago, or if the record has seen it stand still for
 * that long. The tick is 16 bits of tenths of a second and wraps every 109 minutes. So a look just
 * behind the wrap calls a living publisher too old: believe two looks in a row. Around each later
 * wrap the tick calls a dead one young: there the record knows better, if the observer looks at
 * least once in 109 minutes and keeps one record for each node. Read section; a failure leaves
 * seenCounter and seenTick. One record serves one thread at a time. */
TREL_API uint32_t trelIsStillBeingUpdated(SNodeCB_t* node, WatchRecord_t* record);

/* Changes of the node's structure so far. No latch, no test of the condition. */
TREL_API uint32_t trelGetNodeReconfigCounter(SNodeCB_t* node, uint64_t* counter);

/* Size and tag, in initialised, active and disassociated nodes. Takes the read section. A size that
 * is none, or more than is mapped: TREL_RC_NODE_SIZE. */
TREL_API uint32_t trelGetNodeSize(SNodeCB_t* node, uint64_t* size, uint64_t inCriticalSection);
TREL_API uint32_t trelGetNodeTag(SNodeCB_t* node, uint64_t* tag, uint64_t inCriticalSection);
/* The same nodes. Write section. */
TREL_API uint32_t trelSetNodeTag(SNodeCB_t* node, uint64_t tag, uint64_t inCriticalSection);

/* The identifier in place: *id points into the node, and stays good as long as the node lives.
 * Active, abandoned and disassociated nodes. Takes the read section; who reads the bytes while
 * others may rename the node enters it first. */
TREL_API uint32_t trelGetNodeID(SNodeCB_t* node, uint8_t** id, uint64_t* idSize,
                                uint64_t inCriticalSection);
/* Rewrites the identifier, in initialised, active and disassociated nodes. TREL_RC_SLOT_USED if it
 * does not fit the section. Write section. */
TREL_API uint32_t trelSetNodeID(SNodeCB_t* node, const uint8_t* id, uint64_t idSize,
                                uint64_t maxIdSize, uint64_t inCriticalSection);

TREL_END_C
#endif
