// From records and headers to nodes of this process.
#include "trel/segment.h"
#include "treli/attach_latch.h"
#include "treli/reach.h"
#include "treli/section.h"
#include "trelshm/handle.h"
#include "trelshm/store.h"

namespace trel {
namespace {

// The tests that top node fields have to pass wherever they are read or written.
uint32_t checkTop(const Heap& domain, uint64_t tag, uint64_t nodeOffset, uint32_t poolOffset) {
  if (tag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  if (nodeOffset < domain.offset() || nodeOffset > domain.size()) return TREL_RC_TOP_NODE_BOUNDS;
  if (poolOffset < domain.offset() || poolOffset > domain.size()) return TREL_RC_TOP_POOL_BOUNDS;
  return 0;
}

uint32_t openDomain(Heap* domain) {
  if (domain->header()->heapState != TREL_DOMAIN_STATE) return TREL_RC_DOMAIN_STATE;
  return domain->openHeader();
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelGetControlBlockPtrFromSNodeInfo(const SNodeInfo_t* record, SNodeCB_t** node) {
  return traced(FID_trelGetControlBlockPtrFromSNodeInfo, [&](const Flow& flow) -> uint32_t {
    if (!record) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    Reached reached;
    if (const uint32_t rc = locateNode(record, &reached)) return flow.fail(rc);
    *node = reached.node;
    return 0;
  });
}

uint32_t trelGetControlBlockPtrFromSNodeInfoInPM(const SNodeInfo_t* record, SNodeCB_t** node) {
  return traced(FID_trelGetControlBlockPtrFromSNodeInfoInPM, [&](const Flow& flow) -> uint32_t {
    if (!record) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    *node = at<SNodeCB_t>(nullptr, record->nodeOffset);
    return 0;
  });
}

uint32_t trelGetShmSegInfoPtrUsingSNodeInfo(const SNodeInfo_t* record, SNodeCB_t** node,
                                            ShmSegInfo_t** segInfo, ShmSegInfo_t* current,
                                            uint32_t* otherSegment, uint32_t options) {
  return traced(FID_trelGetShmSegInfoPtrUsingSNodeInfo, [&](const Flow& flow) -> uint32_t {
    if (!record) return flow.fail(TREL_RC_NODE_INFO_NULL);
    if (!otherSegment) return flow.fail(TREL_RC_OUT_OTHER_SEGMENT);
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    Reached reached;
    if (const uint32_t rc = locateNode(record, &reached, current, otherSegment, options))
      return flow.fail(rc);
    *node = reached.node;
    *segInfo = reached.segInfo;
    return 0;
  });
}

uint32_t trelGetTopNodeCBPtrFromShmSegInfo(ShmSegInfo_t* segInfo, SNodeCB_t** node) {
  return traced(FID_trelGetTopNodeCBPtrFromShmSegInfo, [&](const Flow& flow) -> uint32_t {
    if (!segInfo) return flow.fail(TREL_RC_SEGMENT_NULL);
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    TopNodeInfo_t top;
    if (const uint32_t rc = trelGetTopNodeInfoFromDomainHeader(segInfo->shmDomainHandle, &top.tag,
                                                               &top.nodeOffset, &top.poolOffset))
      return flow.fail(rc);
    if (segInfo->identity.handleVersion != TREL_STRUCTURE_VERSION)
      return flow.fail(TREL_RC_HANDLE_VERSION);
    *node = at<SNodeCB_t>(segInfo->shmDomainHandle->base, top.nodeOffset);
    return 0;
  });
}

uint32_t trelGetTopNodeInfoFromDomainHeader(ShmDomainHandle_t* domain, uint64_t* tag,
                                            uint64_t* nodeOffset, uint32_t* poolOffset) {
  return traced(FID_trelGetTopNodeInfoFromDomainHeader, [&](const Flow& flow) -> uint32_t {
    if (!domain) return flow.logged(TREL_RC_DOMAIN_HANDLE_NULL, domain);
    if (!domain->base) return flow.logged(TREL_RC_BASE_NULL, domain);
    if (!tag) return flow.logged(TREL_RC_OUT_TOP_TAG, tag);
    if (!nodeOffset) return flow.logged(TREL_RC_OUT_TOP_OFFSET, nodeOffset);
    if (!poolOffset) return flow.logged(TREL_RC_OUT_TOP_POOL, poolOffset);
    Heap heap = heapOf(domain);
    if (const uint32_t rc = openDomain(&heap)) return flow.fail(rc);
    TopNodeInfo_t top;
    const uint32_t read = insideHeap(&heap, [&]() -> uint32_t {
      top.poolOffset = static_cast<uint32_t>(heap.header()->topPool);
      top.nodeOffset = heap.topNodeOffset();
      top.tag = heap.topNodeTag();
      if (heap.header()->topPool == 0) return TREL_RC_NO_TREE;
      return top.nodeOffset == 0 ? uint32_t{TREL_RC_NO_TOP_NODE} : 0;
    });
    if (read) return flow.fail(read);
    *tag = top.tag;
    *nodeOffset = top.nodeOffset;
    *poolOffset = top.poolOffset;
    return checkTop(heap, top.tag, top.nodeOffset, top.poolOffset);
  });
}

uint32_t trelPutTopNodeInfoIntoDomainHeader(ShmDomainHandle_t* domain, uint64_t tag,
                                            uint64_t nodeOffset, uint32_t poolOffset) {
  return traced(FID_trelPutTopNodeInfoIntoDomainHeader, [&](const Flow& flow) -> uint32_t {
    if (!domain) return flow.logged(TREL_RC_DOMAIN_HANDLE_NULL, domain);
    if (!domain->base) return flow.logged(TREL_RC_BASE_NULL, domain);
    Heap heap = heapOf(domain);
    if (const uint32_t rc = openDomain(&heap)) return flow.fail(rc);
    if (const uint32_t rc = checkTop(heap, tag, nodeOffset, poolOffset)) return flow.fail(rc);
    return insideHeap(&heap, [&]() -> uint32_t {
      // Without a pool there is no tree, so a writer that dies half way leaves none.
      storeLast(&heap.header()->topPool, 0);
      heap.topNodeOffset() = nodeOffset;
      heap.topNodeTag() = tag;
      storeLast(&heap.header()->topPool, poolOffset);
      return 0;
    });
  });
}

uint32_t trelGetParentNodeLocation(SNodeCB_t* node, SNodeInfo_t** parent) {
  return traced(FID_trelGetParentNodeLocation, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!parent) return flow.fail(TREL_RC_NODE_INFO_NULL);
    ExportSlot_t* slot = nullptr;
    return parentOf(node, &slot, parent);
  });
}

uint32_t trelGetParentNodeIdentifier(SNodeCB_t* node, uint64_t* idSize, uint8_t** id) {
  return traced(FID_trelGetParentNodeIdentifier, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!idSize) return flow.fail(TREL_RC_ID_SIZES_NULL);
    if (!id) return flow.fail(TREL_RC_ID_NULL);
    ExportSlot_t* slot = nullptr;
    SNodeInfo_t* parent = nullptr;
    if (const uint32_t rc = parentOf(node, &slot, &parent)) return flow.fail(rc);
    const uint64_t size = parent->idSize;
    if (size > slot->size - sizeof(ParentSection_t)) return flow.fail(TREL_RC_ID_BOUNDS);
    *idSize = size;
    if (size) *id = inSection(node, slot, sizeof(ParentSection_t));
    return 0;
  });
}
