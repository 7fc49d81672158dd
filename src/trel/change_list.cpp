// Wishes for new limits, which the next copy of a node reads.
#include <string.h>

#include "trel/tree.h"
#include "treli/node_lock.h"

using namespace trel;

uint32_t trelExportListOfChangedProperties(SNodeCB_t* node, uint64_t,
                                           const uint32_t changeList[58]) {
  return traced(FID_trelExportListOfChangedProperties, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!changeList) return flow.fail(TREL_RC_CHANGE_LIST_NULL);
    if (!(once(node->exports) & TREL_EXPORT_CHANGE_LIST)) return flow.fail(TREL_RC_NO_CHANGE_LIST);
    static constexpr uint32_t kAboveLimit[] = {TREL_RC_COUNT_R, TREL_RC_COUNT_V, TREL_RC_COUNT_IR,
                                               TREL_RC_COUNT_IV, TREL_RC_DEPENDENT_COUNT};
    static_assert(TREL_MAX_PROPERTIES == TREL_MAX_DEPENDENTS, "one limit for all five words");
    for (uint32_t i = 0; i < 5; ++i)
      if (changeList[i] > TREL_MAX_PROPERTIES) return flow.fail(kAboveLimit[i]);
    return within<Access::write>(node, 0, [&]() -> uint32_t {
      Section section;
      if (const uint32_t rc = openSection(node, TREL_EXPORT_CHANGE_LIST, &section))
        return flow.fail(rc);
      if (section.size < sizeof(ChangeListSection_t)) return flow.fail(TREL_RC_NO_CHANGE_LIST);
      if (const uint32_t rc = checkCondition(node, accept::settled)) return flow.fail(rc);
      auto* list = section.at<ChangeListSection_t>();
      if (section.used == 0) {
        memset(list->words, 0, sizeof list->words);
        storeUsed(&section, TREL_EXPORT_CHANGE_LIST, sizeof *list);
      }
      list->exports = once(node->exports);
      for (uint32_t i = 0; i < TREL_CHANGE_WORDS; ++i)
        if (changeList[i]) list->words[i] = changeList[i];
      return 0;
    });
  });
}
