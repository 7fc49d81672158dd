// Making a node's block, without the tests of the arguments.
#pragma once

#include "trel/records.h"
#include "treli/node_layout.h"

namespace trel {

// In the pool of a segment; `total` comes from sumSizes(). *nodeSize is written before the block is
// allocated, the other outs when the node stands.
uint32_t makeNode(const ShmSegInfo_t* segInfo, uint64_t exports, const uint64_t* sizes,
                  uint64_t total, SNodeCB_t** node, uint64_t* nodeSize, uint64_t* nodeOffset);

// In process memory. The offset is the address.
uint32_t makeNodeInPM(uint64_t exports, const uint64_t* sizes, uint64_t total,
                      uint32_t latchVersion, SNodeCB_t** node, uint64_t* nodeOffset);

}  // namespace trel
