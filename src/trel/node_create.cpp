// Creation of a node in process memory, and initialisation of any node.
#include <string.h>

#include "platsvc/memory.h"
#include "trel/node.h"
#include "treli/node_making.h"
#include "treli/options.h"

namespace trel {
namespace {

// The sections that trelInitNode fills, in its order, with the bytes that each needs.
struct FixedSection {
  uint32_t bit;
  uint64_t need;
};

struct Initialisation {
  uint64_t nodeOffset;
  uint64_t idSize;
  const uint8_t* id;
  SNodeInfo_t* parent;
  const uint8_t* parentId;
  uint64_t maxIdSize;
  const uint8_t* record24;
  const HdmModuleRecord_t* module;
  uint64_t parentIdSize = 0;  // set by check()

  uint32_t check(uint64_t exports);
  uint32_t checkRoom(SNodeCB_t* node) const;
  uint32_t fill(SNodeCB_t* node) const;

 private:
  void fillSection(Section* section, uint32_t bit) const;
  template <class Use>
  uint32_t forEachSection(SNodeCB_t* node, Use&& use) const;
};

uint32_t Initialisation::check(uint64_t exports) {
  if (exports & (TREL_EXPORT_ID | TREL_EXPORT_PARENT)) {
    if (maxIdSize > TREL_MAX_ID_SIZE) return TREL_RC_NODE_ID_MAX;
    maxIdSize = round8(maxIdSize);
  }
  if (exports & TREL_EXPORT_ID) {
    if (!id) return TREL_RC_ID_NULL;
    if (idSize > maxIdSize) return TREL_RC_NODE_ID_SIZE;
  }
  if (exports & TREL_EXPORT_PARENT) {
    if (!parent) return TREL_RC_NODE_INFO_NULL;
    parentIdSize = parent->idSize;  // once: the record may lie in shared memory
    if (parentIdSize > maxIdSize) return TREL_RC_NODE_ID_SIZE;
    if (parentIdSize != 0 && !parentId) return TREL_RC_ID_NULL;
  }
  if ((exports & TREL_EXPORT_HDM_MODULE) && !module) return TREL_RC_MODULE_NULL;
  if ((exports & TREL_EXPORT_RECORD24) && !record24) return TREL_RC_RECORD24_NULL;
  return 0;
}

// use(fixed, rc, &section) for each of the node's fixed sections, rc being its slot's own failure.
template <class Use>
uint32_t Initialisation::forEachSection(SNodeCB_t* node, Use&& use) const {
  const FixedSection sections[] = {{TREL_EXPORT_ID, sizeof(IdSection_t) + maxIdSize},
                                   {TREL_EXPORT_PARENT, sizeof(ParentSection_t) + maxIdSize},
                                   {TREL_EXPORT_HDM_MODULE, sizeof(HdmModuleRecord_t)},
                                   {TREL_EXPORT_RECORD24, 24},
                                   {TREL_EXPORT_CHANGE_LIST, sizeof(ChangeListSection_t)}};
  const uint64_t exports = once(node->exports);
  for (const FixedSection& fixed : sections) {
    if (!(exports & fixed.bit)) continue;
    Section section;
    const uint32_t found = openSection(node, fixed.bit, &section);
    if (const uint32_t rc = use(fixed, found, &section)) return rc;
  }
  return 0;
}

// A slot that cannot be looked up is not judged here: its own code comes up when it is filled.
uint32_t Initialisation::checkRoom(SNodeCB_t* node) const {
  return forEachSection(
      node, [](const FixedSection& fixed, uint32_t found, const Section* section) -> uint32_t {
        return found == 0 && section->size < fixed.need ? uint32_t{TREL_RC_SLOT_USED} : 0;
      });
}

uint32_t Initialisation::fill(SNodeCB_t* node) const {
  return forEachSection(node, [&](const FixedSection& fixed, uint32_t found, Section* section) {
    if (found == 0) fillSection(section, fixed.bit);
    return found;
  });
}

void Initialisation::fillSection(Section* section, uint32_t bit) const {
  const auto use = [&](uint64_t bytes) { storeUsed(section, bit, bytes); };
  switch (bit) {
    case TREL_EXPORT_ID: {
      auto* header = section->at<IdSection_t>();
      header->maxIdSize = maxIdSize;
      header->idSize = idSize;
      memmove(header + 1, id, idSize);
      return use(sizeof *header + idSize);
    }
    case TREL_EXPORT_PARENT: {
      auto* header = section->at<ParentSection_t>();
      header->maxIdSize = maxIdSize;
      header->parent = *parent;
      header->parent.selfOffset = nodeOffset + section->offset + offsetof(ParentSection_t, parent);
      header->parent.idSize = parentIdSize;
      if (parentIdSize) memmove(header + 1, parentId, parentIdSize);
      return use(sizeof *header + parentIdSize);
    }
    case TREL_EXPORT_HDM_MODULE:
      *section->at<HdmModuleRecord_t>() = *module;
      return use(sizeof *module);
    case TREL_EXPORT_RECORD24:
      memcpy(section->at(), record24, 24);
      return use(24);
    default: {
      auto* list = section->at<ChangeListSection_t>();
      memset(list, 0, sizeof *list);
      list->exports = once(section->node->exports);
      use(sizeof *list);
    }
  }
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelCreateNodeInPM(SNodeCB_t** node, uint64_t exports, const uint64_t sizes[64],
                            uint64_t* nodeSize, uint64_t* nodeOffset, uint32_t version,
                            uint32_t latchVersion) {
  return traced(FID_trelCreateNodeInPM, [&](const Flow& flow) -> uint32_t {
    if (const uint32_t rc = checkCreation(node, sizes, nodeSize, nodeOffset)) return flow.fail(rc);
    uint64_t total = 0;
    if (const uint32_t rc = sumSizes(sizes, &total)) return flow.fail(rc, &total, sizeof total);
    *nodeSize = total;
    if (version != TREL_STRUCTURE_VERSION) return flow.fail(TREL_RC_HANDLE_VERSION);
    const uint32_t rc = makeNodeInPM(exports, sizes, total, latchVersion, node, nodeOffset);
    return rc ? flow.fail(rc, &total, sizeof total) : 0;
  });
}

uint32_t trelInitNode(SNodeCB_t** node, uint64_t nodeOffset, uint64_t idSize, const uint8_t* id,
                      SNodeInfo_t* parent, const uint8_t* parentId, uint64_t maxIdSize,
                      const uint8_t* record24, const HdmModuleRecord_t* module,
                      const NodeOptions_t* options) {
  return traced(FID_trelInitNode, [&](const Flow& flow) -> uint32_t {
    if (!node || !*node) return flow.fail(TREL_RC_NODE_NULL);
    SNodeCB_t* n = *node;
    Initialisation init{nodeOffset, idSize, id, parent, parentId, maxIdSize, record24, module};
    if (const uint32_t rc = init.check(n->exports)) return flow.fail(rc);
    NodeOptions_t wanted;
    if (const uint32_t rc = readOptions(options, TREL_CONDITION_INITIALISED, &wanted))
      return flow.fail(rc);
    if (const uint32_t rc = init.checkRoom(n)) return flow.fail(rc);
    return within<Access::write>(n, 0, [&]() -> uint32_t {
      n->tag = 0;
      n->nodeOffset = nodeOffset;
      n->eyeCatcher1 = TREL_EYE_CATCHER1;
      n->eyeCatcher2 = TREL_EYE_CATCHER2;
      storeOptions(n, wanted);
      PLATVAtomicSigned32* const counters[] = {&n->spareCounter2, &n->spareCounter1,
                                               &n->reconfigCounter, &n->updateCounter};
      for (PLATVAtomicSigned32* counter : counters) PLATVAtomicSigned32::init(counter, 0, 1);
      return init.fill(n);
    });
  });
}
