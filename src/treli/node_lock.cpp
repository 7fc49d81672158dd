#include "treli/node_lock.h"

#include "platsvc/time.h"
#include "trel/node.h"

namespace trel {

uint32_t refusalOf(uint32_t condition) {
  switch (condition) {
    case TREL_CONDITION_CREATED:
      return TREL_RC_CREATED;
    case TREL_CONDITION_INITIALISED:
      return TREL_RC_INITIALISED;
    case TREL_CONDITION_ABANDONED:
      return TREL_RC_ABANDONED;
    default:
      return TREL_RC_DISASSOCIATED;
  }
}

// A reader changes nothing, so its death needs no repair. A writer may have died between any two
// stores: what it left half done is worked out anew, and readers are told that the structure may
// have changed. A node that cannot be put in order is abandoned. The writer may not have counted
// yet, so the repair counts before its first store. The flag falls last, so that a death in here is
// repaired in turn.
void onNodeOwnerDied(SNodeCB_t* node, LatchArea_t* area) {
  if (!isMarkedWriting(area)) return;
  markWriting(area);
  if (area == &node->nodeLatchArea && !repairNode(node)) node->condition = TREL_CONDITION_ABANDONED;
  countReconfiguration(node);
  markWritten(area);
}

namespace {

constexpr uint32_t kTries = 3, kPauses = 100, kLongestMs = 200, kSleepMs = 1;

// Where the latch cannot be taken. A writer may be inside again whenever one looks, so it is the
// clock that ends this.
Turn awaitVersion(SNodeCB_t* node, Turn turn) {
  LatchArea_t* area = &node->nodeLatchArea;
  uint64_t time = 0;
  platTimeGetMonotonic(&time);
  const uint32_t now = static_cast<uint32_t>(time);
  if (turn.until == 0) turn.until = (now + kLongestMs) | 1;
  const bool busy = isMarkedWriting(area);
  if (!busy && once(area->latchVersion) != TREL_STRUCTURE_VERSION) {
    turn.failure = TREL_RC_LATCH_VERSION;
  } else if (!busy && !plat::isLatch(area->primaryLatch)) {
    turn.failure = TREL_RC_LATCH;
  } else {
    platSleep(kSleepMs);
  }
  if (turn.failure == 0 && static_cast<int32_t>(now - turn.until) >= 0)
    turn.failure = TREL_RC_WRITER_INSIDE;
  return turn;
}

}  // namespace

Turn nextTurn(SNodeCB_t* node, Turn turn) {
  LatchArea_t* area = &node->nodeLatchArea;
  for (uint32_t i = 0; i < kPauses && isMarkedWriting(area); ++i) __builtin_ia32_pause();
  if (++turn.tries <= kTries) return turn;
  uint32_t model = 0;
  turn.failure = readModel(node, &model);
  if (turn.failure) return turn;
  NodeHold hold;
  if (model == 1) {
    if (isReadOnly(node)) return awaitVersion(node, turn);
    turn.failure = lockNode<Access::read>(node, area, &hold);
  }
  turn.way = hold.latched ? Turn::Way::latch : Turn::Way::free;
  return turn;
}

uint32_t initialiseLatches(SNodeCB_t* node, LatchArea_t* area, uint32_t latchVersion) {
  uint32_t model = 0;
  if (const uint32_t rc = readModel(node, &model)) return rc;
  if (isReadOnly(area)) return TREL_RC_READING_ONLY;
  if (model != 1) return 0;
  if (latchVersion != TREL_STRUCTURE_VERSION) return TREL_RC_LATCH_VERSION;
  platVLatchInit(area->primaryLatch, 1);
  platVLatchInit(area->spareLatch, 1);
  PLATVAtomicSigned32::init(&area->writeCounter, 0, 1);
  area->latchVersion = latchVersion;
  PLATVAtomicSigned32::init(&area->writeFlag, 0, 1);  // a release: nobody is inside any more
  return 0;
}

namespace {

// The tests of the four exported ways in and out. *latched: the node's model asks for the latch.
// The ways out have only the model to go by, since no NodeHold comes to them from the way in.
uint32_t checkLatched(SNodeCB_t* node, const LatchArea_t* area, bool* latched) {
  if (!node) return TREL_RC_NODE_NULL;
  if (!area) return TREL_RC_LATCH_AREA_NULL;
  uint32_t model = 0;
  if (const uint32_t rc = readModel(node, &model)) return rc;
  *latched = model == 1;
  if (isReadOnly(node)) return TREL_RC_READING_ONLY;
  return *latched && area->latchVersion != TREL_STRUCTURE_VERSION ? uint32_t{TREL_RC_LATCH_VERSION}
                                                                  : 0;
}

template <Access access>
uint32_t enterExported(uint32_t function, SNodeCB_t* node, LatchArea_t* area) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    bool latched = false;
    if (const uint32_t rc = checkLatched(node, area, &latched)) return flow.fail(rc);
    NodeHold hold;
    return latched ? lockNode<access>(node, area, &hold) : 0;
  });
}

template <Access access>
uint32_t leaveExported(uint32_t function, SNodeCB_t* node, LatchArea_t* area) {
  return traced(function, [&](const Flow& flow) -> uint32_t {
    NodeHold hold;
    if (const uint32_t rc = checkLatched(node, area, &hold.latched)) return flow.fail(rc);
    // Another writer's mark is not taken away.
    if (hold.latched && !platVLatchIsHeld(area->primaryLatch)) return flow.fail(TREL_RC_LATCH);
    return unlockNode<access>(area, hold);
  });
}

}  // namespace
uint32_t findNodeId(SNodeCB_t* node, uint64_t inCriticalSection, uint8_t** id, uint64_t* idSize) {
  Section section;
  uint64_t found = 0;
  const uint32_t rc = looking(node, inCriticalSection, [&]() -> uint32_t {
    if (!(once(node->exports) & TREL_EXPORT_ID)) return TREL_RC_GET_ID_NO_EXPORT;
    if (const uint32_t failure = openSection(node, TREL_EXPORT_ID, &section)) return failure;
    if (const uint32_t failure = checkCondition(node, accept::published)) return failure;
    if (section.size < sizeof(IdSection_t)) return TREL_RC_ID_BOUNDS;
    found = once(section.at<IdSection_t>()->idSize);
    return found > section.size - sizeof(IdSection_t) ? uint32_t{TREL_RC_ID_BOUNDS} : 0;
  });
  if (rc) return rc;
  *idSize = found;
  *id = section.at(sizeof(IdSection_t));
  return 0;
}

}  // namespace trel

using namespace trel;

uint32_t trelEnterCriticalSectionBeforeRead(SNodeCB_t* node, LatchArea_t* area) {
  return enterExported<Access::read>(FID_trelEnterCriticalSectionBeforeRead, node, area);
}

uint32_t trelExitCriticalSectionAfterRead(SNodeCB_t* node, LatchArea_t* area) {
  return leaveExported<Access::read>(FID_trelExitCriticalSectionAfterRead, node, area);
}

uint32_t trelEnterCriticalSectionBeforeWrite(SNodeCB_t* node, LatchArea_t* area) {
  return enterExported<Access::write>(FID_trelEnterCriticalSectionBeforeWrite, node, area);
}

uint32_t trelExitCriticalSectionAfterWrite(SNodeCB_t* node, LatchArea_t* area) {
  return leaveExported<Access::write>(FID_trelExitCriticalSectionAfterWrite, node, area);
}

uint32_t trelInitializeLatches(SNodeCB_t* node, LatchArea_t* area, uint32_t latchVersion) {
  return traced(FID_trelInitializeLatches, [&](const Flow& flow) -> uint32_t {
    if (!area) return flow.fail(TREL_RC_LATCH_AREA_NULL);
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    return initialiseLatches(node, area, latchVersion);
  });
}

uint32_t trelSetConcurrencyModel(SNodeCB_t* node, uint32_t model) {
  return traced(FID_trelSetConcurrencyModel, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (model > 5) return flow.fail(TREL_RC_MODEL_RANGE, &model, sizeof model);
    if (isReadOnly(node)) return flow.fail(TREL_RC_READING_ONLY);
    node->concurrencyModel = model;
    return 0;
  });
}

uint32_t trelReturnConcurrencyModel(SNodeCB_t* node, uint32_t* model) {
  return traced(FID_trelReturnConcurrencyModel, [&](const Flow& flow) -> uint32_t {
    if (!node) return flow.fail(TREL_RC_NODE_NULL);
    if (!model) return flow.fail(TREL_RC_OUT_MODEL);
    return readModel(node, model);
  });
}
