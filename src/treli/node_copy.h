// The copy of one node.
#pragma once

#include "trel/records.h"
#include "treli/list_image.h"

namespace trel {

// Fields of the copy's parent record.
struct ParentPlace {
  uint64_t nodeOffset, segInfoOffset, hdmInfoOffset, segBase;
};

// trelCopyNode's arguments, by their names there.
struct NodeCopy {
  ShmSegInfo_t* srcSegInfo;
  ShmSegInfo_t* dstSegInfo;  // null for a copy in process memory
  SNodeCB_t* src;
  ParentPlace parent;
  const HdmModuleRecord_t* hdmModule;
  const uint64_t* nodeTag;
  const uint64_t* idSize;
  const uint64_t* maxIdSize;
  const uint8_t* id;
  SNodeInfo_t* info;
  uint8_t* idOut;  // may be id
  uint64_t* idSizeOut;
  uint64_t* maxIdSizeOut;
  uint32_t copyDirection, copyLimits;
  // Lists keep the room that they have in the source, whatever is reported of it, and a list of
  // dependents its maximum; a word of 0 in the change list is no wish. So a copy never needs more
  // than its source. For tree copies and recreations; trelCopyNode sizes lists in hash form anew.
  bool keepsRoom = false;
  RecreationIntent_t* intent = nullptr;  // is told where the block is, as soon as there is one
};

// The tests of trelCopyNode's arguments.
uint32_t checkCopy(const NodeCopy& wanted, uint32_t copyDependents);
// Those of them that concern the copy's name, and what is to come of the dependents.
uint32_t checkCopyName(const NodeCopy& wanted, uint32_t copyDependents);

// *dst is set as soon as there is a block, and the failures behind that leave it. The node latches
// are left before the lists of the destination are used. *image, if asked for, is of the same state
// of the source as the copy; it is the caller's after failures, too.
uint32_t copyNode(const NodeCopy& wanted, uint32_t copyDependents, SNodeCB_t** dst,
                  uint64_t* nodeSize, ListImage* image = nullptr);

// Frees a copy that nobody knows of yet; dstSegInfo is null for one in process memory.
void dropCopy(SNodeCB_t** copy, const ShmSegInfo_t* dstSegInfo);

// trelCopyNodeData: fills a block that is there, and names it.
uint32_t copyNodeData(const NodeCopy& wanted, SNodeCB_t* dst, uint64_t nodeOffset,
                      const NodeCopyLimits_t& limits);

// Adds an entry to a node's list of dependents, or overwrites that of exactly this name: without an
// identifier an entry that has one is not the same. idSize counts, the record's own is overwritten.
uint32_t linkDependent(SNodeCB_t* node, SNodeInfo_t* record, const uint8_t* id, uint64_t idSize,
                       uint64_t inCriticalSection);

// Adds an entry behind the last one of a list from which none was ever deleted, and of which nobody
// else knows, without looking for one of its name. The record's idSize counts.
uint32_t appendDependent(SNodeCB_t* node, SNodeInfo_t* record, const uint8_t* id);

// What lies at an offset that a record names, null if it is not in the segment.
const void* inSegment(const ShmSegInfo_t* segInfo, uint64_t offset, uint64_t size);

}  // namespace trel
