// A domain from its creation to its end, as exported operations and other internals use it. Handles
// are given, and have a base: who is called from outside tests that with checkHandle().
#pragma once

#include "platsvc/ipc.h"
#include "trel/storage.h"

namespace trel {

uint32_t createDomain(const PLATIPCResID* id, uintptr_t address, uint32_t size,
                      const ShmDomainParam_t* given, ShmDomainHandle_t** handle);
uint32_t connectDomain(const PLATIPCResID* id, uintptr_t address, const ShmDomainParam_t* given,
                       ShmDomainHandle_t** handle);
// A failure leaves the handle, and the connection counted, so that the call can be repeated.
uint32_t disconnectDomain(ShmDomainHandle_t** handle);
uint32_t freeDomain(ShmDomainHandle_t** handle, uint32_t freeMode);

}  // namespace trel
