#include "trelll/attach_list.h"

#include "trel/segment.h"
#include "trelll/list.h"
#include "trelshm/mapping.h"
#include "trelshm/process_memory.h"

uint32_t trelAPIIsInitialized = TREL_API_UNINITIALISED;
uint8_t trelSegAttachLatch = 0;
SegAttachNode_t** pSegAttachList = nullptr;
GASegInfo_t trelGASegInfo = {0, {{0, 0, 0, 0, {PLAT_STRUCTURE_TAG, 0}, 0, 0}, nullptr, nullptr}};
uint32_t trelGARefCount = 0;

namespace trel {
namespace {

const SegAttachNode_t* headAsLeft = nullptr;
bool hasStrangers = false;

// Runs change(), after which the list is as the library left it if it was so before.
template <class Change>
void changeList(Change&& change) {
  const bool isAsLeft = *pSegAttachList == headAsLeft;
  change();
  if (isAsLeft) headAsLeft = *pSegAttachList;
  if (!headAsLeft) hasStrangers = false;
}

// The link to the first node whose key is equal, or differs, as wanted; or to the end of the list.
uint32_t seekKey(uint32_t key, bool equal, SegAttachNode_t*** link) {
  for (*link = pSegAttachList; **link; *link = &(**link)->next) {
    const SegIdentity_t& present = (**link)->segInfo->identity;
    int32_t order = 0;
    if (compareKeys(key, present.segmentKey.key, present.handleVersion, &order))
      return TREL_RC_COMPARE_KEY;
    if ((order == 0) == equal) return 0;
  }
  return 0;
}

template <class Work>
uint32_t onAttachList(uint32_t function, Work&& work) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (trelAPIIsInitialized != TREL_API_INITIALISED) return flow.fail(TREL_RC_NOT_INITIALISED);
    return work(flow);
  });
}

}  // namespace

bool attachListIsOurs() { return !hasStrangers && *pSegAttachList == headAsLeft; }

void linkAttachment(SegAttachNode_t* node) {
  changeList([&] {
    node->next = *pSegAttachList;
    *pSegAttachList = node;
  });
}

SegAttachNode_t* unlinkAttachment(const ShmSegInfo_t* segInfo) {
  SegAttachNode_t** link = pSegAttachList;
  while (*link && (*link)->segInfo != segInfo) link = &(*link)->next;
  SegAttachNode_t* const node = *link;
  if (node) changeList([&] { *link = node->next; });
  return node;
}

void distrustAttachList() { hasStrangers = true; }

void beginAttachList() {
  hideAllAttachments();
  *pSegAttachList = nullptr;
  headAsLeft = nullptr;
  hasStrangers = false;
}

}  // namespace trel

using namespace trel;

uint32_t trelCompareSegID(const PLATIPCResID* key1, const PLATIPCResID* key2, uint32_t version,
                          int32_t* result) {
  return traced(FID_trelCompareSegID, [&](const Flow& flow) -> uint32_t {
    if (!key1 || !key2) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (!result) return flow.fail(TREL_RC_OUT_COMPARISON);
    return compareKeys(key1->key, key2->key, version, result);
  });
}

uint32_t trelFindAttachInfoNodeInLList(const PLATIPCResID* key, SegAttachNode_t** node) {
  return onAttachList(FID_trelFindAttachInfoNodeInLList, [&](const Flow& flow) -> uint32_t {
    if (!key || !node) return flow.fail(TREL_RC_SEGMENT_NULL);
    SegAttachNode_t** link = nullptr;
    if (const uint32_t rc = seekKey(key->key, true, &link)) return flow.fail(rc);
    *node = *link;
    return 0;
  });
}

// The new node goes in front of the first node of another key: to the head, but behind nodes of its
// own key there.
uint32_t trelInsertAttachInfoNodeIntoLList(const ShmSegInfo_t* segInfo, SegAttachNode_t** node) {
  return onAttachList(FID_trelInsertAttachInfoNodeIntoLList, [&](const Flow& flow) -> uint32_t {
    if (!segInfo || !node || !*node) return flow.fail(TREL_RC_SEGMENT_NULL);
    SegAttachNode_t** link = nullptr;
    if (const uint32_t rc = seekKey(segInfo->identity.segmentKey.key, false, &link))
      return flow.fail(rc);
    changeList([&] {
      (*node)->next = *link;
      *link = *node;
    });
    distrustAttachList();
    return 0;
  });
}

uint32_t trelDeleteAttachInfoNodeInLList(const PLATIPCResID* key) {
  return onAttachList(FID_trelDeleteAttachInfoNodeInLList, [&](const Flow& flow) -> uint32_t {
    if (!key) return flow.fail(TREL_RC_SEGMENT_NULL);
    SegAttachNode_t** link = nullptr;
    if (const uint32_t rc = seekKey(key->key, true, &link)) return flow.fail(rc);
    SegAttachNode_t* node = *link;
    if (!node) return 0;
    changeList([&] { *link = node->next; });
    hideAttachment(node->segInfo);
    const uint32_t rc = release(&node->segInfo);
    return firstOf(rc, release(&node));
  });
}

uint32_t trelPrintAttachInfoNodeLList(void) {
  return onAttachList(FID_trelPrintAttachInfoNodeLList, [](const Flow&) -> uint32_t {
    int number = 0;
    for (const SegAttachNode_t* node = *pSegAttachList; node; node = node->next)
      printf(kSegmentLine, ++number, static_cast<int>(node->segInfo->identity.segmentKey.key));
    return 0;
  });
}
