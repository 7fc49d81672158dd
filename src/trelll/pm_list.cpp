// The lists in process memory.
#include "trel/segment.h"
#include "trelll/enter.h"
#include "trelll/list.h"
#include "trelshm/bytes.h"
#include "trelshm/process_memory.h"

PMSegListNode_t trelSegLLHeader = {nullptr, {0, 0, 0, 0, {PLAT_STRUCTURE_TAG, 0}, 0, 0}};
PMHdmListNode_t trelHDMLLHeader = {nullptr, {{0}, {0}}};

namespace trel {
namespace {

// A header has the form of a node: its `next` is the head.
template <class EntryType>
class PrivateList {
 public:
  using Entry = EntryType;
  using Node = typename Entry::PrivateNode;
  using Link = Node*;
  static constexpr bool kEmptyKeepsOut = false;

  explicit PrivateList(Node* header) : header_(header) {}

  Link* head() const { return &header_->next; }
  static Link* linkOf(Node* node) { return &node->next; }
  static uint32_t version() { return trelSegLLHeader.identity.handleVersion; }

  static uint32_t follow(const Link* link, uint64_t, Node** node) {
    *node = *link;
    return 0;
  }
  static uint32_t make(Node** node) { return obtain(node); }
  static void link(Link* from, Node* node) { *from = node; }
  static uint32_t drop(Link* from, Node* node) {
    *from = node->next;
    return release(&node);
  }

 private:
  Node* header_;
};

template <class Work>
uint32_t onSegments(uint32_t function, bool argumentsGiven, Work&& work) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (!argumentsGiven) return flow.fail(TREL_RC_LIST_RECORD_NULL);
    return work(PrivateList<SegmentEntry>(&trelSegLLHeader));
  });
}

template <class Work>
uint32_t onModules(uint32_t function, bool argumentsGiven, Work&& work) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (!argumentsGiven) return flow.fail(TREL_RC_LIST_RECORD_NULL);
    return work(PrivateList<ModuleEntry>(&trelHDMLLHeader));
  });
}

}  // namespace

uint32_t enterModuleInPM(const HdmModuleRecord_t* module, uint64_t* offset) {
  HdmModuleRecord_t* listed = nullptr;
  const uint32_t rc = findOrInsert(PrivateList<ModuleEntry>(&trelHDMLLHeader),
                                   module ? *module : kNoModule, &listed);
  if (rc == 0) *offset = offsetOf(listed, nullptr);
  return rc;
}

}  // namespace trel

using namespace trel;

uint32_t trelFindAttachSegInfoNodeInPMLList(const SegIdentity_t* record, SegIdentity_t** segment) {
  return onSegments(FID_trelFindAttachSegInfoNodeInPMLList, record && segment,
                    [&](const auto& list) { return find(list, *record, segment); });
}

uint32_t trelInsertAttachSegInfoNodeIntoPMLList(const SegIdentity_t* record,
                                                SegIdentity_t** segment) {
  return onSegments(FID_trelInsertAttachSegInfoNodeIntoPMLList, record && segment,
                    [&](const auto& list) { return insert(list, *record, segment); });
}

uint32_t trelDeleteAttachSegInfoNodeFromPMLList(const SegIdentity_t* record) {
  return onSegments(FID_trelDeleteAttachSegInfoNodeFromPMLList, record,
                    [&](const auto& list) { return remove(list, *record); });
}

uint32_t trelDeleteAttachSegInfoPMLList(void) {
  return onSegments(FID_trelDeleteAttachSegInfoPMLList, true,
                    [](const auto& list) { return clear(list); });
}

uint32_t trelPrintAttachSegInfoNodePMLList(void) {
  return onSegments(FID_trelPrintAttachSegInfoNodePMLList, true,
                    [](const auto& list) { return print(list, stdout); });
}

uint32_t trelFindHDMNodeInPMLList(const HdmModuleRecord_t* record, HdmModuleRecord_t** module) {
  return onModules(FID_trelFindHDMNodeInPMLList, record && module,
                   [&](const auto& list) { return find(list, *record, module); });
}

uint32_t trelInsertHDMNodeIntoPMLList(const HdmModuleRecord_t* record, HdmModuleRecord_t** module) {
  return onModules(FID_trelInsertHDMNodeIntoPMLList, record && module,
                   [&](const auto& list) { return insert(list, *record, module); });
}

uint32_t trelDeleteHDMNodeFromPMLList(const HdmModuleRecord_t* record) {
  return onModules(FID_trelDeleteHDMNodeFromPMLList, record,
                   [&](const auto& list) { return remove(list, *record); });
}

uint32_t trelDeleteHDMPMLList(void) {
  return onModules(FID_trelDeleteHDMPMLList, true, [](const auto& list) { return clear(list); });
}

uint32_t trelPrintHDMNodePMLList(void) {
  return onModules(FID_trelPrintHDMNodePMLList, true,
                   [](const auto& list) { return print(list, stdout); });
}
