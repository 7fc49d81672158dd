// A node with a full list of dependents is replaced, in its tree, by a larger copy.
#include "treli/recreation.h"

#include "trel/copy.h"
#include "trel/node.h"
#include "trel/segment.h"
#include "trel/tree.h"
#include "treli/attach_latch.h"
#include "treli/dependent_list.h"
#include "treli/node_copy.h"
#include "treli/node_record.h"
#include "treli/reach.h"
#include "trelll/enter.h"
#include "trelshm/store.h"

namespace trel {
namespace {

struct Recreation {
  SNodeCB_t* node;
  ShmSegInfo_t* oldSeg;
  ShmSegInfo_t* newSeg;
  uint64_t wanted;

  RecreationHold hold{};
  ParentLink link{};
  SNodeInfo_t parentRecord = {};
  SNodeInfo_t record = {};  // of the copy, for the parent's list
  const HdmModuleRecord_t* module = nullptr;
  uint64_t maxIdSize = 0;
  const Look look{};  // the parent's segment stays mapped

  // All that can be refused before the node is touched.
  uint32_t prepare();
  uint32_t disassociate();
  uint32_t wish();
  uint32_t copy(SNodeCB_t** made, uint64_t* size);
  uint32_t replace(SNodeCB_t* made);
};

uint32_t Recreation::prepare() {
  SNodeInfo_t* stored = nullptr;
  uint8_t* id = nullptr;
  uint64_t idSize = 0;
  if (const uint32_t rc = parentRecordOf(node, &stored)) return rc;
  if (const uint32_t rc = trelGetNodeID(node, &id, &idSize, 0)) return rc;
  if (const uint32_t rc = findParentLink(node, &link)) return rc;
  if (const uint32_t rc = trelGetMaxIDSizeForDependentNode(node, TREL_EXPORT_DEPENDENT, &maxIdSize))
    return rc;
  parentRecord = *stored;
  if (parentRecord.hdmInfoOffset) {
    module = static_cast<const HdmModuleRecord_t*>(
        inSegment(oldSeg, parentRecord.hdmInfoOffset, sizeof *module));
    if (!module) return TREL_RC_BLOCK_OUTSIDE_POOL;
  }
  Section section;
  if (openSection(node, TREL_EXPORT_CHANGE_LIST, &section) ||
      section.size < sizeof(ChangeListSection_t))
    return TREL_RC_NO_CHANGE_LIST;
  return wanted > TREL_MAX_DEPENDENTS ? uint32_t{TREL_RC_DEPENDENT_COUNT} : 0;
}

// The condition from before is noted first: the mark leads others to it. The mark comes before the
// condition that makes others look for it.
uint32_t Recreation::disassociate() {
  if (const uint32_t rc = hold.take(node)) return rc;
  link = {};
  if (const uint32_t rc = findParentLink(node, &link)) return rc;
  if (link.named != node) return TREL_RC_DEPENDENT_ABSENT;
  return within<Access::write>(node, 0, [&]() -> uint32_t {
    const uint32_t condition = node->condition;
    if (condition < TREL_CONDITION_CREATED || condition > TREL_CONDITION_DISASSOCIATED)
      return TREL_RC_CONDITION;
    storeLast(&intentOf(node)->condition, condition);
    markRecreation(node, true);
    storeLast(&node->condition, TREL_CONDITION_DISASSOCIATED);
    return 0;
  });
}

// Writes the wanted capacity where the copy looks for it. A list that lost its last entry has lost
// its export bit as well, and gets it back.
uint32_t Recreation::wish() {
  Section section;
  if (openSection(node, TREL_EXPORT_DEPENDENT, &section) == 0 && section.used >= kDependentHeader &&
      !(once(node->exports) & TREL_EXPORT_DEPENDENT)) {
    exportDependents(node, true);
    if (const uint32_t rc =
            trelGetMaxIDSizeForDependentNode(node, TREL_EXPORT_DEPENDENT, &maxIdSize))
      return rc;
  }
  uint64_t live = 0, capacity = 0;
  if (const uint32_t rc = trelReturnNumberOfDependentNodes(node, &live, &capacity, 0)) return rc;
  uint32_t changes[TREL_CHANGE_WORDS] = {};
  const uint64_t raised = wanted > capacity ? wanted : capacity;
  // Of a wanted capacity of 0 as well: an older wish may stand there.
  changes[4] = static_cast<uint32_t>(raised < TREL_MAX_DEPENDENTS ? raised : TREL_MAX_DEPENDENTS);
  setExport(node, TREL_EXPORT_CHANGE_LIST, true);
  return trelExportListOfChangedProperties(node, 0, changes);
}

// The parent record goes with the copy. In another segment it names that segment's own lists.
uint32_t Recreation::copy(SNodeCB_t** made, uint64_t* size) {
  SNodeInfo_t* stored = nullptr;
  if (const uint32_t rc = trelGetParentNodeLocation(node, &stored)) return rc;
  ParentPlace place{parentRecord.nodeOffset, parentRecord.segInfoOffset, parentRecord.hdmInfoOffset,
                    parentRecord.segBase};
  if (oldSeg->shmPoolHandle->base != newSeg->shmPoolHandle->base) {
    Target target;
    if (const uint32_t rc = targetOf(stored, &target)) return rc;
    ShmPoolHandle_t* pool = newSeg->shmPoolHandle;
    if (const uint32_t rc = enterIdentity(pool, &target.identity, &place.segInfoOffset)) return rc;
    if (const uint32_t rc = enterModule(pool, module, &place.hdmInfoOffset)) return rc;
  }
  if (const uint32_t rc =
          recordNode(&record, link.parent.segInfo, newSeg, 0, node->tag, link.idSize, module))
    return rc;
  intentOf(node)->segInfoOffset = record.segInfoOffset;
  SNodeInfo_t info = {};
  const NodeCopy request{oldSeg,
                         newSeg,
                         node,
                         place,
                         module,
                         nullptr,
                         nullptr,
                         &maxIdSize,
                         nullptr,
                         &info,
                         nullptr,
                         nullptr,
                         nullptr,
                         TREL_COPY_SHM_TO_SHM,
                         TREL_COPY_LIMITS_CHANGE_LIST,
                         true,
                         intentOf(node)};
  if (const uint32_t rc = copyNode(request, TREL_COPY_DEPENDENTS_SAME, made, size)) return rc;
  record.nodeOffset = info.nodeOffset;
  record.nodeTag = info.nodeTag;
  record.idSize = info.idSize;
  return 0;
}

// Nobody sees the copy before the parent's entry leads to it.
uint32_t Recreation::replace(SNodeCB_t* made) {
  const uint32_t rc = within<Access::write>(made, 0, [&] {
    markRecreation(made, false);
    made->condition = TREL_CONDITION_ACTIVE;
    return 0u;
  });
  if (rc) return rc;
  return replaceLink(link, &record);
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelRecreateNodeWithMoreDepNodes(SNodeCB_t** node, SNodeCB_t** newNode,
                                          ShmSegInfo_t* oldSegInfo, ShmSegInfo_t* newSegInfo,
                                          uint64_t wanted, uint64_t* size) {
  return traced(FID_trelRecreateNodeWithMoreDepNodes, [&](const Flow& flow) -> uint32_t {
    if (!node || !*node || !newNode) return flow.fail(TREL_RC_NODE_NULL);
    if (!oldSegInfo || !newSegInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (!oldSegInfo->shmPoolHandle || !newSegInfo->shmPoolHandle)
      return flow.fail(TREL_RC_POOL_HANDLE_NULL);
    if (!size) return flow.fail(TREL_RC_OUT_NODE_SIZE);
    Recreation recreation{*node, oldSegInfo, newSegInfo, wanted};
    if (const uint32_t rc = recreation.prepare()) return flow.fail(rc);
    if (const uint32_t rc = recreation.disassociate()) return flow.fail(rc);
    if (const uint32_t rc = recreation.wish()) return flow.fail(rc);
    if (const uint32_t rc = recreation.copy(newNode, size)) return flow.fail(rc);
    return recreation.replace(*newNode);
  });
}
