// Status nodes in process memory: layout, critical sections, lifecycle, heartbeat, attributes.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <thread>
#include <vector>

#include "platsvc/platsvc.h"
#include "trel/trel.h"

namespace {

using Sizes = std::array<uint64_t, 64>;

struct Node {
  SNodeCB_t* cb = nullptr;
  uint64_t size = 0, offset = 0;

  explicit Node(uint64_t exports = 0, Sizes sizes = {}) {
    EXPECT_EQ(0u, trelCreateNodeInPM(&cb, exports, sizes.data(), &size, &offset,
                                     TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION));
  }
  ~Node() {
    void* block = cb;
    _platMemFree(&block, 0, 0, __FILE__, __LINE__);
  }
  uint32_t init(const NodeOptions_t* options = nullptr) {
    return trelInitNode(&cb, offset, 0, id, nullptr, nullptr, 0, nullptr, nullptr, options);
  }
  const uint8_t id[8] = {};
};

TEST(NodeCreation, LaysSectionsOutInSlotOrderWithoutGaps) {
  Sizes sizes{};
  sizes[0] = 21;
  sizes[6] = 1001;
  sizes[63] = 5;
  Node node(TREL_EXPORT_ID | TREL_EXPORT_R, sizes);
  EXPECT_EQ(2908u + 21 + 1001 + 5, node.size);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(node.cb), node.offset);
  uint64_t offset = 2908;
  for (int i = 0; i < 64; ++i) {
    EXPECT_EQ(offset, +node.cb->exportTable[i].offset);
    EXPECT_EQ(sizes[i], +node.cb->exportTable[i].size);
    EXPECT_EQ(0u, +node.cb->exportTable[i].used);
    offset += sizes[i];
  }
  EXPECT_EQ(offset, +node.cb->nodeSize);
  ExportSlot_t* slot = nullptr;
  EXPECT_EQ(0u, trelGetPExportPointer(&slot, node.cb, 0x1000));
  EXPECT_EQ(&node.cb->exportTable[11], slot);
  for (uint32_t bit : {0u, 1u, 0x2000u, 0x80000000u})
    EXPECT_EQ(TREL_RC_EXPORT_BIT, trelGetPExportPointer(&slot, node.cb, bit));
  node.cb->exportTable[6].used = 1002;
  EXPECT_EQ(TREL_RC_SLOT_USED, trelGetPExportPointer(&slot, node.cb, TREL_EXPORT_R));
  EXPECT_EQ(&node.cb->exportTable[6], slot);
  node.cb->exportTable[6].size = TREL_MAX_SECTION_SIZE + 1;
  EXPECT_EQ(TREL_RC_SLOT_SIZE, trelGetPExportPointer(&slot, node.cb, TREL_EXPORT_R));
  node.cb->exportTable[6].offset = 0;
  EXPECT_EQ(TREL_RC_SLOT_OFFSET, trelGetPExportPointer(&slot, node.cb, TREL_EXPORT_R));
}

TEST(NodeCreation, RefusesInOrder) {
  SNodeCB_t* cb = nullptr;
  uint64_t size = 0, offset = 0;
  Sizes sizes{};
  const uint32_t v = TREL_STRUCTURE_VERSION;
  EXPECT_EQ(TREL_RC_SIZES_NULL, trelCreateNodeInPM(&cb, 0, nullptr, nullptr, nullptr, v, v));
  EXPECT_EQ(TREL_RC_OUT_NODE_SIZE,
            trelCreateNodeInPM(&cb, 0, sizes.data(), nullptr, nullptr, v, v));
  EXPECT_EQ(TREL_RC_OUT_NODE_OFFSET,
            trelCreateNodeInPM(&cb, 0, sizes.data(), &size, nullptr, v, v));
  sizes[5] = 0x4000001;
  EXPECT_EQ(TREL_RC_SECTION_SIZE, trelCreateNodeInPM(&cb, 0, sizes.data(), &size, &offset, v, v));
  sizes[5] = sizes[6] = 0x4000000;
  EXPECT_EQ(TREL_RC_NODE_SIZE, trelCreateNodeInPM(&cb, 0, sizes.data(), &size, &offset, v, v));
  EXPECT_EQ(0u, size);
  sizes[6] -= 2908;  // exactly the largest node
  EXPECT_EQ(TREL_RC_HANDLE_VERSION,
            trelCreateNodeInPM(&cb, 0, sizes.data(), &size, &offset, v + 1, v));
  EXPECT_EQ(0x8000000u, size);
  EXPECT_EQ(TREL_RC_LATCH_VERSION,
            trelCreateNodeInPM(&cb, 0, Sizes{}.data(), &size, &offset, v, v + 1));
  EXPECT_EQ(nullptr, cb);
}

TEST(NodeInitialisation, FillsTheFixedSections) {
  Sizes sizes{};
  sizes[0] = 16 + 16;
  sizes[1] = 24;
  sizes[2] = 1056;
  sizes[3] = 64 + 16 + 3;
  sizes[11] = 240;
  Node node(TREL_EXPORT_ID | TREL_EXPORT_RECORD24 | TREL_EXPORT_HDM_MODULE | TREL_EXPORT_PARENT |
                TREL_EXPORT_CHANGE_LIST,
            sizes);
  const uint8_t id[] = "node-name", parentId[] = "top";
  uint8_t record[24];
  memset(record, 7, sizeof record);
  HdmModuleRecord_t module = {};
  strcpy(module.modulePath, "/lib/module.so");
  SNodeInfo_t parent = {100, 5, 3, 99, 1, 2, 3};
  const auto init = [&](uint64_t maxIdSize) {
    return trelInitNode(&node.cb, node.offset, 9, id, &parent, parentId, maxIdSize, record, &module,
                        nullptr);
  };
  EXPECT_EQ(TREL_RC_NODE_ID_MAX, init(4097));
  EXPECT_EQ(TREL_RC_NODE_ID_SIZE, init(8));
  EXPECT_EQ(TREL_RC_SLOT_USED, init(17));  // rounds up to 24, more than the section has
  EXPECT_EQ(TREL_CONDITION_CREATED, node.cb->condition);
  ASSERT_EQ(0u, init(9));
  EXPECT_EQ(TREL_CONDITION_INITIALISED, node.cb->condition);
  EXPECT_EQ(200u, node.cb->updateInterval);
  EXPECT_EQ(TREL_EYE_CATCHER1, node.cb->eyeCatcher1);
  const ExportSlot_t* slots = node.cb->exportTable;
  EXPECT_EQ(25u, +slots[0].used);
  EXPECT_EQ(24u, +slots[1].used);
  EXPECT_EQ(1056u, +slots[2].used);
  EXPECT_EQ(67u, +slots[3].used);
  EXPECT_EQ(240u, +slots[11].used);
  EXPECT_EQ(99u, parent.selfOffset);
  auto* stored =
      reinterpret_cast<ParentSection_t*>(reinterpret_cast<uint8_t*>(node.cb) + slots[3].offset);
  EXPECT_EQ(16u, +stored->maxIdSize);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&stored->parent), +stored->parent.selfOffset);
  EXPECT_EQ(0, memcmp(stored + 1, parentId, 3));
  ASSERT_EQ(0u, trelActivateNode(&node.cb));
  uint8_t* found = nullptr;
  uint64_t size = 0;
  ASSERT_EQ(0u, trelGetNodeID(node.cb, &found, &size, 0));
  EXPECT_EQ("node-name", std::string(reinterpret_cast<char*>(found), size));
  EXPECT_EQ(TREL_RC_SET_ID_MAX, trelSetNodeID(node.cb, id, 1, 4097, 0));
  EXPECT_EQ(TREL_RC_SET_ID_SIZE, trelSetNodeID(node.cb, id, 9, 8, 0));
  EXPECT_EQ(TREL_RC_SLOT_USED, trelSetNodeID(node.cb, parentId, 17, 24, 0));
  ASSERT_EQ(0u, trelSetNodeID(node.cb, parentId, 3, 1, 0)) << "1 is rounded up to 8";
  ASSERT_EQ(0u, trelGetNodeID(node.cb, &found, &size, 0));
  EXPECT_EQ("top", std::string(reinterpret_cast<char*>(found), size));
}

TEST(NodeSections, FollowTheModelFoundAtEntry) {
  Node node;
  LatchArea_t* area = &node.cb->nodeLatchArea;
  int32_t flag = -1, count = -1;
  ASSERT_EQ(0u, trelEnterCriticalSectionBeforeWrite(node.cb, area));
  PLATVAtomicSigned32::add(&area->writeFlag, 0, &flag);
  EXPECT_EQ(1, flag);
  ASSERT_EQ(0u, trelExitCriticalSectionAfterWrite(node.cb, area));
  PLATVAtomicSigned32::add(&area->writeFlag, 0, &flag);
  PLATVAtomicSigned32::add(&area->writeCounter, 0, &count);
  EXPECT_EQ(0, flag);
  EXPECT_EQ(1, count);
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
  ASSERT_EQ(0u, trelSetConcurrencyModel(node.cb, 0));
  EXPECT_EQ(0u, trelEnterCriticalSectionBeforeWrite(node.cb, area));
  node.cb->concurrencyModel = 6;
  EXPECT_EQ(TREL_RC_MODEL_RANGE, trelEnterCriticalSectionBeforeRead(node.cb, area));
  uint32_t model = 0;
  EXPECT_EQ(TREL_RC_MODEL_RANGE, trelReturnConcurrencyModel(node.cb, &model));
  EXPECT_EQ(6u, model);
}

TEST(NodeSections, ExcludeThreads) {
  Node node;
  ASSERT_EQ(0u, node.init());
  uint64_t plain = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i) {
        trelEnterCriticalSectionBeforeWrite(node.cb, &node.cb->nodeLatchArea);
        ++plain;
        trelExitCriticalSectionAfterWrite(node.cb, &node.cb->nodeLatchArea);
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(20000u, plain);
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
    for (uint32_t accepted = 0; accepted < 64; ++accepted)
      EXPECT_EQ(accepted >> condition & 1 ? 0 : mask[condition],
                trelCheckNodeCondition(node.cb, accepted));
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
    uint32_t seen = 99;
    node.cb->condition = damaged;
    EXPECT_EQ(TREL_RC_CONDITION, trelGetNodeCondition(node.cb, &seen));
    EXPECT_EQ(damaged, seen);
    EXPECT_EQ(TREL_RC_CONDITION, trelCheckNodeCondition(node.cb, 62));
    EXPECT_EQ(TREL_RC_CONDITION, trelUpdateNodeStatus(node.cb));
  }
  EXPECT_EQ(0u, trelAbandonNode(&node.cb));
  EXPECT_EQ(0u, trelActivateNode(&node.cb));
  EXPECT_EQ(0u, trelDisassociateNode(&node.cb));
  EXPECT_EQ(TREL_CONDITION_DISASSOCIATED, node.cb->condition);
}

TEST(NodeLifecycle, OptionsAreTestedInOrder) {
  Node node;
  NodeOptions_t options = {};
  options.initialCondition = 3;
  options.updateMode = 3;
  options.concurrencyModel = 6;
  EXPECT_EQ(TREL_RC_OPTION_CONDITION, node.init(&options));
  options.initialCondition = 2;
  EXPECT_EQ(TREL_RC_OPTION_UPDATE_MODE, trelSetNodeOptions(node.cb, &options));
  options.updateMode = 2;
  EXPECT_EQ(TREL_RC_MODEL_RANGE, trelSetNodeOptions(node.cb, &options));
  EXPECT_EQ(TREL_CONDITION_CREATED, node.cb->condition);
  options.concurrencyModel = 0;
  options.optionWord2 = 0xffffffff;
  options.lastUpdateTime[0] = 1;
  options.lastUpdateTime[1] = 2;
  ASSERT_EQ(0u, trelSetNodeOptions(node.cb, &options));
  EXPECT_EQ(0xffffffffu, node.cb->optionWord2);
  EXPECT_EQ(0x200000001u, node.cb->lastUpdateTime);
  ASSERT_EQ(0u, trelSetNodeOptions(node.cb, nullptr));
  EXPECT_EQ(TREL_CONDITION_ACTIVE, node.cb->condition);
  EXPECT_GT(65536u, node.cb->lastUpdateTime);
}

TEST(Heartbeat, ByCounterAndByTime) {
  Node node;
  ASSERT_EQ(0u, node.init());
  ASSERT_EQ(0u, trelActivateNode(&node.cb));
  WatchRecord_t watch = {};
  PLATVAtomicSigned32::init(&watch.seenCounter, 0, 1);
  EXPECT_EQ(TREL_RC_UPDATE_MODE, trelIsStillBeingUpdated(node.cb, &watch));
  watch.updateMode = TREL_UPDATE_BY_COUNTER;
  EXPECT_EQ(TREL_RC_NO_UPDATE, trelIsStillBeingUpdated(node.cb, &watch));
  ASSERT_EQ(0u, trelUpdateNodeStatus(node.cb));
  EXPECT_EQ(0u, trelIsStillBeingUpdated(node.cb, &watch));
  EXPECT_EQ(TREL_RC_NO_UPDATE, trelIsStillBeingUpdated(node.cb, &watch));

  node.cb->updateMode = TREL_UPDATE_BY_TIME;
  watch.updateMode = TREL_UPDATE_BY_TIME;
  ASSERT_EQ(0u, trelUpdateNodeStatus(node.cb));
  EXPECT_EQ(0u, trelIsStillBeingUpdated(node.cb, &watch));
  // Far from a wrap of the tick, an age on either side of twice the interval.
  const uint64_t now = node.cb->lastUpdateTime;
  if (now > 1000 && now < 65000) {
    node.cb->lastUpdateTime = now - 390;
    EXPECT_EQ(0u, trelIsStillBeingUpdated(node.cb, &watch));
    node.cb->lastUpdateTime = now - 401;
    const uint64_t seen = watch.seenTick;
    EXPECT_EQ(TREL_RC_UPDATE_TOO_OLD, trelIsStillBeingUpdated(node.cb, &watch));
    EXPECT_EQ(seen, +watch.seenTick);
  }
  node.cb->lastUpdateTime = 0x10000;  // a time to come
  EXPECT_EQ(TREL_RC_UPDATE_TOO_OLD, trelIsStillBeingUpdated(node.cb, &watch));
  node.cb->updateMode = 3;
  EXPECT_EQ(TREL_RC_UPDATE_MODE, trelUpdateNodeStatus(node.cb));
}

TEST(NodeAttributes, TagSizeAndCounter) {
  Node node;
  ASSERT_EQ(0u, node.init());
  uint64_t out = 0;
  EXPECT_EQ(0u, trelSetNodeTag(node.cb, 0x100000, 0));
  EXPECT_EQ(TREL_RC_TAG_RANGE, trelSetNodeTag(node.cb, 0x100001, 0));
  ASSERT_EQ(0u, trelEnterCriticalSectionBeforeRead(node.cb, &node.cb->nodeLatchArea));
  EXPECT_EQ(0u, trelGetNodeTag(node.cb, &out, 1));
  EXPECT_EQ(0x100000u, out);
  EXPECT_EQ(0u, trelGetNodeSize(node.cb, &out, 1));
  EXPECT_EQ(2908u, out);
  ASSERT_EQ(0u, trelExitCriticalSectionAfterRead(node.cb, &node.cb->nodeLatchArea));
  node.cb->nodeSize = 0x8000001;
  EXPECT_EQ(TREL_RC_NODE_SIZE, trelGetNodeSize(node.cb, &out, 0));
  EXPECT_EQ(TREL_RC_GET_ID_NO_EXPORT,
            trelGetNodeID(node.cb, reinterpret_cast<uint8_t**>(&out), &out, 0));
  PLATVAtomicSigned32::init(&node.cb->reconfigCounter, -2, 1);
  EXPECT_EQ(0u, trelGetNodeReconfigCounter(node.cb, &out));
  EXPECT_EQ(~uint64_t{1}, out);
  EXPECT_EQ(0u, trelGetNodeTag(node.cb, &out, 0)) << "no latch was left held";
}

}  // namespace
