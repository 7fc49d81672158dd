// Parts of the walks over whole trees that deletion shares with them.
#pragma once

#include "trel/tree.h"
#include "treli/reach.h"

namespace trel {

// trelSetStatusForEachNodeInATree.
uint32_t setStatusOfTree(SNodeCB_t* node, ShmSegInfo_t* segment, uint64_t depthLimit,
                         uint32_t operation, uint32_t options);

// Removes from the parent's list the entry of `child`, which a record of that list names; the
// record may be the stored one or a copy.
uint32_t unlinkChild(SNodeCB_t* parent, const SNodeInfo_t* record, SNodeCB_t* child);

// The node behind a record, whose segment must be attached.
uint32_t nodeBehind(const SNodeInfo_t* record, SNodeCB_t** node);

}  // namespace trel
