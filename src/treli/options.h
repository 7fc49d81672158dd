// The options of a node, with their defaults, and the clock's tick.
#pragma once

#include "platsvc/time.h"
#include "trel/records.h"
#include "trelshm/flow.h"

namespace trel {

inline uint64_t currentTick() {
  PLATTime now = {};
  platTimeGetUTC(&now);
  return now.tick;
}

// Reads the caller's options, null for all defaults. Word 3 takes its default from the operation.
inline uint32_t readOptions(const NodeOptions_t* given, uint32_t defaultCondition,
                            NodeOptions_t* options) {
  *options = given ? *given : NodeOptions_t{};
  const auto take = [](uint32_t* word, uint32_t byDefault) {
    if (*word == 0) *word = byDefault;
  };
  take(&options->optionWord5, 200);
  take(&options->updateInterval, 200);
  take(&options->updateMode, TREL_UPDATE_BY_COUNTER);
  take(&options->concurrencyModel, 1);
  switch (options->initialCondition) {
    case 0:
      options->initialCondition = defaultCondition;
      break;
    case 2:
    case 4:
    case 8:
    case 16:
    case 32:
      break;
    default:
      return TREL_RC_OPTION_CONDITION;
  }
  if (options->updateMode > TREL_UPDATE_BY_TIME) return TREL_RC_OPTION_UPDATE_MODE;
  if (options->concurrencyModel > 5) return TREL_RC_MODEL_RANGE;
  return 0;
}

// Stores them. The caller is inside the write section.
inline void storeOptions(SNodeCB_t* node, const NodeOptions_t& options) {
  node->optionWord0 = options.optionWord0;
  node->optionWord1 = options.optionWord1;
  node->optionWord2 = options.optionWord2;
  node->updateMode = options.updateMode;
  node->condition = options.initialCondition;
  node->optionWord5 = options.optionWord5;
  node->updateInterval = options.updateInterval;
  node->concurrencyModel = options.concurrencyModel;
  const uint64_t time = uint64_t{options.lastUpdateTime[1]} << 32 | options.lastUpdateTime[0];
  node->lastUpdateTime = time ? time : currentTick();
}

}  // namespace trel
