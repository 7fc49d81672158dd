#include "trelshm/segment_memory.h"

#include <string.h>

#include "platsvc/latch.h"
#include "platsvc/life.h"
#include "platsvc/time.h"
#include "trel/codes.h"
#include "trelshm/latch_failure.h"
#include "trelshm/store.h"

namespace trel {
namespace {

constexpr size_t kPage = 4096;  // the least that the system maps, however small the segment
constexpr size_t kLatchStart = offsetof(HeapHeader_t, heapLatch);
constexpr size_t kLatchEnd = kLatchStart + sizeof(ExclusiveLatch_t);

// For how long others are given time to finish, or to go, in steps of a millisecond.
constexpr int kMostTries = 100;
constexpr PLATLatchWait kShortWait = {nullptr, 0, 1};
constexpr PLATLatchWait kLongWait = {nullptr, 0, 200};

bool isZero(const uint8_t* bytes, size_t size) {
  return bytes[0] == 0 && memcmp(bytes, bytes + 1, size - 1) == 0;
}

bool isMarked(const HeapHeader_t* header) {
  PLATLatchOwner owner;
  return platVLatchOwner(header->heapLatch.latch, &owner) == 0 && owner.state != PLAT_LATCH_NONE;
}

}  // namespace

SegmentState stateOf(const void* base) {
  const auto* header = static_cast<const HeapHeader_t*>(base);
  const uint64_t version = header->heapVersion;
  if (version == TREL_STRUCTURE_VERSION)
    return header->heapState == TREL_DOMAIN_STATE ? SegmentState::whole : SegmentState::halfMade;
  if (version != 0) return SegmentState::foreign;
  if (header->heapState != TREL_DOMAIN_STATE && isMarked(header)) return SegmentState::unversioned;
  const auto* bytes = static_cast<const uint8_t*>(base);
  const bool isFresh = isZero(bytes, kLatchStart) && isZero(bytes + kLatchEnd, kPage - kLatchEnd);
  return isFresh ? SegmentState::unversioned : SegmentState::foreign;
}

uint32_t attachFailure(uint32_t platformCode) {
  switch (platformCode) {
    case PLAT_RC_NO_SEGMENT:
      return TREL_RC_SEGMENT_ABSENT;
    case PLAT_RC_ACCESS:
      return TREL_RC_SEGMENT_FORBIDDEN;
    case PLAT_RC_SEGMENT_LIMIT:
      return TREL_RC_SEGMENT_LIMIT;
    default:
      return TREL_RC_SEGMENT_ATTACH;
  }
}

SegmentMemory::~SegmentMemory() {
  if (isMaker_ && object_) {
    object_->remove();
    leaveLatch();
  }
  drop();
}

void SegmentMemory::drop() {
  if (object_ && object_->isAttached()) object_->detach();
  delete object_;
  object_ = nullptr;
  base = nullptr;
}

void SegmentMemory::leaveLatch() {
  platVLatchRelease(header()->heapLatch.latch);
  isMaker_ = false;
}

uint32_t SegmentMemory::attach(const PLATIPCResID* id, uintptr_t address, bool forReading) {
  if (!(object_ = new PLATHIPCMemory)) return TREL_RC_DOMAIN_NO_MEMORY;
  const void* const hint = reinterpret_cast<const void*>(address);
  if (const uint32_t rc =
          forReading ? object_->attachForReading(id, hint) : object_->attach(id, hint))
    return attachFailure(rc);
  return object_->getAddress(&base) ? uint32_t{TREL_RC_SEGMENT_ADDRESS} : 0;
}

uint32_t SegmentMemory::begin(const PLATIPCResID* id, uintptr_t address, uint32_t size,
                              uint32_t permissions) {
  id_ = *id;
  // First the token, without which nobody holds a latch: the segment could be the last to be had.
  uint32_t token = 0;
  if (const uint32_t rc = platLifeToken(&token)) return latchFailure(rc);
  const PLATIPCMemoryCreateParam param = {PLAT_STRUCTURE_TAG, *id, size, address, permissions, 0};
  // A segment that could be made, but not mapped or latched, is not the caller's to remove. So that
  // it does not stay behind for a passing reason, a failure is tried once more.
  for (int tries = 0; tries < kMostTries; ++tries) {
    const uint32_t rc = tryToBegin(param);
    if (rc == 0 || rc == TREL_RC_SEGMENT_EXISTS || (rc != kMakeAgain && tries > 0)) return rc;
    drop();
    platSleep(1);
  }
  return TREL_RC_SEGMENT_EXISTS;
}

uint32_t SegmentMemory::tryToBegin(const PLATIPCMemoryCreateParam& param) {
  if (!(object_ = new PLATHIPCMemory)) return TREL_RC_DOMAIN_NO_MEMORY;
  uint32_t rc = object_->create(&param);
  const bool isMet = rc == PLAT_RC_SEGMENT_EXISTS;
  if (isMet) rc = object_->attach(&param.resId, reinterpret_cast<const void*>(param.address));
  if (rc == PLAT_RC_NO_SEGMENT) return kMakeAgain;
  if (rc == PLAT_RC_SEGMENT_LIMIT) return TREL_RC_SEGMENT_LIMIT;
  if (rc) return isMet ? uint32_t{TREL_RC_SEGMENT_EXISTS} : rc;
  if (object_->getAddress(&base)) return TREL_RC_SEGMENT_ADDRESS;
  if (isMet) return takeUp(param);
  if (const uint32_t failed = takeLatch()) return failed;
  mark();
  return 0;
}

// The latch of a segment that is not whole. There may be another maker, who gets it first.
uint32_t SegmentMemory::takeLatch() {
  uint32_t makerDied = 0;
  if (const uint32_t rc = platVLatchGetUnmade(header()->heapLatch.latch, &kShortWait, &makerDied))
    return rc == PLAT_RC_TIMEOUT ? kMakeAgain : latchFailure(rc);
  if (header()->heapState != TREL_DOMAIN_STATE) {
    isMaker_ = true;
    return 0;
  }
  leaveLatch();
  return TREL_RC_SEGMENT_EXISTS;
}

// Whether the system counts no attachment but this one. Others may just be looking.
bool SegmentMemory::isAlone(int tries) const {
  for (PLATSegmentState state; object_->getState(&state) == 0; platSleep(1))
    if (state.attachments == 1)
      return true;
    else if (--tries <= 0)
      break;
  return false;
}

uint32_t SegmentMemory::takeUp(const PLATIPCMemoryCreateParam& param) {
  switch (stateOf(base)) {
    case SegmentState::whole:
    case SegmentState::foreign:
      return TREL_RC_SEGMENT_EXISTS;
    default:
      break;
  }
  PLATSegmentState state;
  if (object_->getState(&state)) return TREL_RC_SEGMENT_EXISTS;
  const bool inPlace = state.isOwn && object_->getSize() == param.size;
  if (!inPlace && !state.mayRemove) return TREL_RC_SEGMENT_EXISTS;
  if (state.attachments > 1) return kMakeAgain;
  if (const uint32_t rc = takeLatch()) return rc;
  return takeOver(param, inPlace);
}

// What a dead maker has left is made anew where it lies, or removed.
uint32_t SegmentMemory::takeOver(const PLATIPCMemoryCreateParam& param, bool inPlace) {
  if (!isAlone(kMostTries)) {
    leaveLatch();
    return TREL_RC_SEGMENT_EXISTS;
  }
  PLATOwner self;
  platProcessOwner(param.permissions, &self);
  const PLATIPCSecurityParam security = {PLAT_STRUCTURE_TAG, self.userId, self.groupId,
                                         self.accessBits};
  if (inPlace && object_->authorize(&security) == 0) {
    mark();
    return 0;
  }
  const uint32_t rc = object_->remove();
  leaveLatch();
  return rc ? uint32_t{TREL_RC_SEGMENT_EXISTS} : kMakeAgain;
}

// From here on the segment shows that it is being made. The latch is never made ready a second
// time: it is held.
void SegmentMemory::mark() {
  ExclusiveLatch_t* latch = &header()->heapLatch;
  header()->heapState = 0;
  memset(latch->latch + PLAT_LATCH_BYTES, 0, sizeof latch->latch - PLAT_LATCH_BYTES);
  storeLast(&header()->heapVersion, TREL_STRUCTURE_VERSION);
  if (!isMarked(header())) platVLatchMark(latch->latch);
  storeLast(&latch->version, TREL_STRUCTURE_VERSION);
}

uint32_t SegmentMemory::finish() {
  switch (object_->findKey(&id_)) {
    case PLAT_RC_OTHER_SEGMENT:
      leaveLatch();
      return TREL_RC_SEGMENT_EXISTS;
    case PLAT_RC_NO_SEGMENT:
      leaveLatch();
      return kMakeAgain;
    default:
      break;
  }
  storeLast(&header()->heapState, TREL_DOMAIN_STATE);
  leaveLatch();
  return 0;
}

namespace {

// A segment that nobody has attached but the caller, who holds its latch. Its state goes first:
// a death in between leaves what counts as half made.
uint32_t removeHeld(PLATHIPCMemory* memory, HeapHeader_t* header) {
  PLATSegmentState state;
  if (memory->getState(&state) || state.attachments > 1) return TREL_RC_POOL_CONNECTED;
  const uint64_t before = header->heapState;
  storeLast(&header->heapState, 0);
  if (memory->remove() == 0) return 0;
  storeLast(&header->heapState, before);
  return TREL_RC_SEGMENT_DESTROY;
}

uint32_t removeIfUnused(PLATHIPCMemory* memory, HeapHeader_t* header) {
  uint32_t ownerDied = 0;
  if (const uint32_t rc = platVLatchGetUnmade(header->heapLatch.latch, &kLongWait, &ownerDied))
    return rc == PLAT_RC_NO_TOKEN ? latchFailure(rc) : TREL_RC_POOL_CONNECTED;
  const uint32_t rc = removeHeld(memory, header);
  platVLatchRelease(header->heapLatch.latch);
  return rc;
}

uint32_t removeAttached(PLATHIPCMemory* memory, uint32_t mode) {
  void* base = nullptr;
  PLATSegmentState state;
  if (memory->getAddress(&base)) return TREL_RC_SEGMENT_ADDRESS;
  if (const uint32_t rc = memory->getState(&state)) return attachFailure(rc);
  const SegmentState found = stateOf(base);
  if (found == SegmentState::foreign) return TREL_RC_SEGMENT_FOREIGN;
  if (!state.mayRemove) return TREL_RC_SEGMENT_FORBIDDEN;
  const bool isForced = mode == 2 && found != SegmentState::unversioned;
  if (!isForced && state.attachments > 1) return TREL_RC_POOL_CONNECTED;
  if (mode == 1) return removeIfUnused(memory, static_cast<HeapHeader_t*>(base));
  return memory->remove() ? uint32_t{TREL_RC_SEGMENT_DESTROY} : 0;
}

}  // namespace

uint32_t removeSegment(const PLATIPCResID* id, uint32_t mode) {
  PLATHIPCMemory* memory = new PLATHIPCMemory;
  if (!memory) return TREL_RC_DOMAIN_NO_MEMORY;
  uint32_t rc = mode == 1 ? memory->attach(id, nullptr) : memory->attachForReading(id, nullptr);
  rc = rc ? attachFailure(rc) : removeAttached(memory, mode);
  if (memory->isAttached()) memory->detach();
  delete memory;
  return rc;
}

}  // namespace trel
