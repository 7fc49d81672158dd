// Condition, options and heartbeat of a node.
#include "trel/node.h"
#include "treli/heartbeat.h"

namespace trel {
namespace {

template <class Change>
uint32_t changeCondition(uint32_t function, SNodeCB_t** node, Change&& change) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    if (!node || !*node) return flow.fail(TREL_RC_NODE_NULL);
    return within<Access::write>(*node, 0, [&] { return change(*node); });
  });
}

// What an observer sees of a node.
struct Pulse {
  int32_t counter;
  uint64_t updateTime;
  uint32_t updateInterval;
};

uint32_t lookAtPulse(SNodeCB_t* node, Pulse* pulse) {
  return looking(node, 0, [&]() -> uint32_t {
    *pulse = {platVAtomicLoad(&node->updateCounter), once(node->lastUpdateTime),
              once(node->updateInterval)};
    return checkBeating(node);
  });
}

uint32_t compareCounter(const Pulse& pulse, WatchRecord_t* record) {
  if (pulse.counter == platVAtomicLoad(&record->seenCounter)) return TREL_RC_NO_UPDATE;
  platVAtomicStore(&record->seenCounter, pulse.counter);
  return 0;
}

// For how many milliseconds the observer has seen this time of update, as its record remembers.
uint64_t timeStoodStill(WatchRecord_t* record, uint64_t updateTime) {
  uint64_t now = 0;
  if (platTimeGetMonotonic(&now)) return 0;
  uint8_t* const behindCell = record->seenCounter.cell + sizeof record->seenCounter;
  WatchMemory_t* const memory = reinterpret_cast<WatchMemory_t*>(behindCell) - 1;
  if (memory->mark != TREL_WATCH_MARK || memory->updateTime != updateTime)
    *memory = {TREL_WATCH_MARK, updateTime, now};
  return now - memory->milliseconds;
}

uint32_t compareTime(const Pulse& pulse, WatchRecord_t* record) {
  const uint64_t now = currentTick(), updateTime = pulse.updateTime;
  const uint32_t allowance = 2 * pulse.updateInterval;  // 32 bits wide, wrap-around included
  const uint64_t stoodStill = timeStoodStill(record, updateTime);
  if (now - updateTime > allowance) return TREL_RC_UPDATE_TOO_OLD;
  // The tick counts whole tenths of a coarse clock: it may call two tenths more young enough.
  if (stoodStill > (uint64_t{allowance} + 2) * 100) return TREL_RC_UPDATE_TOO_OLD;
  record->seenTick = now;
  return 0;
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelGetNodeCondition(SNodeCB_t* node, uint32_t* condition) {
  return traced(FID_trelGetNodeCondition, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!condition) return flow.fail(TREL_RC_CONDITION);
    *condition = node->condition;
    if (*condition < TREL_CONDITION_CREATED || *condition > TREL_CONDITION_DISASSOCIATED)
      return flow.fail(TREL_RC_CONDITION, condition, sizeof *condition);
    return 0;
  });
}

uint32_t trelCheckNodeCondition(SNodeCB_t* node, uint32_t mask) {
  return traced(FID_trelCheckNodeCondition, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    return checkCondition(node, mask);
  });
}

uint32_t trelActivateNode(SNodeCB_t** node) {
  return changeCondition(FID_trelActivateNode, node, [](SNodeCB_t* n) -> uint32_t {
    if (n->condition == TREL_CONDITION_CREATED) return TREL_RC_ACTIVATE_CREATED;
    n->condition = TREL_CONDITION_ACTIVE;
    return 0;
  });
}

uint32_t trelAbandonNode(SNodeCB_t** node) {
  return changeCondition(FID_trelAbandonNode, node, [](SNodeCB_t* n) -> uint32_t {
    n->condition = TREL_CONDITION_ABANDONED;
    return 0;
  });
}

uint32_t trelDisassociateNode(SNodeCB_t** node) {
  return changeCondition(FID_trelDisassociateNode, node, [](SNodeCB_t* n) -> uint32_t {
    n->condition = TREL_CONDITION_DISASSOCIATED;
    return 0;
  });
}

uint32_t trelSetNodeOptions(SNodeCB_t* node, const NodeOptions_t* options) {
  return traced(FID_trelSetNodeOptions, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    NodeOptions_t wanted;
    if (const uint32_t rc = readOptions(options, TREL_CONDITION_ACTIVE, &wanted))
      return flow.fail(rc);
    return within<Access::write>(node, 0, [&]() -> uint32_t {
      storeOptions(node, wanted);
      return 0;
    });
  });
}

uint32_t trelUpdateNodeStatus(SNodeCB_t* node) {
  return traced(FID_trelUpdateNodeStatus, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    return within<Access::write>(node, 0, [&] { return beat(node); });
  });
}

uint32_t trelIsStillBeingUpdated(SNodeCB_t* node, WatchRecord_t* record) {
  return traced(FID_trelIsStillBeingUpdated, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!record) return flow.fail(TREL_RC_WATCH_RECORD_NULL);
    Pulse pulse;
    if (const uint32_t rc = lookAtPulse(node, &pulse)) return rc;
    switch (record->updateMode) {
      case TREL_UPDATE_BY_COUNTER:
        return compareCounter(pulse, record);
      case TREL_UPDATE_BY_TIME:
        return compareTime(pulse, record);
      default:
        return TREL_RC_UPDATE_MODE;
    }
  });
}
