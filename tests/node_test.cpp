// Status nodes in process memory: limits, critical sections, lifecycle, heartbeat.
#include <unistd.h>

#include <thread>

#include "node_fixture.h"
#include "treli/birth_stamp.h"

namespace {

using namespace trel;

TEST(NodeCreation, MakesNoNodeAboveTheLargest) {
  SNodeCB_t* cb = nullptr;
  uint64_t size = 0, offset = 0, sizes[64] = {};
  const auto create = [&] {
    return trelCreateNodeInPM(&cb, 0, sizes, &size, &offset, TREL_STRUCTURE_VERSION + 1,
                              TREL_STRUCTURE_VERSION);
  };
  sizes[5] = TREL_MAX_SECTION_SIZE + 1;
  EXPECT_EQ(TREL_RC_SECTION_SIZE, create());
  sizes[5] = TREL_MAX_SECTION_SIZE;
  sizes[6] = TREL_MAX_SECTION_SIZE - 2907;
  EXPECT_EQ(TREL_RC_NODE_SIZE, create());
  EXPECT_EQ(0u, size);
  --sizes[6];  // exactly the largest node; what comes next is the version
  EXPECT_EQ(TREL_RC_HANDLE_VERSION, create());
  EXPECT_EQ(0x8000000u, size);
  EXPECT_EQ(nullptr, cb);
}

TEST(NodeInitialisation, FillsTheFixedSections) {
  const std::map<uint64_t, uint64_t> used = {{TREL_EXPORT_ID, 16 + 9},
                                             {TREL_EXPORT_RECORD24, 24},
                                             {TREL_EXPORT_HDM_MODULE, 1056},
                                             {TREL_EXPORT_PARENT, 64 + 3},
                                             {TREL_EXPORT_CHANGE_LIST, 240}};
  std::map<uint64_t, uint64_t> sizes = used;
  sizes[TREL_EXPORT_ID] = 16 + 16;
  sizes[TREL_EXPORT_PARENT] = 64 + 16 + 3;
  uint64_t exports = 0;
  for (auto [bit, bytes] : used) exports |= bit;
  Node node(exports, sizes);
  const uint8_t id[] = "node-name", parentId[] = "top", record[24] = {7, 7};
  const HdmModuleRecord_t module = {};
  SNodeInfo_t parent = {100, 5, 3, 99, 1, 2, 3};
  const auto init = [&](uint64_t maxIdSize) {
    return trelInitNode(&node.cb, node.offset, 9, id, &parent, parentId, maxIdSize, record, &module,
                        nullptr);
  };
  EXPECT_EQ(TREL_RC_SLOT_USED, init(17));  // rounds up to 24, more than the section has
  EXPECT_EQ(TREL_CONDITION_CREATED, node.cb->condition);
  ASSERT_EQ(0u, init(9));
  EXPECT_EQ(TREL_CONDITION_INITIALISED, node.cb->condition);
  for (auto [bit, bytes] : used) EXPECT_EQ(bytes, +node.slot(bit).used) << bit;
  EXPECT_EQ(99u, parent.selfOffset);
  auto* stored = reinterpret_cast<ParentSection_t*>(node.at(node.slot(TREL_EXPORT_PARENT).offset));
  EXPECT_EQ(16u, +stored->maxIdSize);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&stored->parent), +stored->parent.selfOffset);
  EXPECT_EQ(0, memcmp(stored + 1, parentId, 3));

  ASSERT_EQ(0u, trelActivateNode(&node.cb));
  EXPECT_EQ(TREL_RC_SLOT_USED, trelSetNodeID(node.cb, parentId, 17, 24, 0));
  ASSERT_EQ(0u, trelSetNodeID(node.cb, parentId, 3, 1, 0)) << "1 is rounded up to 8";
  EXPECT_EQ(16u + 3, +node.slot(TREL_EXPORT_ID).used);

  SNodeInfo_t* found = nullptr;
  uint8_t* name = nullptr;
  uint64_t size = 0;
  EXPECT_EQ(0u, trelGetParentNodeLocation(node.cb, &found));
  EXPECT_EQ(&stored->parent, found);
  EXPECT_EQ(0u, trelGetParentNodeIdentifier(node.cb, &size, &name));
  EXPECT_EQ("top", std::string(name, name + size));
  found->idSize = 20;
  EXPECT_EQ(TREL_RC_ID_BOUNDS, trelGetParentNodeIdentifier(node.cb, &size, &name));
  node.slot(TREL_EXPORT_PARENT).size = 63;
  EXPECT_EQ(TREL_RC_SLOT_USED, trelGetParentNodeLocation(node.cb, &found));
}

TEST(NodeSections, FollowTheModelFoundAtEntry) {
  Node node;
  LatchArea_t* area = &node.cb->nodeLatchArea;
  EXPECT_EQ(TREL_RC_LATCH, trelExitCriticalSectionAfterRead(node.cb, area)) << "not the owner";
  // A model change inside a section neither keeps the latch nor frees one never taken.
  NodeOptions_t options = {};
  for (uint32_t model : {3u, 1u, 5u, 1u}) {
    options.concurrencyModel = model;
    ASSERT_EQ(0u, trelSetNodeOptions(node.cb, &options));
    ASSERT_EQ(0u, trelSetConcurrencyModel(node.cb, 1));
    ASSERT_EQ(0u, trelEnterCriticalSectionBeforeRead(node.cb, area));
    ASSERT_EQ(0u, trelExitCriticalSectionAfterRead(node.cb, area));
    ASSERT_EQ(0u, trelSetConcurrencyModel(node.cb, model));
  }
  area->latchVersion = 1;
  EXPECT_EQ(TREL_RC_LATCH_VERSION, trelEnterCriticalSectionBeforeRead(node.cb, area));
  EXPECT_EQ(TREL_RC_LATCH_VERSION, trelExitCriticalSectionAfterWrite(node.cb, area));
  node.cb->concurrencyModel = 6;
  EXPECT_EQ(TREL_RC_MODEL_RANGE, trelEnterCriticalSectionBeforeRead(node.cb, area));
}

TEST(NodeSections, AreOfTheNodeThatWasMeant) {
  Node node, other;
  EXPECT_NE(birthStamp(node.cb), birthStamp(other.cb));
  ASSERT_EQ(0u, node.init());
  LatchArea_t* area = &node.cb->nodeLatchArea;
  ASSERT_EQ(0u, trelEnterCriticalSectionBeforeWrite(node.cb, area));
  uint32_t rc = 0;
  std::thread waiter([&] { rc = trelSetNodeTag(node.cb, 7, 0); });
  while (!(__atomic_load_n(&plat::latchAt(area->primaryLatch)->word, __ATOMIC_ACQUIRE) >> 31 & 1))
    usleep(100);
  *birthStampAt(node.cb) += 2;  // as if it had been given back, and another one been made here
  ASSERT_EQ(0u, trelExitCriticalSectionAfterWrite(node.cb, area));
  waiter.join();
  EXPECT_EQ(TREL_RC_LATCH, rc);
  EXPECT_EQ(0u, node.cb->tag);
  EXPECT_EQ(0u, trelSetNodeTag(node.cb, 7, 0));
}

// Every operation against every condition.
TEST(NodeLifecycle, ConditionsDecide) {
  const uint32_t mask[] = {0, TREL_RC_CREATED,   TREL_RC_INITIALISED,
                           0, TREL_RC_ABANDONED, TREL_RC_DISASSOCIATED};
  const uint32_t beat[] = {0, TREL_RC_BEAT_CREATED,   TREL_RC_BEAT_INITIALISED,
                           0, TREL_RC_BEAT_ABANDONED, TREL_RC_BEAT_DISASSOCIATED};
  Node node;
  ASSERT_EQ(0u, node.init());
  for (uint32_t condition = 1; condition <= 5; ++condition) {
    node.cb->condition = condition;
    EXPECT_EQ(0u, trelCheckNodeCondition(node.cb, 1u << condition));
    EXPECT_EQ(mask[condition], trelCheckNodeCondition(node.cb, ~(1u << condition)));
    EXPECT_EQ(beat[condition], trelUpdateNodeStatus(node.cb));
    uint64_t out = 0;
    const bool usable = condition == 3 || condition == 5;
    EXPECT_EQ(usable ? 0 : mask[condition], trelReturnExports(node.cb, &out));
    EXPECT_EQ(usable || condition == 2 ? 0 : mask[condition], trelGetNodeSize(node.cb, &out, 0));
    EXPECT_EQ(usable || condition == 2 ? 0 : mask[condition], trelSetNodeTag(node.cb, 1, 0));
    EXPECT_EQ(condition == 1 ? TREL_RC_ACTIVATE_CREATED : 0u, trelActivateNode(&node.cb));
    EXPECT_EQ(condition == 1 ? 1u : 3u, node.cb->condition);
  }
  for (uint32_t damaged : {0u, 6u}) {
    node.cb->condition = damaged;
    EXPECT_EQ(TREL_RC_CONDITION, trelCheckNodeCondition(node.cb, 62));
    EXPECT_EQ(TREL_RC_CONDITION, trelUpdateNodeStatus(node.cb));
  }
}

TEST(Heartbeat, ByCounterAndByTime) {
  Node node;
  ASSERT_EQ(0u, node.init());
  ASSERT_EQ(0u, trelActivateNode(&node.cb));
  WatchRecord_t watch = {};
  PLATVAtomicSigned32::init(&watch.seenCounter, 0, 1);
  const auto look = [&] { return trelIsStillBeingUpdated(node.cb, &watch); };
  watch.updateMode = TREL_UPDATE_BY_COUNTER;
  EXPECT_EQ(TREL_RC_NO_UPDATE, look());
  ASSERT_EQ(0u, trelUpdateNodeStatus(node.cb));
  EXPECT_EQ(0u, look());
  EXPECT_EQ(TREL_RC_NO_UPDATE, look());

  node.cb->updateMode = watch.updateMode = TREL_UPDATE_BY_TIME;
  do {  // not across a wrap of the tick, which is seconds away at most
    ASSERT_EQ(0u, trelUpdateNodeStatus(node.cb));
  } while (node.cb->lastUpdateTime > 0xffff - 30 && usleep(100000) == 0);
  EXPECT_EQ(0u, look());
  // An age on either side of twice the interval.
  const uint64_t now = node.cb->lastUpdateTime;
  node.cb->lastUpdateTime = now - 390;
  EXPECT_EQ(0u, look());
  node.cb->lastUpdateTime = now - 401;
  const uint64_t seen = watch.seenTick;
  EXPECT_EQ(TREL_RC_UPDATE_TOO_OLD, look());
  EXPECT_EQ(seen, +watch.seenTick);
  node.cb->lastUpdateTime = 0x10000;  // a time to come
  EXPECT_EQ(TREL_RC_UPDATE_TOO_OLD, look());

  // The tick has come round to a dead publisher's last one: the record has seen it stand still.
  ASSERT_EQ(0u, trelUpdateNodeStatus(node.cb));
  EXPECT_EQ(0u, look());
  (reinterpret_cast<WatchMemory_t*>(&watch + 1) - 1)->milliseconds -= 40 * 1000 + 201;
  EXPECT_EQ(TREL_RC_UPDATE_TOO_OLD, look());
  node.cb->lastUpdateTime = node.cb->lastUpdateTime - 1;  // it moves again
  EXPECT_EQ(0u, look());
}

}  // namespace
