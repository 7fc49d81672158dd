// The copy of a node.
#include "treli/node_copy.h"

#include "trel/copy.h"
#include "trelshm/flow.h"

using namespace trel;

uint32_t trelCopyNode(ShmSegInfo_t* srcSegInfo, ShmSegInfo_t* dstSegInfo, SNodeCB_t* src,
                      SNodeCB_t** dst, uint64_t parentNodeOffset, uint64_t parentSegInfoOffset,
                      uint64_t parentHdmInfoOffset, uint64_t parentSegBase,
                      const HdmModuleRecord_t* hdmModule, const uint64_t* nodeTag,
                      const uint64_t* idSize, const uint64_t* maxIdSize, const uint8_t* id,
                      SNodeInfo_t* info, uint8_t* idOut, uint64_t* idSizeOut,
                      uint64_t* maxIdSizeOut, uint64_t* nodeSize, uint32_t copyDirection,
                      uint32_t copyLimits, uint32_t copyDependents) {
  return traced(FID_trelCopyNode, [&](const Flow& flow) -> uint32_t {
    const NodeCopy wanted{
        srcSegInfo,   copyDirection == TREL_COPY_SHM_TO_PM ? nullptr : dstSegInfo,
        src,          {parentNodeOffset, parentSegInfoOffset, parentHdmInfoOffset, parentSegBase},
        hdmModule,    nodeTag,
        idSize,       maxIdSize,
        id,           info,
        idOut,        idSizeOut,
        maxIdSizeOut, copyDirection,
        copyLimits};
    if (!dst) return flow.fail(TREL_RC_NODE_NULL);
    if (const uint32_t rc = checkCopy(wanted, copyDependents)) return flow.fail(rc);
    if (!nodeSize) return flow.fail(TREL_RC_OUT_NODE_SIZE);
    return copyNode(wanted, copyDependents, dst, nodeSize);
  });
}

uint32_t trelCopyNodeData(SNodeCB_t* src, SNodeCB_t* dst, uint64_t parentNodeOffset,
                          uint64_t parentSegInfoOffset, uint64_t parentHdmInfoOffset,
                          uint64_t parentSegBase, uint64_t nodeOffset,
                          const NodeCopyLimits_t* limits, const HdmModuleRecord_t* hdmModule,
                          const uint64_t* nodeTag, const uint64_t* idSize,
                          const uint64_t* maxIdSize, const uint8_t* id, SNodeInfo_t* info,
                          uint8_t* idOut, uint64_t* idSizeOut, uint64_t* maxIdSizeOut,
                          ShmSegInfo_t* dstSegInfo) {
  return traced(FID_trelCopyNodeData, [&](const Flow& flow) -> uint32_t {
    if (!src || !dst) return flow.fail(TREL_RC_NODE_NULL);
    if (!limits) return flow.fail(TREL_RC_LIST_RECORD_NULL);
    const ParentPlace parent{parentNodeOffset, parentSegInfoOffset, parentHdmInfoOffset,
                             parentSegBase};
    const NodeCopy wanted{nullptr, dstSegInfo, src,          parent, hdmModule,
                          nodeTag, idSize,     maxIdSize,    id,     info,
                          idOut,   idSizeOut,  maxIdSizeOut, 0,      0};
    if (const uint32_t rc = checkCopyName(wanted, limits->copyDependents)) return flow.fail(rc);
    return copyNodeData(wanted, dst, nodeOffset, *limits);
  });
}
