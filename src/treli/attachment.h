// What this process holds of segments. Callers of all of this hold the AttachLatch, but for Look.
//
// The count of an attachment is what explicit attaches have added, and one where a walk has brought
// the segment. Whoever looks at a node during one call pins its mapping apart from that count (see
// trelshm/mapping.h): no unmapping under a look, no count left behind.
//
// What a look brings is undecided at first and counts nothing: it is found by others, and stays
// once any of them uses it. If none has when the look ends, the attachment ends with it.
#pragma once

#include "platsvc/ipc.h"
#include "trel/segment.h"
#include "trelshm/bytes.h"
#include "trelshm/flow.h"
#include "trelshm/mapping.h"

namespace trel {

constexpr uint32_t kByAddress = 3;  // the access mode of the slot

inline bool isInitialised() { return trelAPIIsInitialized == TREL_API_INITIALISED; }

// An attachment: its record, and the word that counts its attaches.
struct Attachment {
  ShmSegInfo_t* segInfo;
  uint32_t* count;
};

uint32_t attachmentOfKey(uint32_t key, Attachment* held);
uint32_t attachmentOfSlot(Attachment* held);
// By access mode: the slot, or the key.
uint32_t attachmentOf(const SegIdentity_t& identity, Attachment* held);
// Of a record: the one that it is, or if it is none of ours, by its identity.
uint32_t attachmentOf(const ShmSegInfo_t* record, Attachment* held);

// One attach more. Refuses what could not be counted.
uint32_t countAttach(const Attachment& held);
// A look uses what it has brought. TREL_RC_NOT_ATTACHED: it has ended meanwhile.
uint32_t keepForWalk(const ShmSegInfo_t* segInfo);

// Whether its memory may only be read.
bool isForReading(const Attachment& held);

// Whether the segment was deleted, or its key leads elsewhere by now.
bool isDeleted(const ShmSegInfo_t* segInfo);
// Ends an attachment of a deleted segment: TREL_RC_NOT_ATTACHED. Where explicit attaches count,
// it stays: TREL_RC_DOMAIN_STATE. 0: the segment is there.
uint32_t endIfDeleted(const Attachment& held);

// The versions and the access mode of a parameter record, null for all defaults.
struct SegmentForm {
  uint64_t heapVersion, handleVersion, latchVersion;
  uint32_t accessMode;
};
SegmentForm readForm(const ShmDomainParam_t* param, uint32_t defaultMode);

// An attachment in the making: nobody finds it before publish().
class NewAttachment {
 public:
  // Takes the slot in access mode 3, else makes the records. The caller has tested the mode.
  uint32_t begin(const SegmentForm& form, const PLATIPCResID* key);
  // From here on it counts 1; or nothing, if a look has brought it and is to decide. A failure
  // leaves it unpublished.
  uint32_t publish(const void* undecidedBy = nullptr);
  // Frees the records. The handles are gone already, or are freed here without disconnecting.
  void drop();
  ShmSegInfo_t* segInfo() const { return segInfo_; }

 private:
  SegAttachNode_t* node_ = nullptr;
  ShmSegInfo_t* segInfo_ = nullptr;
};

// The end of an attachment. It is taken from all lookups; then its handles end by way of a copy,
// since whoever looks goes on using the record; what is left goes with the last look. A failure
// leaves the attachment, without those handles that are gone, so that the call can be repeated.
class Ending {
 public:
  explicit Ending(const Attachment& held);
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;
  ShmSegInfo_t* handles() { return &handles_; }
  uint32_t finish(uint32_t rc);

 private:
  bool isSlot() const;

  const Attachment held_;
  ShmSegInfo_t handles_;
  Mapping was_;
  bool wasKnown_, isPinned_;
};

template <class Disconnect>
uint32_t endAttachment(const Attachment& held, Disconnect&& disconnect) {
  Ending ending(held);
  return ending.finish(disconnect(ending.handles()));
}

// The code of a pool or domain that somebody has ended. Who lets go by force takes it for done.
constexpr bool isGone(uint32_t code) {
  return code == TREL_RC_POOL_STATE || code == TREL_RC_DOMAIN_STATE;
}

// Where a segment is, as attach is told.
struct SegmentAddress {
  const PLATIPCResID* key;
  uintptr_t address;
  uint32_t poolOffset;
  const ShmDomainParam_t* domainParam;
  const ShmPoolParam_t* poolParam;
  bool forReading = false;  // mapped without the right to write, and counted nowhere
};

// trelAttachStatusSegment, but for its null test. For reading, a segment that is held for writing
// serves; for writing, one that is held for reading is attached once more.
uint32_t attachSegment(const SegmentAddress& where, ShmSegInfo_t** segInfo);
// Of a segment that is not held. undecidedBy: the look that brings it, else null.
uint32_t attachNew(const SegmentForm& form, const SegmentAddress& where, const void* undecidedBy,
                   ShmSegInfo_t** segInfo);

// Disconnects and unmaps. Forced, a segment that was deleted by others is left as well. Handles
// that are gone already are passed over.
uint32_t leaveSegment(ShmSegInfo_t* segInfo, bool forced);

// Removes the memory of a domain that is a domain no more, and frees the handle.
uint32_t destroyMemory(ShmDomainHandle_t** domain);

// Undo what was connected or created, as far as it can be undone. Null handles are passed over.
void undoPoolConnection(ShmPoolHandle_t** pool);
void undoDomainConnection(ShmDomainHandle_t** domain);
void undoPoolCreation(ShmPoolHandle_t** pool);
void undoDomainCreation(ShmDomainHandle_t** domain);

}  // namespace trel
