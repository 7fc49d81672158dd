/* Trees of nodes: names, dependents and parents, searches, walks, deletion, wishes for new limits.
 *
 * A node's name is its tag and an identifier: up to 4096 bytes with a size and no terminator. A
 * node keeps a list of dependents, SNodeInfo_t records with their identifiers; each record says
 * where in which segment a dependent lies. A record with nodeTag 0 is a vacant entry of the list.
 * Where an identifier size of 0 is given for a name that is sought, the tag alone decides.
 *
 * Operations return 0 or a TREL_RC_ code, the first failure. Unless told otherwise a failure writes
 * nothing, a node pointer of null gives TREL_RC_NODE_NULL, and inCriticalSection is as in node.h.
 */
#ifndef TREL_TREE_H
#define TREL_TREE_H

#include "trel/records.h"

TREL_BEGIN_C

/* ---------------------------------------------------------------------------------------------
 * Names
 *
 * A memory record is the address of a 32-bit word that holds TREL_STRUCTURE_VERSION; that of a
 * ShmSegInfo_t serves. It is null or wrong: TREL_RC_HANDLE_VERSION.
 * ------------------------------------------------------------------------------------------- */

/* Packs 1 to 0x8000 zero-terminated strings, each of at most maxSize bytes (0 to 4096), into two
 * blocks: *sizes with the size of each, *bytes with all bytes back to back. exportBit says whose
 * names they are: TREL_EXPORT_ID or _DEPENDENT for nodes, _IR or _IV for properties. */
TREL_API uint32_t trelCreateID(uint8_t** bytes, uint64_t** sizes, const char* const* strings,
                               uint64_t maxSize, uint64_t count, uint32_t exportBit,
                               const void* memoryRecord);
/* Frees both blocks and sets the pointers to null. */
TREL_API uint32_t trelDeleteID(uint8_t** bytes, uint64_t** sizes, const void* memoryRecord);

/* Compare identifiers, and names: the tag decides, then the size of the identifier, then its bytes.
 * *result is negative, 0 or positive. Identifiers must not be null, whatever their size, and have
 * at most 4096 bytes. exportBit says whose names they are: TREL_EXPORT_ID, _IR, _IV, _DEPENDENT,
 * and for identifiers alone _PARENT. */
TREL_API uint32_t trelCompareID(const uint8_t* a, uint64_t sizeA, const uint8_t* b, uint64_t sizeB,
                                uint32_t exportBit, int32_t* result);
TREL_API uint32_t trelCompareTagID(uint64_t tagA, const uint8_t* a, uint64_t sizeA, uint64_t tagB,
                                   const uint8_t* b, uint64_t sizeB, uint32_t exportBit,
                                   int32_t* result);

/* Prints an identifier on standard output, a dot for each byte outside 32 to 126, no line end. */
TREL_API uint32_t trelPrintID(const uint8_t* id, uint64_t size);

/* A path for trelFindNodeHard: an array of 1 to 0x100000 records, made from tags and
 * zero-terminated strings of at most 4096 bytes. maxSize (0 to 4096) does not limit them. */
TREL_API uint32_t trelCreateTraverseInfoArray(TraverseInfo_t** path, const uint64_t* tags,
                                              const char* const* strings, uint64_t maxSize,
                                              uint64_t count, const void* memoryRecord);
/* Frees the array with the identifiers of its first `count` records, and sets *path to null. */
TREL_API uint32_t trelDeleteTraverseInfoArray(TraverseInfo_t** path, uint64_t count,
                                              const void* memoryRecord);

/* Turns the bytes round, in place. */
TREL_API void trelReverseByteSequence(uint8_t* bytes, uint32_t size);

/* ---------------------------------------------------------------------------------------------
 * Dependents and parents
 *
 * A record passed in is stored with the selfOffset of its place and the size of the identifier
 * passed beside it. Of the caller's record only idSize changes. Changes of a list raise the node's
 * reconfigCounter. A list holds at most 32768 dependents.
 * ------------------------------------------------------------------------------------------- */

/* Makes the list, empty or with `count` entries, and drops what it held. Each entry has room for an
 * identifier of maxIdSize bytes (0 to 4096, rounded up to 8); with 0 the list never shows an entry.
 * sizes and ids are what trelCreateID packs. Sets the node's export bit, which stays set also where
 * a later test refuses the records. Takes the write section; not for abandoned nodes. */
TREL_API uint32_t trelCreateDependentNodeList(SNodeCB_t* node, SNodeInfo_t* records,
                                              const uint64_t* sizes, const uint8_t* ids,
                                              uint64_t maxIdSize, uint64_t count,
                                              uint64_t inCriticalSection);

/* Fills a record in process memory, for the node at nodeOffset in nodeSegment, to be stored in
 * parentSegment. Enters the node's segment and its module (null: an empty path) on the shared lists
 * of the parent's segment, under the latch of that domain. `reserved` is not looked at. */
TREL_API uint32_t trelAddStatusNodeInfo(SNodeInfo_t* record, ShmSegInfo_t* parentSegment,
                                        ShmSegInfo_t* nodeSegment, uint64_t nodeOffset,
                                        uint64_t tag, uint64_t idSize, void* reserved,
                                        const HdmModuleRecord_t* module);

/* Adds an entry, at the first vacant place. The record's nodeTag is 1 to 0x100000. An entry of the
 * same name gives TREL_RC_DEPENDENT_PRESENT, but with addMode TREL_ADD_REPLACE it is overwritten.
 * An idSize of 0 with an id that is not null takes the record's idSize; without an identifier an
 * entry counts as the same if it has the tag. Takes the write section. */
#define TREL_ADD_REPLACE 16u
TREL_API uint32_t trelAddDependentNode(SNodeCB_t* node, SNodeInfo_t* record, const uint8_t* id,
                                       uint64_t idSize, uint64_t addMode,
                                       uint64_t inCriticalSection);

/* Writes the section that names the node's parent. TREL_RC_SLOT_USED if it is too small. Takes the
 * write section; active and disassociated nodes only. */
TREL_API uint32_t trelAddParentNode(SNodeCB_t* node, SNodeInfo_t* record, uint64_t idSize,
                                    const uint8_t* id);

/* Copies up to `length` (1 to 32768) entries out, in list order, with selfOffset 0 and segBase set,
 * and their identifiers to ids, idSlotSize bytes apart. Identifiers are copied whole, so slots must
 * take the largest. *returned gets the number of copies, *live that of all entries. Takes the read
 * section. A failure on the way leaves the copies made so far. */
TREL_API uint32_t trelReturnDependentNodes(SNodeCB_t* node, SNodeInfo_t* records, uint8_t* ids,
                                           uint64_t* returned, uint64_t* live, uint64_t length,
                                           uint64_t idSlotSize, uint64_t inCriticalSection);
/* Frees a block from _platMemAlloc and sets *block to null. */
TREL_API uint32_t trelDeleteDependentNodesArray(void** block);

/* How many entries the list holds, and how many it can hold. Takes the read section. */
TREL_API uint32_t trelReturnNumberOfDependentNodes(SNodeCB_t* node, uint64_t* live,
                                                   uint64_t* capacity, uint64_t inCriticalSection);

/* The stored entry of a name. Takes the write section. */
TREL_API uint32_t trelFindDependentNode(SNodeInfo_t** entry, SNodeCB_t* node, uint64_t tag,
                                        uint64_t idSize, const uint8_t* id,
                                        uint64_t inCriticalSection);

/* A walk by hand, without a latch: the first place and the counts, then one step to the next place.
 * Places may be vacant; walk until as many entries as there are live ones have been seen. *entry is
 * left alone for a list that never shows an entry. exportBit: TREL_EXPORT_DEPENDENT. */
TREL_API uint32_t trelGetMaxIDSizeForDependentNode(SNodeCB_t* node, uint32_t exportBit,
                                                   uint64_t* maxIdSize);
TREL_API uint32_t trelGetDependentNodesLocation(SNodeCB_t* node, SNodeInfo_t** entry,
                                                uint64_t* live, uint64_t* capacity);
TREL_API uint32_t trelGetNextDependentNodeLocation(SNodeCB_t* node, ExportSlot_t* slot,
                                                   SNodeInfo_t** entry);

/* ---------------------------------------------------------------------------------------------
 * Searches
 *
 * They start at the dependents of the given node, and give the stored record of what they find:
 * trelAttachToNode leads on from there. Active and disassociated nodes count; others are passed
 * over with all that lies below them. Segments on the way are attached, and stay so, but one that
 * was attached for a node that is passed over is detached again, and kept if another thread has
 * come to use it. A thread that detaches by itself must know that no other one searches there
 * without an attach of its own. A node under recreation ends a search with TREL_RC_BEING_RECREATED:
 * try again later. A depth limit (0 to 32768) of 0 means no limit; a path of more than 32768 nodes,
 * with the one at which the search starts, a cycle, or so many ways to the same nodes that no walk
 * would end, give TREL_RC_DEPTH_LIMIT.
 *
 * No latch is held while a list is read. A list that changes meanwhile is read again, with all that
 * lies below it, and at last from a copy, so that each list counts as it stood at some instant, and
 * no publisher makes a search fail by being busy. Changes of properties do not disturb it. What
 * goes on the way is passed over. A list in which a writer is inside for more than 100 ms ends the
 * search with TREL_RC_WRITER_INSIDE: try again. The trelSearch operations are the steps of those
 * that begin with trelFind. A failure leaves *found as it was.
 * ------------------------------------------------------------------------------------------- */

/* The first node of that name, depth first: an entry, what lies below it, then the next entry. */
TREL_API uint32_t trelFindNodeSoft(SNodeInfo_t** found, SNodeCB_t* node, uint64_t tag,
                                   uint64_t idSize, const uint8_t* id, uint64_t depthLimit);
TREL_API uint32_t trelSearchForNodeSoft(SNodeInfo_t** found, SNodeCB_t* node, uint64_t* foundCount,
                                        uint64_t tag, uint64_t idSize, const uint8_t* id,
                                        uint64_t depth, uint64_t depthLimit);

/* The node at the end of a path of one name for each level. The limit must be at least the length
 * of the path. */
TREL_API uint32_t trelFindNodeHard(SNodeInfo_t** found, SNodeCB_t* node, uint64_t pathLength,
                                   const TraverseInfo_t* path, uint64_t depthLimit);
/* Tests one entry: 0 if it has the name, TREL_RC_ENTRY_DIFFERS if not. *child gets the node behind
 * it, *slot the slot of that node's list, *hasList 1 if the node has a list, else 0. */
TREL_API uint32_t trelSearchForNodeHard(SNodeInfo_t* entry, SNodeCB_t** child, ExportSlot_t** slot,
                                        uint64_t* hasList, uint64_t tag, uint64_t idSize,
                                        const uint8_t* id);

/* All nodes of a tag, depth first. *total counts them; the first `length` (1 to 0x100000) of them
 * go to found, and *returned counts those; after a failure what was found so far. */
TREL_API uint32_t trelFindNodesByTag(SNodeCB_t* node, uint64_t tag, uint64_t depthLimit,
                                     uint64_t length, SNodeInfo_t** found, uint64_t* returned,
                                     uint64_t* total);
TREL_API uint32_t trelSearchForNodeByTag(SNodeInfo_t** found, SNodeCB_t* node, uint64_t tag,
                                         uint64_t length, uint64_t depth, uint64_t depthLimit,
                                         uint64_t* returned, uint64_t* total);

/* ---------------------------------------------------------------------------------------------
 * Walks over whole trees
 *
 * The given node is at depth 1; a depth limit (0 to 32768) of 0 means no limit. Children come
 * before their parent. A failure stops a walk where it is, and nothing is undone. Segments on the
 * way are attached, and stay so. What no walk would come to the end of gives TREL_RC_DEPTH_LIMIT,
 * as in searches. Sums read lists as searches do. Status operations, which change what they walk
 * over, go on from where they stand: what others take off a list, and what they move to a place
 * that was passed already, is passed over.
 * ------------------------------------------------------------------------------------------- */

/* What to do with a node. */
#define TREL_STATUS_ACTIVATE 3u
#define TREL_STATUS_ABANDON 4u
#define TREL_STATUS_DISASSOCIATE 5u
#define TREL_STATUS_DISCLAIM 6u
#define TREL_STATUS_UPDATE 7u

/* Which nodes: all, or those of the conditions given as 1 << condition. TREL_STATUS_UPDATE takes
 * 1 << TREL_CONDITION_ACTIVE for all nodes, and TREL_WALK_ALL has no meaning there. */
#define TREL_WALK_ALL 1u
#define TREL_WALK_ONE_SEGMENT 64u /* do not go into other segments */
/* With TREL_STATUS_DISCLAIM: take the top node off the list of its parent, right before it goes. */
#define TREL_WALK_REMOVE_TOP 128u

/* Applies a status operation to each selected node. TREL_STATUS_DISCLAIM removes the entry of each
 * node that goes, and abandoned nodes go whatever the options select; a selected node whose
 * children stay by selection, options or depth limit goes all the same. Several may delete in one
 * tree at once, and while others add to it: each node is given back by one of them, each in a write
 * section of its own, then its entry is removed in one of the parent's. A node that gets new
 * dependents over and over ends the walk with TREL_RC_KEEPS_CHANGING. After a kill the tree stands
 * as far as it was not yet deleted, perhaps with one abandoned node, which the next deletion takes;
 * the block of one node may stay allocated. */
TREL_API uint32_t trelSetStatusForEachNodeInATree(SNodeCB_t* node, ShmSegInfo_t* segment,
                                                  uint64_t depthLimit, uint32_t statusOperation,
                                                  uint32_t options);
/* Its step: *node becomes null if the node was disclaimed. otherSegment is not looked at. */
TREL_API uint32_t trelSetNodeStatusRecursively(SNodeCB_t** node, ShmSegInfo_t* segment,
                                               ShmSegInfo_t* walkSegment, uint32_t otherSegment,
                                               uint32_t statusOperation, uint32_t options,
                                               uint64_t depth, uint64_t depthLimit);

/* Adds up sizes and counts by condition, and counts the nodes of a tag, if it is not 0. After a
 * failure *info holds what was added so far. */
TREL_API uint32_t trelGetTreeInfo(SNodeCB_t* node, ShmSegInfo_t* segment, uint32_t options,
                                  uint64_t tag, uint64_t depthLimit, TreeInfo_t* info);
/* Its step, which adds to *info. otherSegment is not looked at. */
TREL_API uint32_t trelGetTreeInfoRecursively(SNodeCB_t* node, ShmSegInfo_t* segment,
                                             ShmSegInfo_t* walkSegment, uint32_t otherSegment,
                                             uint32_t options, uint64_t tag, uint64_t depth,
                                             uint64_t depthLimit, TreeInfo_t* info);

/* ---------------------------------------------------------------------------------------------
 * Deletion, and wishes
 * ------------------------------------------------------------------------------------------- */

/* Makes the entry of a name vacant; the child is left alone. The record gives the tag and the size
 * of the identifier. Takes the write section. */
TREL_API uint32_t trelDeleteDependentNode(SNodeCB_t* node, const SNodeInfo_t* record,
                                          const uint8_t* id, uint64_t inCriticalSection);

/* Removes the entry of the child that the record names, and gives the child and what lies below it
 * back to their pools, as trelSetStatusForEachNodeInATree does with TREL_STATUS_DISCLAIM. Without a
 * record the given node itself is the top of what goes. To be rid of the whole subtree select all
 * nodes: what is not selected stays, and then no entry leads to it any more. Who comes too late
 * gets TREL_RC_DEPENDENT_ABSENT, or TREL_RC_DEPENDENTS_EMPTY, and nothing is changed. The entry
 * goes first: a failure or a kill behind that leaves what was not yet given back allocated, and off
 * the tree. (By TREL_WALK_REMOVE_TOP the entry goes last.) */
TREL_API uint32_t trelDeleteDependentNodeAndSubtree(SNodeCB_t* node, const SNodeInfo_t* record,
                                                    ShmSegInfo_t* childSegment, uint64_t depthLimit,
                                                    uint32_t options);

/* Writes wishes for new limits into the node, for its next copy, and the present exports. Words 0
 * to 4: R, V, IR and IV properties, dependents, each at most 32768; a word of 0 leaves the stored
 * word as it is. `reserved` is not looked at. Takes the write section; not for abandoned nodes. */
TREL_API uint32_t trelExportListOfChangedProperties(SNodeCB_t* node, uint64_t reserved,
                                                    const uint32_t changeList[58]);

TREL_END_C
#endif
