// The record by which a list of dependents, or a child, names a node.
#pragma once

#include "trel/records.h"

namespace trel {

// Enters the node's segment, and the module that serves the node (null: one with an empty path), on
// the lists of the segment that is to hold the record, and fills the record: trelAddStatusNodeInfo
// without its checks. Takes the heapLatch of that segment's domain.
uint32_t recordNode(SNodeInfo_t* record, const ShmSegInfo_t* holder, const ShmSegInfo_t* segment,
                    uint64_t nodeOffset, uint64_t tag, uint64_t idSize,
                    const HdmModuleRecord_t* module);

// The same for a node in process memory: offsets are addresses.
uint32_t recordNodeInPM(SNodeInfo_t* record, uint64_t nodeOffset, uint64_t tag, uint64_t idSize,
                        const HdmModuleRecord_t* module);

}  // namespace trel
