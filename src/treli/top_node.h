// The top node in the header of a domain.
#pragma once

#include "trel/records.h"

namespace trel {

// Both under heapLatch; where it may not be taken, the fields are read until they stand still.
// *top is filled also where it turns out to be out of bounds.
uint32_t readTopNode(const ShmDomainHandle_t* domain, TopNodeInfo_t* top);
uint32_t writeTopNode(const ShmDomainHandle_t* domain, const TopNodeInfo_t& top);

// The same, and the node, whole within what is mapped, settled and of the tag that is stored.
uint32_t findTopNode(const ShmSegInfo_t* segInfo, TopNodeInfo_t* top, SNodeCB_t** node);

}  // namespace trel
