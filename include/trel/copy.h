/* Copies of nodes and trees.
 *
 * A node's block cannot grow. A node or tree whose limits are to change is rebuilt elsewhere: its
 * lists are made empty, and each property is read from the source and added to the copy. So a copy
 * is compact: no free records, no freed list nodes. A section keeps its size unless the limit of
 * its list is to change, so that a full segment fits one of its own size; a list that is empty for
 * the moment keeps its room. Not carried over: the rc of each property, which starts at 0, and
 * reconfigCounter, which counts what the copy did.
 *
 * Operations return 0 or a TREL_RC_ code, the first failure. Pointers that are not said to be null
 * may not be; outs that are not named keep what they held when an operation fails. */
#ifndef TREL_COPY_H
#define TREL_COPY_H

#include "trel/records.h"

TREL_BEGIN_C

/* copyDirection */
#define TREL_COPY_SHM_TO_PM 1u
#define TREL_COPY_PM_TO_SHM 2u
#define TREL_COPY_SHM_TO_SHM 3u

/* copyLimits */
#define TREL_COPY_LIMITS_KEEP 1u
/* exports and limits from the source's change list, if the source has one that was filled. Its
 * words are new maxima of R, V, IR, IV and of dependents; one below what the source holds is passed
 * over, and so is a word of 0, but where trelCopyNode meets a property list without a property. */
#define TREL_COPY_LIMITS_CHANGE_LIST 2u

/* copyDependents */
#define TREL_COPY_DEPENDENTS_EMPTY 17u /* an empty list, and a record that names the copy */
#define TREL_COPY_DEPENDENTS_SAME 18u  /* the same entries: they go on naming the same nodes */

/* copyMethod of a tree copy */
#define TREL_TREE_COPY_DIRECT 1u
#define TREL_TREE_COPY_VIA_PM 2u
#define TREL_TREE_COPY_VIA_SEGMENT 3u

/* copyFlags of a tree copy: these, and 1 << condition for each condition whose nodes are copied. A
 * node that they leave out is left out with all below it. */
#define TREL_TREE_COPY_ALL 0x1u
#define TREL_TREE_COPY_STAY_IN_SEGMENT 0x40u /* leave out dependents in other segments */

/* Written as the marker of a tree copy for a node that is abandoned or left out. */
#define TREL_TREE_COPY_LEFT_OUT 153u

/* The maximum identifier size stored in the node, 0 without an identifier section. kind:
 * TREL_EXPORT_ID. No latch. A failure leaves *size. */
TREL_API uint32_t trelGetMaxIDSizeForStatusNode(SNodeCB_t* node, uint32_t kind, uint64_t* size);

/* The 64 section sizes for trelCreateNode, and the size of the node, in bytes, from limits. The
 * section with export bit 2 << n has sizes[n]: 0 identifier, 1 record of 24 bytes, 2 module, 3
 * parent, 4 Base R, 5 Base V, 6 R, 7 V, 8 IR, 9 IV, 10 dependents, 11 change list; all others
 * become 0. Of a section whose bit is not in exports nothing is looked at. maxR, maxV, maxIR and
 * maxIV count properties; 0 is allowed. hashR and its like: 1 for a list in hash form, 0 for a flat
 * one. maxVSize serves V and Base V. ...TableSize: as wanted, a prime from there on is taken. A
 * failure leaves the array filled up to the slot that failed, and *total the sum so far. */
TREL_API uint32_t trelCreateMaxSpaceArray(
    uint64_t exports, uint64_t maxR, uint64_t hashR, uint64_t maxV, uint64_t maxVSize,
    uint64_t hashV, uint64_t maxIR, uint64_t irTagTableSize, uint64_t irIdTableSize,
    uint64_t maxIRIdSize, uint64_t hashIR, uint64_t maxIV, uint64_t ivTagTableSize,
    uint64_t ivIdTableSize, uint64_t maxIVIdSize, uint64_t maxIVSize, uint64_t hashIV,
    uint64_t maxNodeIdSize, uint64_t maxDependents, uint64_t sizes[64], uint64_t* total);

/* Makes a copy of src: in the pool of dstSegInfo, or in direction 1 in process memory. srcSegInfo
 * may be null in direction 2, dstSegInfo in direction 1. src is held in its read section for the
 * whole copy, so that the copy is one state of it. *dst is written as soon as the block exists: a
 * failure leaves the block, partly filled, to the caller.
 *
 * parent...: fields of the parent record that the copy stores. hdmModule (null: an empty path),
 * *nodeTag, *idSize, id: what the record that led to src says of it. *maxIdSize: the maximum of the
 * list that src stands on, and of the copy's own list of dependents.
 *
 * With TREL_COPY_DEPENDENTS_EMPTY *info becomes a record that names the copy, for a list of
 * dependents in the same memory; idOut, *idSizeOut and *maxIdSizeOut repeat the name. In direction
 * 1 its offsets are addresses, with the module on the HDM list in process memory. With
 * TREL_COPY_DEPENDENTS_SAME *info gets nodeOffset, nodeTag and idSize of the copy alone; of the
 * record that led to src only *maxIdSize is read. idOut: room for *idSize bytes, may be id. *info,
 * idOut and the sizes are written when the copy stands; *nodeSize is the size of its block.
 *
 * A section that was never filled stays so in the copy, and keeps its size. A list in hash form is
 * made for as many properties as its count reports, which can be a few more than it was made for,
 * so this copy alone can be larger than its source. A node that is not yet active and has
 * properties cannot be copied. */
TREL_API uint32_t trelCopyNode(ShmSegInfo_t* srcSegInfo, ShmSegInfo_t* dstSegInfo, SNodeCB_t* src,
                               SNodeCB_t** dst, uint64_t parentNodeOffset,
                               uint64_t parentSegInfoOffset, uint64_t parentHdmInfoOffset,
                               uint64_t parentSegBase, const HdmModuleRecord_t* hdmModule,
                               const uint64_t* nodeTag, const uint64_t* idSize,
                               const uint64_t* maxIdSize, const uint8_t* id, SNodeInfo_t* info,
                               uint8_t* idOut, uint64_t* idSizeOut, uint64_t* maxIdSizeOut,
                               uint64_t* nodeSize, uint32_t copyDirection, uint32_t copyLimits,
                               uint32_t copyDependents);

/* The second half of it: fills dst, a fresh block whose sections fit `limits`. The caller holds the
 * read section of src; the write section of dst is taken. dstSegInfo: null for a copy in process
 * memory. A failure leaves dst partly filled. */
TREL_API uint32_t trelCopyNodeData(
    SNodeCB_t* src, SNodeCB_t* dst, uint64_t parentNodeOffset, uint64_t parentSegInfoOffset,
    uint64_t parentHdmInfoOffset, uint64_t parentSegBase, uint64_t nodeOffset,
    const NodeCopyLimits_t* limits, const HdmModuleRecord_t* hdmModule, const uint64_t* nodeTag,
    const uint64_t* idSize, const uint64_t* maxIdSize, const uint8_t* id, SNodeInfo_t* info,
    uint8_t* idOut, uint64_t* idSizeOut, uint64_t* maxIdSizeOut, ShmSegInfo_t* dstSegInfo);

/* Replaces a tree, which may span segments, by a compact copy in one new segment; then abandons the
 * old tree and deletes the segment of its top. *srcSeg becomes null with that; what else the tree
 * had stays attached, with its nodes abandoned. The top may not be abandoned itself, and needs a
 * list of dependents (TREL_RC_TOP_NO_DEPENDENTS).
 *
 * copyMethod: TREL_TREE_COPY_DIRECT, into a new segment of the key given. _VIA_PM, by way of
 * process memory into one of the key given, or if that is null of the source's key, at the source's
 * address in access mode 3. _VIA_SEGMENT, by way of a temporary segment of the key given into one
 * of the source's key. Whoever takes the source's key takes its access mode too.
 *
 * A process may be killed anywhere: DIRECT and _VIA_SEGMENT leave a whole tree under at least one
 * of the two keys, the temporary one for as long as the source's has none. _VIA_PM does not: from
 * the deletion of the source until the new segment is filled the only copy is in process memory and
 * dies with it. Prefer _VIA_SEGMENT where the key is to stay. A key that a death left
 * without a tree is freed by removing its segment.
 *
 * size, address, poolSize, domainParam, poolParam: as in trelGetProtectedStatusSegment, but that a
 * poolSize equal to the heapSize of the source's pool asks for a pool of the same size;
 * permissions, owner and group are by default those of the source. maxDepth: levels to copy and to
 * abandon, the top among them; 0: no limit; at most 32768. *totalSize: the nodes' bytes in the last
 * pass.
 *
 * TREL_RC_TREE_NOT_COPIED: there is no copy, and the source is usable; so also for a key that is
 * taken. TREL_RC_TREE_COPY_CLEANUP: the copy stands, with *newTop and *dstSeg, and what comes after
 * it failed. *dstSeg is null after other failures, but untouched where method or key are refused.
 * *newTop is null after failures, but for those below and those of the arguments, which leave it.
 *
 * The only copy of a tree is never deleted. If _VIA_SEGMENT fails once the source is gone, the tree
 * is found under the temporary key, detached. If _VIA_PM does, *newTop is the top of the tree in
 * process memory: trelCopyTreeRecursively takes it to a segment in direction 2, and its nodes,
 * whose records hold addresses, are freed with _platMemFree, their modules with
 * trelDeleteHDMPMLList.
 *
 * The source goes on being read and written meanwhile. Each node of the copy, with its list of
 * dependents, is one state of its source; what is written to a node after its turn, and before it
 * is abandoned, is lost. Held for each pass: the heapLatch of the source's domain, and inside it
 * each node's section in turn. Others connect to other segments meanwhile, and to the source behind
 * the pass; what the pass looks at stays mapped even if it is detached. One copy _VIA_PM in a
 * process at a time. */
TREL_API uint32_t trelCopyTreeIntoSingleShmSegment(
    SNodeCB_t* srcTop, SNodeCB_t** newTop, ShmSegInfo_t** srcSeg, ShmSegInfo_t** dstSeg,
    uint32_t size, const PLATIPCResID* key, uintptr_t address, uint32_t poolSize,
    const ShmDomainParam_t* domainParam, const ShmPoolParam_t* poolParam, uint32_t copyFlags,
    uint32_t copyMethod, uint32_t copyLimits, uint64_t maxDepth, uint64_t* totalSize);

/* Copies one node, which lies at `depth` of the tree, and what is below it, and links the copies.
 * topSegInfo: the segment of the walk's top. reserved: 0. Segments are attached as they turn up and
 * stay so. *marker: TREL_TREE_COPY_LEFT_OUT, with success and no copy, for a node that is abandoned
 * or left out; else untouched. *totalSize grows by the size of each copy. *newNode is written when
 * that node is copied, and stays after a failure further down: whatever hangs below it is the
 * caller's to dispose of. *info names the copy as in trelCopyNode; *maxIdSize is only handed on to
 * *maxIdSizeOut, since each list keeps its own maximum. A dependent that is deleted meanwhile is
 * passed over. The source of direction 2 is left whole. A tree of more than 32768 levels gives
 * TREL_RC_DEPTH_LIMIT. */
TREL_API uint32_t trelCopyTreeRecursively(
    SNodeCB_t* node, SNodeCB_t** newNode, ShmSegInfo_t* srcSegInfo, ShmSegInfo_t* dstSegInfo,
    ShmSegInfo_t* topSegInfo, uint32_t reserved, uint32_t copyFlags, uint32_t copyDirection,
    uint32_t copyLimits, uint64_t parentNodeOffset, uint64_t parentSegInfoOffset,
    uint64_t parentHdmInfoOffset, uint64_t parentSegBase, const HdmModuleRecord_t* hdmModule,
    const uint64_t* nodeTag, const uint64_t* idSize, const uint64_t* maxIdSize, const uint8_t* id,
    SNodeInfo_t* info, uint8_t* idOut, uint64_t* idSizeOut, uint64_t* maxIdSizeOut,
    uint32_t* marker, uint64_t* totalSize, uint64_t depth, uint64_t maxDepth);

/* Replaces a node by a copy that has room for `wanted` dependents, at least for as many as before
 * and at most 32768; 0 keeps the present capacity. The node needs a change list section, and its
 * parent's entry must lead to it, else TREL_RC_DEPENDENT_ABSENT. oldSegInfo is the segment of the
 * node and of its parent, newSegInfo that of the copy; they may be the same.
 *
 * The node is disassociated and marked, copied, its entry in the parent pointed at the copy, which
 * is active by then. Meanwhile searches that meet the node answer TREL_RC_BEING_RECREATED, and so
 * does another recreation or a deletion of it. After a death in here whoever meets the node puts it
 * in order. The old node stays, disassociated and marked, until its owner deletes it. The parent
 * records of its children still name it: the caller renews them. A failure undoes nothing: the node
 * stays marked, and from the copy on *newNode is set. */
TREL_API uint32_t trelRecreateNodeWithMoreDepNodes(SNodeCB_t** node, SNodeCB_t** newNode,
                                                   ShmSegInfo_t* oldSegInfo,
                                                   ShmSegInfo_t* newSegInfo, uint64_t wanted,
                                                   uint64_t* size);

TREL_END_C
#endif
