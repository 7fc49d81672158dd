// A domain from its creation to its end, as exported operations and other internals use it. Handles
// are given, and have a base: who is called from outside tests that with checkHandle().
#pragma once

#include "platsvc/ipc.h"
#include "trel/storage.h"

namespace trel {

// What is made in a new domain before anybody can see it; null for nothing. The caller of work()
// holds heapLatch, and gives the domain up if it fails.
struct Furnishing {
  uint32_t (*work)(void* context, const ShmDomainHandle_t* domain);
  void* context;
};

uint32_t createDomain(const PLATIPCResID* id, uintptr_t address, uint32_t size,
                      const ShmDomainParam_t* given, ShmDomainHandle_t** handle,
                      const Furnishing* furnishing = nullptr);
// For reading, the domain is not written to, and not counted either.
uint32_t connectDomain(const PLATIPCResID* id, uintptr_t address, const ShmDomainParam_t* given,
                       ShmDomainHandle_t** handle, bool forReading = false);
// A failure leaves the handle, and the connection counted, so that the call can be repeated.
uint32_t disconnectDomain(ShmDomainHandle_t** handle);
uint32_t freeDomain(ShmDomainHandle_t** handle, uint32_t freeMode);
// The end of a domain with its pool. Forced (freeMode 2) or not, the key goes first: a failure to
// remove it is TREL_RC_SEGMENT_DESTROY, and nothing has changed. Not forced, nothing changes either
// if others are connected to the domain or, counted (poolFreeMode 3), to the pool. The pool's
// handle may be null.
uint32_t freeDomainWithPool(ShmDomainHandle_t** domain, ShmPoolHandle_t** pool,
                            uint32_t poolFreeMode, uint32_t freeMode);

}  // namespace trel
