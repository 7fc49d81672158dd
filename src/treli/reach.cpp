#include "treli/reach.h"

#include "trel/segment.h"
#include "treli/attach_latch.h"
#include "treli/node_lock.h"
#include "trelll/list.h"
#include "trelshm/handle.h"

namespace trel {

static __thread uint32_t attachNothing __attribute__((tls_model("initial-exec")));
// Whether the thread's look has brought a segment, which may have to end with it.
static __thread bool hasBrought __attribute__((tls_model("initial-exec")));

AttachNothing::AttachNothing() { ++attachNothing; }
AttachNothing::~AttachNothing() { --attachNothing; }

Look::~Look() {
  if (!pins_.isOutermost() || !hasBrought) return;
  hasBrought = false;
  const AttachLatch latch;
  Mapping met;
  for (uint32_t i = 0; pins_.next(&i, &met);) {
    if (!met.attachment || met.undecidedBy != pins_.identity()) continue;
    const Attachment held = {met.attachment, met.attachCount};
    // What cannot be left is kept, for the caller to detach.
    if (endAttachment(held, [](ShmSegInfo_t* handles) { return leaveSegment(handles, true); }))
      keepForWalk(met.attachment);
  }
}

namespace {

// Whether the segment of that identity is another than the caller's.
uint32_t compareSegments(const ShmSegInfo_t* current, const SegIdentity_t& identity,
                         bool* isOther) {
  if (!current) return TREL_RC_SEGMENT_NULL;
  int32_t order = 0;
  if (compareKeys(current->identity.segmentKey.key, identity.segmentKey.key,
                  current->identity.handleVersion, &order))
    return TREL_RC_COMPARE_KEY;
  *isOther = order != 0;
  return 0;
}

// What a record names, and the mapping that it counts from; *home has no entry where that is memory
// of the caller's own.
uint32_t readTarget(Pins* pins, const SNodeInfo_t* record, Target* target, Mapping* home) {
  uint32_t rc = pins->around(record, home);
  if (rc == TREL_RC_ATTACH_NO_MEMORY) return rc;
  const bool isStored = rc == 0;
  const auto place = reinterpret_cast<uintptr_t>(record);
  if (isStored && home->end - place < sizeof *record) return TREL_RC_BLOCK_OUTSIDE_POOL;
  const SNodeInfo_t copy = copyOnce(record);
  const void* base = copy.selfOffset ? at<const void>(record, uint64_t{0} - copy.selfOffset)
                                     : at<const void>(nullptr, copy.segBase);
  if (!base) return TREL_RC_BASE_NULL;
  if (!isStored) rc = pins->around(base, home);
  if (rc == TREL_RC_ATTACH_NO_MEMORY) return rc;
  if (rc == 0) {
    // What is stored in a segment can be damaged, but its base is known.
    const uint64_t size = home->end - home->start;
    if (home->start != reinterpret_cast<uintptr_t>(base) || copy.segInfoOffset > size ||
        size - copy.segInfoOffset < sizeof(SegIdentity_t))
      return TREL_RC_BLOCK_OUTSIDE_POOL;
  } else {
    *home = {};
  }
  *target = {copyOnce(at<const SegIdentity_t>(base, copy.segInfoOffset)), copy.nodeOffset,
             copy.nodeTag, rc == 0 && !home->writable};
  return 0;
}

// Pins the attached segment of an identity. Most often it is that of the record.
uint32_t pinTarget(Pins* pins, const SegIdentity_t& identity, const Mapping& home, Mapping* found) {
  if (identity.accessMode == kByAddress)
    return pins->attachmentInSlot(found) == TREL_RC_NOT_ATTACHED ? uint32_t{TREL_RC_SLOT_EMPTY} : 0;
  if (!isInitialised()) return TREL_RC_NOT_INITIALISED;
  const uint32_t key = identity.segmentKey.key;
  if (home.attachment && home.key == key && home.key && home.writable) {
    *found = home;
    return 0;
  }
  return pins->attachment(key, found);
}

// One that was deleted ends, if only walks hold it. The key is asked once in a look.
uint32_t refuseDeleted(const Mapping& found) {
  const bool isHere = found.isNew ? !isDeleted(found.attachment)
                                  : heapOf(found.handle).header()->heapState == TREL_DOMAIN_STATE;
  if (isHere) return 0;
  if (attachNothing) return TREL_RC_NOT_ATTACHED;
  const AttachLatch latch;
  Mapping now;
  if (!findAttachment(found.attachment, &now)) return TREL_RC_NOT_ATTACHED;
  return endIfDeleted({now.attachment, now.attachCount});
}

uint32_t locate(Pins* pins, const SNodeInfo_t* record, Target* target, Reached* reached,
                const ShmSegInfo_t* current, uint32_t* otherSegment, uint32_t options) {
  Mapping home, found;
  if (const uint32_t rc = readTarget(pins, record, target, &home)) return rc;
  if (const uint32_t rc = pinTarget(pins, target->identity, home, &found)) return rc;
  if (const uint32_t rc = refuseDeleted(found)) return rc;
  if (target->identity.handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
  if (!liesInDomain(found.handle, target->nodeOffset, sizeof(SNodeCB_t)))
    return TREL_RC_TOP_NODE_BOUNDS;
  if (options & kStayInSegment) {
    bool isOther = false;
    if (const uint32_t rc = compareSegments(current, found.attachment->identity, &isOther))
      return rc;
    *otherSegment = isOther;
  }
  reached->node = at<SNodeCB_t>(found.handle->base, target->nodeOffset);
  reached->segInfo = found.attachment;
  reached->isUndecided = found.undecidedBy != nullptr;
  return 0;
}

// Attaches the segment of an identity, unless somebody else has done so meanwhile.
uint32_t bring(const Pins& pins, const SegIdentity_t& identity, bool forReading) {
  const AttachLatch latch;
  Attachment held;
  Mapping known;
  if (attachmentOfKey(identity.segmentKey.key, &held) == 0)
    // What a failed detach has left can only be detached.
    return findAttachment(held.segInfo, &known) ? 0 : uint32_t{TREL_RC_DOMAIN_HANDLE_NULL};
  if (identity.accessMode > 2) return TREL_RC_ACCESS_MODE;
  ShmDomainParam_t domainParam = {};
  domainParam.heapVersion = identity.heapVersion;
  domainParam.handleVersion = identity.handleVersion;
  domainParam.latchVersion = identity.latchVersion;
  domainParam.accessMode = identity.accessMode;
  domainParam.permissions = 432;
  ShmPoolParam_t poolParam = {};
  poolParam.heapVersion = identity.heapVersion;
  poolParam.handleVersion = identity.handleVersion;
  poolParam.latchVersion = identity.latchVersion;
  const PLATIPCResID key = {identity.segmentKey.structureTag, identity.segmentKey.key};
  ShmSegInfo_t* segInfo = nullptr;
  hasBrought = true;
  return attachNew(readForm(&domainParam, 2), {&key, 0, 0, &domainParam, &poolParam, forReading},
                   pins.identity(), &segInfo);
}

uint32_t checkReached(const Target& target, Reached* reached, uint32_t otherSegment) {
  const ShmDomainHandle_t* domain = reached->segInfo->shmDomainHandle;
  reached->born = birthStamp(reached->node);
  __atomic_thread_fence(__ATOMIC_ACQUIRE);
  if (nodeSizeInDomain(domain, target.nodeOffset) == 0) return TREL_RC_TOP_NODE_BOUNDS;
  if (otherSegment == 0 && target.nodeTag != reached->node->tag) return TREL_RC_RECORD_TAG_DIFFERS;
  const uint32_t rc = lookAtCondition(reached->node, accept::active);
  // The size last: before, it may have been that of a node in the making.
  __atomic_thread_fence(__ATOMIC_ACQUIRE);
  reached->size = nodeSizeInDomain(domain, target.nodeOffset);
  return reached->size && birthStamp(reached->node) == reached->born ? rc : uint32_t{TREL_RC_LATCH};
}

}  // namespace

// The stored size has been tested at attach, but may have been overwritten since.
bool liesInDomain(const ShmDomainHandle_t* domain, uint64_t offset, uint64_t size) {
  const uint64_t first = domain->heapOffset, mapped = bytesMappedFrom(domain->base);
  if (first > mapped) return false;
  const uint64_t heapSize = once(heapOf(domain).header()->heapSize);
  const uint64_t end = heapSize < mapped - first ? first + heapSize : mapped;
  return offset >= first && offset <= end && size <= end - offset;
}

uint64_t nodeSizeInDomain(const ShmDomainHandle_t* domain, uint64_t nodeOffset) {
  if (!liesInDomain(domain, nodeOffset, sizeof(SNodeCB_t))) return 0;
  const uint64_t size = once(at<SNodeCB_t>(domain->base, nodeOffset)->nodeSize);
  return size >= sizeof(SNodeCB_t) && liesInDomain(domain, nodeOffset, size) ? size : 0;
}

uint32_t targetOf(const SNodeInfo_t* record, Target* target) {
  Look look;
  Mapping home;
  return readTarget(&look.pins(), record, target, &home);
}

bool nameOneSegment(const SNodeInfo_t* a, const SNodeInfo_t* b) {
  Target first, second;
  if (targetOf(a, &first) || targetOf(b, &second))
    return once(a->segInfoOffset) == once(b->segInfoOffset);
  return first.identity.segmentKey.key == second.identity.segmentKey.key;
}

uint32_t locateNode(const SNodeInfo_t* record, Reached* reached, const ShmSegInfo_t* current,
                    uint32_t* otherSegment, uint32_t options) {
  Look look;
  Target target;
  Reached found;
  if (const uint32_t rc =
          locate(&look.pins(), record, &target, &found, current, otherSegment, options))
    return rc;
  found.size = nodeSizeInDomain(found.segInfo->shmDomainHandle, target.nodeOffset);
  if (found.size == 0) return TREL_RC_TOP_NODE_BOUNDS;
  *reached = found;
  return 0;
}

uint32_t reachNode(const SNodeInfo_t* record, Reached* reached, ShmSegInfo_t* current,
                   uint32_t* otherSegment, uint32_t options) {
  Look look;
  for (;;) {
    Target target;
    uint32_t rc = locate(&look.pins(), record, &target, reached, current, otherSegment, options);
    if (rc == TREL_RC_NOT_ATTACHED) {
      if (options & kStayInSegment) {
        bool isOther = false;
        if ((rc = compareSegments(current, target.identity, &isOther))) return rc;
        if (isOther) {
          *reached = {nullptr, current};
          *otherSegment = 1;
          return 0;
        }
      }
      if (attachNothing) return TREL_RC_NOT_ATTACHED;
      if ((rc = bring(look.pins(), target.identity, target.forReading))) return rc;
      continue;
    }
    if (rc == 0) rc = checkReached(target, reached, *otherSegment);
    if (rc == 0 && (rc = keepReached(reached)) == TREL_RC_NOT_ATTACHED) continue;
    if (rc && !isRefusedCondition(rc)) leaveReached(reached);
    return rc;
  }
}

uint32_t keepReached(Reached* reached) {
  if (!reached->isUndecided || attachNothing) return 0;
  const AttachLatch latch;
  const uint32_t rc = keepForWalk(reached->segInfo);
  if (rc == 0) reached->isUndecided = false;
  return rc;
}

uint32_t parentOf(SNodeCB_t* node, Section* section, SNodeInfo_t** parent) {
  if (!(once(node->exports) & TREL_EXPORT_PARENT)) return TREL_RC_NO_PARENT_SECTION;
  if (const uint32_t rc = openSection(node, TREL_EXPORT_PARENT, section)) return rc;
  if (section->size < sizeof(ParentSection_t)) return TREL_RC_SLOT_USED;
  if (section->used == 0) return TREL_RC_NO_PARENT_SECTION;  // never filled
  *parent = &section->at<ParentSection_t>()->parent;
  return 0;
}

uint32_t parentRecordOf(SNodeCB_t* node, SNodeInfo_t** record) {
  Section section;
  if (const uint32_t rc = parentOf(node, &section, record)) return rc;
  return section.used < sizeof(ParentSection_t) ? uint32_t{TREL_RC_NO_PARENT_SECTION} : 0;
}

}  // namespace trel
