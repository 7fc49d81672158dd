// Entering on the lists of segments and modules, for records that name things by their place there.
#pragma once

#include "trel/lists.h"

namespace trel {

// The offset of a record's payload on the shared list of the pool's domain; it is entered if it is
// not there. Find and insertion are one hold of the domain's heapLatch, so that nothing stands
// there twice. No module counts as one with an empty path.
uint32_t enterIdentity(ShmPoolHandle_t* pool, const SegIdentity_t* identity, uint64_t* offset);
uint32_t enterModule(ShmPoolHandle_t* pool, const HdmModuleRecord_t* module, uint64_t* offset);

// enterModule() for the list in process memory. The offset is an address.
uint32_t enterModuleInPM(const HdmModuleRecord_t* module, uint64_t* offset);

}  // namespace trel
