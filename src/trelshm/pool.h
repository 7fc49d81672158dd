// A pool from its creation to its end, as exported operations and other internals use it. Handles
// are given, and have a base.
#pragma once

#include "trel/storage.h"
#include "trelshm/pads.h"

namespace trel {

uint32_t createPool(ShmPoolHandle_t** handle, const ShmDomainHandle_t* domain, uint32_t poolSize,
                    const ShmPoolParam_t* given, const Caller& caller);
// The same by the maker of the domain, who holds its heapLatch and has not stored heapState yet.
// After a failure the domain is good for nothing.
uint32_t createPoolInNew(ShmPoolHandle_t** handle, const ShmDomainHandle_t* domain,
                         uint32_t poolSize, const ShmPoolParam_t* given, const Caller& caller);
uint32_t connectPool(ShmPoolHandle_t** handle, const ShmDomainHandle_t* domain, uint32_t poolOffset,
                     const ShmPoolParam_t* given);
// A failure leaves the handle.
uint32_t disconnectPool(ShmPoolHandle_t** handle);
uint32_t freePool(ShmPoolHandle_t** handle, uint32_t freeMode, const Caller& caller);

}  // namespace trel
