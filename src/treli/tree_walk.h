// Walks over whole trees, children before their parent: status operations and sums.
#pragma once

#include "trel/records.h"

namespace trel {

// trelSetStatusForEachNodeInATree.
uint32_t setStatusOfTree(SNodeCB_t* node, ShmSegInfo_t* segment, uint64_t depthLimit,
                         uint32_t operation, uint32_t options);
// The same from a node at some depth of a walk, without the tests of the arguments; *node becomes
// null if it is given back.
uint32_t setStatusFrom(SNodeCB_t** node, ShmSegInfo_t* segment, ShmSegInfo_t* walkSegment,
                       uint64_t depth, uint64_t depthLimit, uint32_t operation, uint32_t options);

// Adds the node, which stands at that depth, and what is below it to the sums.
uint32_t addUpTree(SNodeCB_t* node, ShmSegInfo_t* walkSegment, uint32_t options, uint64_t tag,
                   uint64_t depth, uint64_t limit, TreeInfo_t* info);

// Removes from the parent's list the entry of the child that a record of that list names; the
// record may be the stored one or a copy. Only who succeeds may give *child back.
uint32_t unlinkChild(SNodeCB_t* parent, const SNodeInfo_t* record, SNodeCB_t** child);

}  // namespace trel
