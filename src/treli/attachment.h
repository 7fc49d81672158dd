// What this process holds of segments. Callers of all of this hold the AttachLatch.
#pragma once

#include "platsvc/ipc.h"
#include "trel/segment.h"
#include "trelshm/bytes.h"
#include "trelshm/flow.h"

namespace trel {

constexpr uint32_t kByAddress = 3;  // the access mode of the slot

inline bool isInitialised() { return trelAPIIsInitialized == TREL_API_INITIALISED; }

// An attachment: its record, and the word that counts its attaches.
struct Hold {
  ShmSegInfo_t* segInfo;
  uint32_t* count;
};

uint32_t holdOfKey(uint32_t key, Hold* hold);
uint32_t holdOfSlot(Hold* hold);
// By access mode: the slot, or the key.
uint32_t holdOf(const SegIdentity_t& identity, Hold* hold);

// The attached domain in which `size` bytes at an address lie, and that with its base at an
// address; null if there is none.
const ShmDomainHandle_t* domainAround(const void* address, uint64_t size);
const ShmDomainHandle_t* domainAt(const void* base);

// Bytes of all attached domains together.
uint64_t attachedBytes();

// Whether `size` bytes at an offset from the base lie in the domain and in what is mapped of it.
inline bool liesInDomain(const ShmDomainHandle_t* domain, uint64_t offset, uint64_t size) {
  const uint64_t first = domain->heapOffset;
  const uint64_t heapSize = at<HeapHeader_t>(domain->base, first)->heapSize;
  if (offset < first || heapSize < size || offset - first > heapSize - size) return false;
  // The stored size has been tested at attach, but may have been overwritten since.
  return !domain->ipcMemory || offset + size <= domain->ipcMemory->getSize();
}

// The versions and the access mode of a parameter record, null for all defaults.
struct SegmentForm {
  uint64_t heapVersion, handleVersion, latchVersion;
  uint32_t accessMode;
};
SegmentForm readForm(const ShmDomainParam_t* param, uint32_t defaultMode);

// A hold in the making: nobody finds it before publish().
class NewHold {
 public:
  // Takes the slot in access mode 3, else makes the records. The caller has tested the mode.
  uint32_t begin(const SegmentForm& form, const PLATIPCResID* key);
  // From here on the hold counts 1. A failure leaves it unpublished.
  uint32_t publish();
  // Frees the records. The handles are gone already, or are freed here without disconnecting.
  void drop();
  ShmSegInfo_t* segInfo() const { return segInfo_; }

 private:
  SegAttachNode_t* node_ = nullptr;
  ShmSegInfo_t* segInfo_ = nullptr;
};

// Ends a hold whose handles are gone: off the list or out of the slot.
uint32_t endHold(const SegIdentity_t& identity);

// The code of a pool or domain that somebody has ended. Who lets go by force takes it for done.
constexpr bool isGone(uint32_t code) {
  return code == TREL_RC_POOL_STATE || code == TREL_RC_DOMAIN_STATE;
}

// Disconnects and unmaps. Forced, a segment that was deleted by others is left as well. Handles
// that are gone already are passed over, so that a failed call can be repeated.
uint32_t leaveSegment(ShmSegInfo_t* segInfo, bool forced);

// Removes the memory of a domain that is a domain no more, and frees the handle.
uint32_t destroyMemory(ShmDomainHandle_t** domain);

// An attach whose use is not decided yet, because the node behind it is still being looked at. As
// long as a hold is marked so, others that come upon it join with an attach of their own, so that
// nobody unmaps what another is looking at. Only the first attach of a hold marks it.
void markUndecided(const ShmSegInfo_t* segInfo);
bool isUndecided(const ShmSegInfo_t* segInfo);
// The hold stays. False if that had been decided before.
bool decideToHold(const ShmSegInfo_t* segInfo);
// Undoes one attach, also of a segment that others have ended meanwhile.
void undoAttach(ShmSegInfo_t* segInfo);

// Undo what was connected or created, as far as it can be undone. Null handles are passed over.
void undoPoolConnection(ShmPoolHandle_t** pool);
void undoDomainConnection(ShmDomainHandle_t** domain);
void undoPoolCreation(ShmPoolHandle_t** pool);
void undoDomainCreation(ShmDomainHandle_t** domain);

}  // namespace trel
