// Making a status segment.
#pragma once

#include "trel/records.h"

namespace trel {

// The arguments of trelGetProtectedStatusSegment.
struct NewSegment {
  uint32_t size;
  const PLATIPCResID* key;
  uintptr_t address;
  uint32_t poolSize;
  const ShmDomainParam_t* domainParam;
  const ShmPoolParam_t* poolParam;
  uint32_t wholePool = 0;  // bytes of the pool, header and all: counts in place of poolSize
};

// trelGetProtectedStatusSegment, but for the test of seg. A failure leaves *seg.
uint32_t createSegment(const NewSegment& wanted, ShmSegInfo_t** seg);

}  // namespace trel
