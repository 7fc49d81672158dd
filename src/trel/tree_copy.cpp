// The copy of a tree into one new segment.
//
// Each method reads from top to bottom as what it does, with what a failure of that step returns
// and what goes with it. Two rules hold for all: the source goes only when the copy has taken its
// place, or when there is another copy of the tree; and the last copy of a tree never goes.
#include <optional>

#include "platsvc/ipc.h"
#include "trel/copy.h"
#include "trel/lists.h"
#include "trel/node.h"
#include "trel/segment.h"
#include "trel/segment_creation.h"
#include "trel/storage.h"
#include "trel/tree.h"
#include "treli/description.h"
#include "treli/reach.h"
#include "treli/tree_walk_copy.h"

namespace trel {
namespace {

constexpr uint32_t kNotCopied = TREL_RC_TREE_NOT_COPIED;
constexpr uint32_t kCleanup = TREL_RC_TREE_COPY_CLEANUP;
constexpr uint32_t kDefaultPermissions = 432;  // octal 660

// Ends a segment for everybody. The pointer is null afterwards, whatever comes of it.
uint32_t destroy(ShmSegInfo_t** segInfo) {
  const uint32_t rc = trelDeleteStatusSegment(segInfo, 4, 2, 2);
  *segInfo = nullptr;
  return rc;
}

// destroy(), for the way out of a failure: the code that is to be returned goes through.
uint32_t dropping(ShmSegInfo_t** segInfo, uint32_t rc) {
  destroy(segInfo);
  return rc;
}

// How the source of a pass is held: by the heapLatch of its domain. What the pass resolves stays
// mapped until the end.
class SourceHold {
 public:
  uint32_t begin(const ShmSegInfo_t* segInfo) {
    const uint32_t rc = trelLatchShmDomain(segInfo->shmDomainHandle);
    if (rc) return rc;
    held_ = segInfo->shmDomainHandle;
    look_.emplace();
    return 0;
  }
  uint32_t end() {
    const uint32_t rc = held_ ? trelUnlatchShmDomain(held_) : 0;
    held_ = nullptr;
    look_.reset();
    return rc;
  }
  // For the way out of a failure: a failure to leave replaces the code.
  uint32_t endOr(uint32_t rc) { return firstOf(end(), rc); }
  // The same, where the code stands against it.
  uint32_t endAfter(uint32_t rc) {
    end();
    return rc;
  }

 private:
  ShmDomainHandle_t* held_ = nullptr;
  std::optional<Look> look_;
};

struct TreeCopy {
  SNodeCB_t* srcTop;
  SNodeCB_t** newTop;
  ShmSegInfo_t** srcSeg;
  ShmSegInfo_t** dstSeg;
  uint32_t size;
  const PLATIPCResID* key;
  uintptr_t address;
  uint32_t poolSize;
  const ShmPoolParam_t* poolParam;
  uint32_t copyFlags, copyMethod, copyLimits;
  uint64_t maxDepth;
  uint64_t* totalSize;

  ShmDomainParam_t domainParam;
  SegSecurity_t security;
  uint64_t maxIdSize;  // of the top's list of dependents
  uint32_t wholePool;  // where the new pool is to be as large as the source's
  DescriptionImage description;

  uint32_t check(const ShmDomainParam_t* given);
  uint32_t direct();
  uint32_t viaProcessMemory();
  uint32_t viaSegment();

 private:
  // Where the new segment goes, and how it is reached.
  struct Site {
    PLATIPCResID key;
    uintptr_t address;
    uint32_t accessMode;
  };

  uint32_t completeParam(const ShmDomainParam_t* given);
  bool isTaken(const Site& site) const;
  uint32_t readSecurity();
  Site wantedSite() const { return {*key, address, domainParam.accessMode}; }
  Site sourceSite() const;
  uint32_t create(const Site& site, ShmSegInfo_t** segInfo) const;
  uint32_t authorize(ShmSegInfo_t* segInfo) const;
  void attachAll() const { attachTree(srcTop, *srcSeg, maxDepth); }
  uint32_t walk(uint32_t direction, SNodeCB_t* from, ShmSegInfo_t* fromSeg, ShmSegInfo_t* to,
                SNodeCB_t** copy) const;
  uint32_t publish(ShmSegInfo_t* segInfo, const SNodeCB_t* top) const;
  uint32_t abandon() const;
  static uint32_t keepTemporary(ShmSegInfo_t** temp, uint32_t rc);
  uint32_t fillFromTemporary(ShmSegInfo_t* temp, SNodeCB_t* top, SourceHold* hold,
                             ShmSegInfo_t** dst, SNodeCB_t** copy) const;
  uint32_t fillFromProcessMemory(SNodeCB_t* top, ShmSegInfo_t** dst, SNodeCB_t** copy) const;
  uint32_t hand(ShmSegInfo_t* dst, SNodeCB_t* copy, uint32_t rc) const;
};

uint32_t TreeCopy::check(const ShmDomainParam_t* given) {
  if (maxDepth > kMaxDepth) return kNotCopied;
  if (isReadOnly(srcTop)) return TREL_RC_READING_ONLY;  // the source goes
  if (const uint32_t rc = trelCheckNodeCondition(srcTop, accept::living)) return rc;
  if (const uint32_t rc =
          trelGetMaxIDSizeForDependentNode(srcTop, TREL_EXPORT_DEPENDENT, &maxIdSize))
    return rc;
  if (maxIdSize == 0) return TREL_RC_TOP_NO_DEPENDENTS;
  if (const uint32_t rc = readSecurity()) return rc;
  if (const uint32_t rc = description.take(*srcSeg)) return rc;
  ShmPoolInfo_t pool;
  if (trelGetShmPoolInfo((*srcSeg)->shmPoolHandle, &pool) == 0 && pool.heapSize == poolSize)
    wholePool = poolSize;
  return completeParam(given);
}

uint32_t TreeCopy::readSecurity() {
  const ShmDomainHandle_t* domain = (*srcSeg)->shmDomainHandle;
  if (!domain) return TREL_RC_DOMAIN_HANDLE_NULL;
  PLATOwner owner = {};
  if (!domain->ipcMemory)
    platProcessOwner(kDefaultPermissions, &owner);
  else if (const uint32_t rc = platSegmentOwner(domain->ipcMemory, &owner))
    return rc;
  security = {owner.userId, owner.groupId, owner.accessBits};
  return 0;
}

// What else is left open gets its default where the segment is made.
uint32_t TreeCopy::completeParam(const ShmDomainParam_t* given) {
  if (given) domainParam = *given;
  if (domainParam.accessMode == 0) domainParam.accessMode = 1;
  if (domainParam.permissions)
    security.accessBits = domainParam.permissions;
  else
    domainParam.permissions = security.accessBits;
  const bool placeable = domainParam.accessMode == 1 || domainParam.accessMode == kByAddress;
  return !placeable || !isAligned8(domainParam.heapOffset) || domainParam.userAreaSize > size
             ? kNotCopied
             : 0;
}

// Whether another segment than the source stands where a new one is to be made.
bool TreeCopy::isTaken(const Site& site) const {
  const SegIdentity_t& source = (*srcSeg)->identity;
  const bool sourceInSlot = source.accessMode == kByAddress;
  if (site.accessMode == kByAddress)
    return !sourceInSlot && trelGASegInfo.state == TREL_GA_SLOT_IN_USE;
  if (!sourceInSlot && site.key.key == source.segmentKey.key) return false;
  PLATHIPCMemory segment;
  const uint32_t rc = segment.attach(&site.key, nullptr);
  if (rc == 0) segment.detach();
  return rc != PLAT_RC_NO_SEGMENT;
}

// The place that the source leaves: its key, or the memory in which it lies.
TreeCopy::Site TreeCopy::sourceSite() const {
  const SegIdentity_t& source = (*srcSeg)->identity;
  const bool byAddress = source.accessMode == kByAddress;
  return {{source.segmentKey.structureTag, source.segmentKey.key},
          byAddress ? reinterpret_cast<uintptr_t>((*srcSeg)->shmDomainHandle->base) : 0,
          byAddress ? kByAddress : 1};
}

uint32_t TreeCopy::create(const Site& site, ShmSegInfo_t** segInfo) const {
  ShmDomainParam_t param = domainParam;
  param.accessMode = site.accessMode;
  *segInfo = nullptr;
  return createSegment({size, &site.key, site.address, poolSize, &param, poolParam, wholePool},
                       segInfo);
}

uint32_t TreeCopy::authorize(ShmSegInfo_t* segInfo) const {
  return trelAuthorizeStatusSegment(segInfo, &security);
}

// A pass attaches nothing: segments are attached before it. So two copies, each with the latch of
// its own domain, cannot wait for one another's, nor for a thread that is attaching. A top that is
// left out counts as a failure.
uint32_t TreeCopy::walk(uint32_t direction, SNodeCB_t* from, ShmSegInfo_t* fromSeg,
                        ShmSegInfo_t* to, SNodeCB_t** copy) const {
  const AttachNothing nothing;
  *totalSize = 0;
  ShmSegInfo_t* base = fromSeg ? fromSeg : to;
  const TreePass pass{to, base, copyFlags, direction, copyLimits, maxDepth, totalSize};
  const uint64_t none = 0;
  uint64_t idSizeOut = 0, maxIdSizeOut = 0;
  SNodeInfo_t info = {};
  const NodeCopy name{fromSeg,       to,
                      from,          {0, 0, 0, offsetOf(base->shmDomainHandle->base, nullptr)},
                      nullptr,       &none,
                      &none,         &maxIdSize,
                      nullptr,       &info,
                      nullptr,       &idSizeOut,
                      &maxIdSizeOut, direction,
                      copyLimits,    true};
  TreeTop top{from, fromSeg, 1};
  const uint32_t rc = copyTree(pass, name, &top);
  *copy = top.copy;
  return rc || !top.leftOut ? rc : kNotCopied;
}

// The tree shows with its description and publisher, or not at all.
uint32_t TreeCopy::publish(ShmSegInfo_t* segInfo, const SNodeCB_t* top) const {
  if (const uint32_t rc = description.give(segInfo)) return rc;
  return trelPutTopNodeInfoIntoDomainHeader(
      segInfo->shmDomainHandle, top->tag, top->nodeOffset,
      static_cast<uint32_t>(segInfo->shmPoolHandle->poolOffset));
}

uint32_t TreeCopy::abandon() const {
  const AttachNothing nothing;
  return trelSetStatusForEachNodeInATree(srcTop, *srcSeg, maxDepth, TREL_STATUS_ABANDON,
                                         TREL_WALK_ALL);
}

// The copy stands.
uint32_t TreeCopy::hand(ShmSegInfo_t* dst, SNodeCB_t* copy, uint32_t rc) const {
  *dstSeg = dst;
  *newTop = copy;
  return rc;
}

uint32_t TreeCopy::direct() {
  ShmSegInfo_t* dst = nullptr;
  SNodeCB_t* copy = nullptr;
  if (create(wantedSite(), &dst)) return kNotCopied;
  if (authorize(dst)) return dropping(&dst, kNotCopied);
  attachAll();
  SourceHold hold;
  if (const uint32_t rc = hold.begin(*srcSeg)) return dropping(&dst, rc);
  if (walk(TREL_COPY_SHM_TO_SHM, srcTop, *srcSeg, dst, &copy))
    return dropping(&dst, hold.endOr(kNotCopied));
  if (const uint32_t rc = publish(dst, copy)) return dropping(&dst, hold.end() ? rc : kNotCopied);
  const uint32_t abandoned = abandon();
  const uint32_t left = hold.end();
  const uint32_t deleted = destroy(srcSeg);
  return hand(dst, copy, abandoned || left || deleted ? kCleanup : 0);
}

uint32_t TreeCopy::viaSegment() {
  const Site home = sourceSite();
  Site wanted = wantedSite();
  if (home.accessMode == kByAddress) wanted.accessMode = 1;
  ShmSegInfo_t *temp = nullptr, *dst = nullptr;
  SNodeCB_t *top = nullptr, *copy = nullptr;
  if (create(wanted, &temp)) return kNotCopied;
  if (authorize(temp)) return dropping(&temp, kNotCopied);
  attachAll();
  SourceHold hold;
  if (const uint32_t rc = hold.begin(*srcSeg)) return dropping(&temp, rc);
  if (walk(TREL_COPY_SHM_TO_SHM, srcTop, *srcSeg, temp, &top))
    return dropping(&temp, hold.endOr(kNotCopied));
  // From here on a whole tree stands under the temporary key, whoever dies.
  if (const uint32_t rc = publish(temp, top)) return dropping(&temp, hold.end() ? rc : kNotCopied);
  if (const uint32_t rc = abandon()) return dropping(&temp, hold.endAfter(rc));
  if (const uint32_t rc = hold.end()) return dropping(&temp, rc);
  if (const uint32_t rc = trelDeleteStatusSegment(srcSeg, 4, 2, 2)) return keepTemporary(&temp, rc);
  // From here on the temporary segment holds the only copy.
  if (const uint32_t rc = create(home, &dst)) return keepTemporary(&temp, rc);
  if (const uint32_t rc = fillFromTemporary(temp, top, &hold, &dst, &copy))
    return keepTemporary(&temp, rc);
  const uint32_t left = hold.end();
  const uint32_t deleted = destroy(&temp);
  return hand(dst, copy, left || deleted ? kCleanup : 0);
}

uint32_t TreeCopy::fillFromTemporary(ShmSegInfo_t* temp, SNodeCB_t* top, SourceHold* hold,
                                     ShmSegInfo_t** dst, SNodeCB_t** copy) const {
  if (const uint32_t rc = authorize(*dst)) return dropping(dst, rc);
  if (const uint32_t rc = hold->begin(temp)) return dropping(dst, rc);
  uint32_t rc = walk(TREL_COPY_SHM_TO_SHM, top, temp, *dst, copy);
  if (rc == 0) rc = publish(*dst, *copy);
  return rc ? dropping(dst, hold->endAfter(rc)) : 0;
}

// The tree stays behind under the temporary key, for whoever connects to it.
uint32_t TreeCopy::keepTemporary(ShmSegInfo_t** temp, uint32_t rc) {
  trelDetachStatusSegment(temp, 1);
  return rc;
}

uint32_t TreeCopy::viaProcessMemory() {
  const Site home = key ? wantedSite() : sourceSite();
  ShmSegInfo_t* dst = nullptr;
  SNodeCB_t *top = nullptr, *copy = nullptr;
  const auto forget = [&](uint32_t rc) {
    freeTree(&top);
    trelDeleteHDMPMLList();
    return rc;
  };
  if (isTaken(home)) return kNotCopied;
  attachAll();
  SourceHold hold;
  if (const uint32_t rc = hold.begin(*srcSeg)) return rc;
  if (walk(TREL_COPY_SHM_TO_PM, srcTop, *srcSeg, nullptr, &top))
    return forget(hold.endOr(kNotCopied));
  if (const uint32_t rc = abandon()) return forget(hold.endAfter(rc));
  if (const uint32_t rc = hold.end()) return forget(rc);
  // From here on the tree in process memory may be the only one.
  uint32_t rc = destroy(srcSeg);
  if (rc == 0) rc = create(home, &dst);
  if (rc == 0) rc = fillFromProcessMemory(top, &dst, &copy);
  if (rc) return hand(nullptr, top, rc);
  const uint32_t freed = freeTree(&top);
  const uint32_t forgotten = trelDeleteHDMPMLList();
  return hand(dst, copy, freed || forgotten ? kCleanup : 0);
}

uint32_t TreeCopy::fillFromProcessMemory(SNodeCB_t* top, ShmSegInfo_t** dst,
                                         SNodeCB_t** copy) const {
  if (const uint32_t rc = authorize(*dst)) return dropping(dst, rc);
  uint32_t rc = walk(TREL_COPY_PM_TO_SHM, top, nullptr, *dst, copy);
  if (rc == 0) rc = publish(*dst, *copy);
  return rc ? dropping(dst, rc) : 0;
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelCopyTreeIntoSingleShmSegment(SNodeCB_t* srcTop, SNodeCB_t** newTop,
                                          ShmSegInfo_t** srcSeg, ShmSegInfo_t** dstSeg,
                                          uint32_t size, const PLATIPCResID* key, uintptr_t address,
                                          uint32_t poolSize, const ShmDomainParam_t* domainParam,
                                          const ShmPoolParam_t* poolParam, uint32_t copyFlags,
                                          uint32_t copyMethod, uint32_t copyLimits,
                                          uint64_t maxDepth, uint64_t* totalSize) {
  return traced(FID_trelCopyTreeIntoSingleShmSegment, [&](const Flow& flow) -> uint32_t {
    const bool known =
        copyMethod >= TREL_TREE_COPY_DIRECT && copyMethod <= TREL_TREE_COPY_VIA_SEGMENT;
    const bool keyed = key || copyMethod == TREL_TREE_COPY_VIA_PM;
    if (dstSeg && known && keyed) *dstSeg = nullptr;
    if (!srcSeg || !*srcSeg || !dstSeg) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (!srcTop || !newTop) return flow.fail(TREL_RC_NODE_NULL);
    if (!totalSize) return flow.fail(TREL_RC_OUT_COPY_TOTAL);
    TreeCopy copy{srcTop,   newTop,    srcSeg,    dstSeg,     size,       key,      address,
                  poolSize, poolParam, copyFlags, copyMethod, copyLimits, maxDepth, totalSize,
                  {},       {},        0,         0,          {}};
    if (const uint32_t rc = copy.check(domainParam)) return flow.fail(rc);
    if (!known) return flow.fail(TREL_RC_COPY_DIRECTION);
    if (!keyed) return flow.fail(TREL_RC_SEGMENT_NULL);
    *newTop = nullptr;
    switch (copyMethod) {
      case TREL_TREE_COPY_DIRECT:
        return copy.direct();
      case TREL_TREE_COPY_VIA_PM:
        return copy.viaProcessMemory();
      default:
        return copy.viaSegment();
    }
  });
}

uint32_t trelCopyTreeRecursively(SNodeCB_t* node, SNodeCB_t** newNode, ShmSegInfo_t* srcSegInfo,
                                 ShmSegInfo_t* dstSegInfo, ShmSegInfo_t* topSegInfo, uint32_t,
                                 uint32_t copyFlags, uint32_t copyDirection, uint32_t copyLimits,
                                 uint64_t parentNodeOffset, uint64_t parentSegInfoOffset,
                                 uint64_t parentHdmInfoOffset, uint64_t parentSegBase,
                                 const HdmModuleRecord_t* hdmModule, const uint64_t* nodeTag,
                                 const uint64_t* idSize, const uint64_t* maxIdSize,
                                 const uint8_t* id, SNodeInfo_t* info, uint8_t* idOut,
                                 uint64_t* idSizeOut, uint64_t* maxIdSizeOut, uint32_t* marker,
                                 uint64_t* totalSize, uint64_t depth, uint64_t maxDepth) {
  return traced(FID_trelCopyTreeRecursively, [&](const Flow& flow) -> uint32_t {
    const ParentPlace parent{parentNodeOffset, parentSegInfoOffset, parentHdmInfoOffset,
                             parentSegBase};
    const NodeCopy name{srcSegInfo,   copyDirection == TREL_COPY_SHM_TO_PM ? nullptr : dstSegInfo,
                        node,         parent,
                        hdmModule,    nodeTag,
                        idSize,       maxIdSize,
                        id,           info,
                        idOut,        idSizeOut,
                        maxIdSizeOut, copyDirection,
                        copyLimits,   true};
    if (!node || !newNode) return flow.fail(TREL_RC_NODE_NULL);
    if (!marker) return flow.fail(TREL_RC_LIST_RECORD_NULL);
    if (!totalSize) return flow.fail(TREL_RC_OUT_COPY_TOTAL);
    if (const uint32_t rc = checkCopy(name, TREL_COPY_DEPENDENTS_EMPTY)) return flow.fail(rc);
    const TreePass pass{name.dstSegInfo, topSegInfo, copyFlags, copyDirection,
                        copyLimits,      maxDepth,   totalSize};
    TreeTop top{node, srcSegInfo, depth};
    const uint32_t rc = copyTree(pass, name, &top);
    if (top.copy) *newNode = top.copy;
    if (rc == 0 && top.leftOut) *marker = TREL_TREE_COPY_LEFT_OUT;
    return rc;
  });
}
