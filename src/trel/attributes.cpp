// Size, tag, identifier, exports and counters of a node.
#include <string.h>

#include "trel/node.h"
#include "treli/node_lock.h"

using namespace trel;

uint32_t trelGetPExportPointer(ExportSlot_t** slot, SNodeCB_t* node, uint32_t exportBit) {
  return traced(FID_trelGetPExportPointer, [&](const Flow& flow) -> uint32_t {
    if (!node || !slot) return flow.fail(TREL_RC_NODE_NULL);
    Section section;
    return readSlot(node, exportBit, slot, &section);
  });
}

uint32_t trelReturnExports(SNodeCB_t* node, uint64_t* exports) {
  return traced(FID_trelReturnExports, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!exports) return flow.fail(TREL_RC_OUT_EXPORTS);
    uint64_t found = 0;
    const uint32_t rc = reading(node, 0, accept::usable, [&]() -> uint32_t {
      found = once(node->exports);
      return 0;
    });
    if (rc == 0) *exports = found;
    return rc;
  });
}

uint32_t trelReturnRegisterSize(SNodeCB_t* node, uint64_t* size) {
  return traced(FID_trelReturnRegisterSize, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!size) return flow.fail(TREL_RC_OUT_REGISTER_SIZE);
    const uint32_t rc = reading(node, 0, accept::settled, [] { return 0u; });
    if (rc == 0) *size = sizeof(int32_t);
    return rc;
  });
}

uint32_t trelGetNodeReconfigCounter(SNodeCB_t* node, uint64_t* counter) {
  return traced(FID_trelGetNodeReconfigCounter, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    int32_t value = 0;
    if (!counter || PLATVAtomicSigned32::add(&node->reconfigCounter, 0, &value))
      return flow.fail(TREL_RC_ATOMIC);
    *counter = static_cast<uint64_t>(int64_t{value});
    return 0;
  });
}

uint32_t trelGetNodeSize(SNodeCB_t* node, uint64_t* size, uint64_t inCriticalSection) {
  return traced(FID_trelGetNodeSize, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!size) return flow.fail(TREL_RC_OUT_NODE_SIZE);
    uint64_t found = 0;
    const uint32_t rc = reading(node, inCriticalSection, accept::settled, [&]() -> uint32_t {
      found = once(node->nodeSize);
      return found == 0 || found > TREL_MAX_NODE_SIZE || found > bytesMappedFrom(node)
                 ? uint32_t{TREL_RC_NODE_SIZE}
                 : 0;
    });
    if (rc == 0) *size = found;
    return rc;
  });
}

uint32_t trelGetNodeTag(SNodeCB_t* node, uint64_t* tag, uint64_t inCriticalSection) {
  return traced(FID_trelGetNodeTag, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!tag) return flow.fail(TREL_RC_OUT_NODE_TAG);
    uint64_t found = 0;
    const uint32_t rc = reading(node, inCriticalSection, accept::settled, [&]() -> uint32_t {
      found = once(node->tag);
      return found > TREL_MAX_TAG ? uint32_t{TREL_RC_TAG_RANGE} : 0;
    });
    if (rc == 0) *tag = found;
    return rc;
  });
}

uint32_t trelSetNodeTag(SNodeCB_t* node, uint64_t tag, uint64_t inCriticalSection) {
  return traced(FID_trelSetNodeTag, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    return writing(node, inCriticalSection, accept::settled, [&]() -> uint32_t {
      if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE, &tag, sizeof tag);
      node->tag = tag;
      return 0;
    });
  });
}

uint32_t trelGetNodeID(SNodeCB_t* node, uint8_t** id, uint64_t* idSize,
                       uint64_t inCriticalSection) {
  return traced(FID_trelGetNodeID, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!idSize) return flow.fail(TREL_RC_ID_SIZES_NULL);
    if (!id) return flow.fail(TREL_RC_ID_NULL);
    const uint32_t rc = findNodeId(node, inCriticalSection, id, idSize);
    return rc ? flow.fail(rc) : 0;
  });
}

uint32_t trelSetNodeID(SNodeCB_t* node, const uint8_t* id, uint64_t idSize, uint64_t maxIdSize,
                       uint64_t inCriticalSection) {
  return traced(FID_trelSetNodeID, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!id) return flow.fail(TREL_RC_ID_NULL);
    return within<Access::write>(node, inCriticalSection, [&]() -> uint32_t {
      if (!(once(node->exports) & TREL_EXPORT_ID)) return flow.fail(TREL_RC_SET_ID_NO_EXPORT);
      if (maxIdSize > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_SET_ID_MAX);
      const uint64_t maximum = round8(maxIdSize);
      if (idSize > maximum) return flow.fail(TREL_RC_SET_ID_SIZE);
      Section section;
      if (const uint32_t rc = openSection(node, TREL_EXPORT_ID, &section)) return flow.fail(rc);
      auto* header = section.at<IdSection_t>();
      if (section.size < sizeof *header + idSize) return flow.fail(TREL_RC_SLOT_USED);
      if (const uint32_t rc = checkCondition(node, accept::settled)) return flow.fail(rc);
      storeLast(&header->idSize, 0);  // rather none than a mixture of two
      header->maxIdSize = maximum;
      memmove(header + 1, id, idSize);
      storeLast(&header->idSize, idSize);
      storeUsed(&section, TREL_EXPORT_ID, sizeof *header + idSize);
      return 0;
    });
  });
}
