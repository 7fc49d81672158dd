// From records and headers to nodes of this process.
#include "trel/segment.h"
#include "treli/reach.h"
#include "treli/slot.h"
#include "treli/top_node.h"

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
    if (!segInfo->shmDomainHandle) return flow.logged(TREL_RC_DOMAIN_HANDLE_NULL, nullptr);
    TopNodeInfo_t top;
    const uint32_t rc = findTopNode(segInfo, &top, node);
    return rc ? flow.fail(rc) : 0;
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
    TopNodeInfo_t top = {};
    const uint32_t rc = readTopNode(domain, &top);
    if (top.poolOffset) {  // it was read
      *tag = top.tag;
      *nodeOffset = top.nodeOffset;
      *poolOffset = top.poolOffset;
    }
    return rc ? flow.fail(rc) : 0;
  });
}

uint32_t trelPutTopNodeInfoIntoDomainHeader(ShmDomainHandle_t* domain, uint64_t tag,
                                            uint64_t nodeOffset, uint32_t poolOffset) {
  return traced(FID_trelPutTopNodeInfoIntoDomainHeader, [&](const Flow& flow) -> uint32_t {
    if (!domain) return flow.logged(TREL_RC_DOMAIN_HANDLE_NULL, domain);
    if (!domain->base) return flow.logged(TREL_RC_BASE_NULL, domain);
    const uint32_t rc = writeTopNode(domain, {tag, nodeOffset, poolOffset});
    return rc ? flow.fail(rc) : 0;
  });
}

uint32_t trelGetParentNodeLocation(SNodeCB_t* node, SNodeInfo_t** parent) {
  return traced(FID_trelGetParentNodeLocation, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!parent) return flow.fail(TREL_RC_NODE_INFO_NULL);
    Section section;
    return parentOf(node, &section, parent);
  });
}

uint32_t trelGetParentNodeIdentifier(SNodeCB_t* node, uint64_t* idSize, uint8_t** id) {
  return traced(FID_trelGetParentNodeIdentifier, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!idSize) return flow.fail(TREL_RC_ID_SIZES_NULL);
    if (!id) return flow.fail(TREL_RC_ID_NULL);
    Section section;
    SNodeInfo_t* parent = nullptr;
    if (const uint32_t rc = parentOf(node, &section, &parent)) return flow.fail(rc);
    const uint64_t size = once(parent->idSize);
    if (size > section.size - sizeof(ParentSection_t)) return flow.fail(TREL_RC_ID_BOUNDS);
    *idSize = size;
    if (size) *id = section.at(sizeof(ParentSection_t));
    return 0;
  });
}
