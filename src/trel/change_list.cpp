// Wishes for new limits, which the next copy of a node reads.
#include <string.h>

#include "trel/tree.h"
#include "treli/section.h"

using namespace trel;

uint32_t trelExportListOfChangedProperties(SNodeCB_t* node, uint64_t,
                                           const uint32_t changeList[58]) {
  return traced(FID_trelExportListOfChangedProperties, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!changeList) return flow.fail(TREL_RC_CHANGE_LIST_NULL);
    if (!(node->exports & TREL_EXPORT_CHANGE_LIST)) return flow.fail(TREL_RC_NO_CHANGE_LIST);
    static constexpr uint32_t kAboveLimit[] = {TREL_RC_COUNT_R, TREL_RC_COUNT_V, TREL_RC_COUNT_IR,
                                               TREL_RC_COUNT_IV, TREL_RC_DEPENDENT_COUNT};
    static_assert(TREL_MAX_PROPERTIES == TREL_MAX_DEPENDENTS, "one limit for all five words");
    for (uint32_t i = 0; i < 5; ++i)
      if (changeList[i] > TREL_MAX_PROPERTIES) return flow.fail(kAboveLimit[i]);
    ExportSlot_t* slot = nullptr;
    if (const uint32_t rc = sectionOf(node, TREL_EXPORT_CHANGE_LIST, &slot)) return flow.fail(rc);
    auto* section = inSection<ChangeListSection_t>(node, slot);
    if (slot->size < sizeof *section) return flow.fail(TREL_RC_NO_CHANGE_LIST);
    return writing(node, 0, accept::settled, [&]() -> uint32_t {
      if (slot->used == 0) {
        memset(section->words, 0, sizeof section->words);
        slot->used = sizeof *section;
      }
      section->exports = node->exports;
      for (uint32_t i = 0; i < TREL_CHANGE_WORDS; ++i)
        if (changeList[i]) section->words[i] = changeList[i];
      return 0;
    });
  });
}
