// The sizes of a node's sections, from the limits that it is to have.
#include "treli/sizing.h"

#include "trel/copy.h"
#include "treli/slot.h"

using namespace trel;

uint32_t trelGetMaxIDSizeForStatusNode(SNodeCB_t* node, uint32_t exportKind, uint64_t* size) {
  return traced(FID_trelGetMaxIDSizeForStatusNode, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!size) return flow.fail(TREL_RC_OUT_NODE_ID_MAX);
    if (exportKind != TREL_EXPORT_ID) return flow.fail(TREL_RC_EXPORT_BIT);
    if (!(once(node->exports) & TREL_EXPORT_ID)) {
      *size = 0;
      return 0;
    }
    Section section;
    if (const uint32_t rc = openSection(node, TREL_EXPORT_ID, &section)) return flow.fail(rc);
    const uint64_t stored =
        section.size < sizeof(IdSection_t) ? 0 : once(section.at<IdSection_t>()->maxIdSize);
    if (stored > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_NODE_ID_MAX, &stored, sizeof stored);
    *size = stored;
    return 0;
  });
}

uint32_t trelCreateMaxSpaceArray(uint64_t exports, uint64_t maxR, uint64_t hashR, uint64_t maxV,
                                 uint64_t maxVSize, uint64_t hashV, uint64_t maxIR,
                                 uint64_t irTagTableSize, uint64_t irIdTableSize,
                                 uint64_t maxIRIdSize, uint64_t hashIR, uint64_t maxIV,
                                 uint64_t ivTagTableSize, uint64_t ivIdTableSize,
                                 uint64_t maxIVIdSize, uint64_t maxIVSize, uint64_t hashIV,
                                 uint64_t maxNodeIdSize, uint64_t maxDependents, uint64_t sizes[64],
                                 uint64_t* total) {
  return traced(FID_trelCreateMaxSpaceArray, [&](const Flow& flow) -> uint32_t {
    if (!sizes) return flow.fail(TREL_RC_OUT_SPACE_ARRAY);
    if (!total) return flow.fail(TREL_RC_OUT_SPACE_TOTAL);
    NodeCopyLimits_t limits = {};
    limits.r = {maxR, 0, hashR, 0};
    limits.v = {maxV, 0, maxVSize, hashV, 0};
    limits.ir = {maxIR, irTagTableSize, irIdTableSize, maxIRIdSize, 0, hashIR, 0};
    limits.iv = {maxIV, ivTagTableSize, ivIdTableSize, maxIVIdSize, maxIVSize, 0, hashIV, 0};
    limits.maxNodeIdSize = maxNodeIdSize;
    limits.maxDependents = maxDependents;
    return sizeSections(exports, limits, sizes, total);
  });
}
