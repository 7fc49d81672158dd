// One pass of a tree copy: the walk from a node down, node after node.
//
// A node is copied before its dependents, and is entered in the list of its parent's copy at once.
// So what has been copied hangs together at every moment. No latch is held between nodes; an entry
// and its identifier are taken out in the node's read section, one at a time.
#pragma once

#include "treli/dependent_list.h"
#include "treli/node_copy.h"
#include "treli/traversal_stack.h"

namespace trel {

struct TreePass {
  ShmSegInfo_t* dstSegInfo;  // null in direction 1
  ShmSegInfo_t* topSegInfo;  // the segment of the walk's top
  uint32_t copyFlags, copyDirection, copyLimits;
  uint64_t maxDepth;    // 0: no limit
  uint64_t* totalSize;  // null in a rehearsal, which copies nothing
};

// Where the walk begins, and what comes of it.
struct TreeTop {
  SNodeCB_t* node;
  ShmSegInfo_t* segInfo;  // of the node; null in direction 2
  uint64_t depth;
  SNodeCB_t* copy = nullptr;  // stays set after a failure below it
  bool leftOut = false;       // abandoned, or not among those that copyFlags selects
};

// Copies the node and what is below it. `name` gives what the copy of the top is to be called and
// where that goes. In direction 1 a failure frees the block that was being filled; those finished
// before hang below top->copy.
uint32_t copyTree(const TreePass& pass, const NodeCopy& name, TreeTop* top);

// Attaches all segments that a copy and the abandoning behind it will meet, as far as can be.
void attachTree(SNodeCB_t* node, ShmSegInfo_t* segInfo, uint64_t maxDepth);

// Frees a tree in process memory, null for none, and sets the pointer to null.
uint32_t freeTree(SNodeCB_t** top);

}  // namespace trel
