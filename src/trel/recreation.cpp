// A node with a full list of dependents is replaced, in its tree, by a larger copy.
#include "trel/copy.h"
#include "trel/node.h"
#include "trel/segment.h"
#include "trel/tree.h"
#include "treli/attach_latch.h"
#include "treli/dependent_list.h"
#include "treli/node_copy.h"
#include "treli/reach.h"
#include "trelll/enter.h"

namespace trel {
namespace {

// Sets or clears the mark by which searches tell that a node is being replaced.
void markRecreation(SNodeCB_t* node, bool on) {
  auto* byte = reinterpret_cast<uint8_t*>(&node->optionWord0);
  if (on) {
    __atomic_fetch_or(byte, TREL_OPTION_RECREATION, __ATOMIC_ACQ_REL);
  } else {
    __atomic_fetch_and(byte, static_cast<uint8_t>(~TREL_OPTION_RECREATION), __ATOMIC_ACQ_REL);
  }
}

struct Recreation {
  SNodeCB_t* node;
  ShmSegInfo_t* oldSeg;
  ShmSegInfo_t* newSeg;
  uint64_t wanted;

  SNodeCB_t* parent = nullptr;
  ShmSegInfo_t* parentSeg = nullptr;  // most often oldSeg
  SNodeInfo_t parentRecord = {};
  const HdmModuleRecord_t* module = nullptr;
  uint8_t* id = nullptr;
  uint64_t idSize = 0, maxIdSize = 0;
  const Look look = {};  // the parent's segment stays mapped

  // All that can be refused before the node is touched.
  uint32_t prepare();
  uint32_t disassociate();
  uint32_t wish();
  uint32_t copy(SNodeCB_t** made, SNodeInfo_t* info, uint64_t* size);
  uint32_t replace(SNodeCB_t* made, const SNodeInfo_t& info);
};

uint32_t Recreation::prepare() {
  SNodeInfo_t* stored = nullptr;
  if (const uint32_t rc = parentRecordOf(node, &stored)) return rc;
  if (const uint32_t rc = trelGetNodeID(node, &id, &idSize, 0)) return rc;
  Reached reached;
  if (const uint32_t rc = locateNode(stored, &reached)) return rc;
  parent = reached.node;
  parentSeg = reached.segInfo;
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

uint32_t Recreation::disassociate() {
  uint32_t condition = 0;
  if (const uint32_t rc = trelGetNodeCondition(node, &condition)) return rc;
  if (condition != TREL_CONDITION_DISASSOCIATED)
    if (const uint32_t rc = trelDisassociateNode(&node)) return rc;
  markRecreation(node, true);
  return 0;
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
  if (wanted)
    changes[4] = static_cast<uint32_t>(raised < TREL_MAX_DEPENDENTS ? raised : TREL_MAX_DEPENDENTS);
  setExport(node, TREL_EXPORT_CHANGE_LIST, true);
  return trelExportListOfChangedProperties(node, 0, changes);
}

// The parent record goes with the copy. In another segment it names that segment's own lists.
uint32_t Recreation::copy(SNodeCB_t** made, SNodeInfo_t* info, uint64_t* size) {
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
  const NodeCopy request{oldSeg,
                         newSeg,
                         node,
                         place,
                         module,
                         nullptr,
                         nullptr,
                         &maxIdSize,
                         nullptr,
                         info,
                         nullptr,
                         nullptr,
                         nullptr,
                         TREL_COPY_SHM_TO_SHM,
                         TREL_COPY_LIMITS_CHANGE_LIST,
                         true};
  return copyNode(request, TREL_COPY_DEPENDENTS_SAME, made, size);
}

// Points the parent's entry at the copy, then lets it be seen.
uint32_t Recreation::replace(SNodeCB_t* made, const SNodeInfo_t& info) {
  SNodeInfo_t record = {};
  if (const uint32_t rc = trelAddStatusNodeInfo(&record, parentSeg, newSeg, info.nodeOffset,
                                                info.nodeTag, info.idSize, nullptr, module))
    return rc;
  if (const uint32_t rc = linkDependent(parent, &record, id, idSize, 0)) return rc;
  markRecreation(made, false);
  return trelActivateNode(&made);
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
    SNodeInfo_t info = {};
    if (const uint32_t rc = recreation.copy(newNode, &info, size)) return flow.fail(rc);
    return recreation.replace(*newNode, info);
  });
}
