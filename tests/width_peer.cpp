// One half of a pair of processes of different widths on one segment: `width_peer publish KEY`
// makes the segment and waits for its peer, `width_peer read KEY` checks every value, changes the
// node and the pool, counts beside the publisher, answers, and ends as owner of the node's latch.
// Exits 0 if all was right.
#include <unistd.h>

#include <cstdlib>

#include "platsvc/platsvc.h"
#include "property_api.h"

namespace {

using namespace walker;

constexpr uint64_t kCount = 500, kAnswer = 9000, kCounter = 9001;
constexpr int32_t kRounds = 300000;
constexpr ListLimits kLimits{2 * kCount, 1, 16, 40, 50, 50};

void must(uint32_t rc, int line) {
  if (rc == 0) return;
  std::fprintf(stderr, "line %d: 0x%x %s\n", line, rc, rcdErrorGetDescription(rc));
  std::exit(1);
}
#define MUST(expression) must(expression, __LINE__)
#define CHECK(condition) must((condition) ? 0 : 1, __LINE__)

Name nameOf(uint32_t bit, uint64_t i) {
  return {i, hasId(bit) ? "id" + std::to_string(i % 7) : ""};
}
Text valueOf(uint32_t bit, uint64_t i) {
  return hasBytes(bit) ? "value " + std::to_string(i)
                       : registerOf(static_cast<int32_t>(i * 2654435761u));
}

void enter(SNodeCB_t* node) {
  MUST(trelEnterCriticalSectionBeforeWrite(node, &node->nodeLatchArea));
}

int32_t counterOf(SNodeCB_t* node, uint64_t inCriticalSection) {
  int32_t value = 0;
  MUST(trelGetValueForRProperty(node, kCounter, &value, inCriticalSection));
  return value;
}

// Both do this at once; without exclusion something of it would be lost.
void countRounds(SNodeCB_t* node) {
  for (int32_t i = 0; i < kRounds; ++i) {
    enter(node);
    MUST(trelSetValueForRProperty(node, kCounter, counterOf(node, 1) + 1, 1));
    MUST(trelExitCriticalSectionAfterWrite(node, &node->nodeLatchArea));
  }
}

void publish(const PLATIPCResID& key) {
  ShmSegInfo_t* segment = nullptr;
  SNodeCB_t* node = nullptr;
  uint64_t sizes[64] = {16 + 13};  // the sections behind lie at odd places
  for (uint32_t bit : kKinds) sizes[slotOf(bit)] = 2000003;
  uint64_t size = 0, offset = 0;
  MUST(trelGetProtectedStatusSegment(&segment, 20 << 20, &key, 0, 0, nullptr, nullptr));
  MUST(trelCreateNode(
      segment, &node,
      TREL_EXPORT_ID | TREL_EXPORT_R | TREL_EXPORT_V | TREL_EXPORT_IR | TREL_EXPORT_IV, sizes,
      &size, &offset));
  MUST(trelInitNode(&node, offset, 4, bytes("name"), nullptr, nullptr, 8, nullptr, nullptr,
                    nullptr));
  MUST(trelSetNodeTag(node, 77, 0));
  MUST(trelActivateNode(&node));
  for (uint32_t bit : kKinds) {
    Api list{node, bit};
    MUST(list.create(kLimits));
    for (uint64_t i = 1; i <= kCount; ++i) MUST(list.add(nameOf(bit, i), valueOf(bit, i)));
  }
  MUST(trelAddRProperty(node, kCounter, 0, 0));
  MUST(trelPutTopNodeInfoIntoDomainHeader(
      segment->shmDomainHandle, 77, offset,
      static_cast<uint32_t>(segment->shmPoolHandle->poolOffset)));
  Api registers{node, TREL_EXPORT_R};
  Text answer;
  for (int i = 0; i < 200000 && counterOf(node, 0) == 0; ++i) {
    MUST(trelUpdateNodeStatus(node));
    usleep(50);
  }
  countRounds(node);
  for (int i = 0; i < 2000 && registers.get({kAnswer, ""}, &answer) != 0; ++i) usleep(10000);
  CHECK(answer == valueOf(TREL_EXPORT_R, kAnswer));
  CHECK(counterOf(node, 0) == 2 * kRounds);
  CHECK(registers.get({1, ""}, &answer) == TREL_RC_KEY_ABSENT_R);
  void* block = nullptr;
  MUST(_trelAllocateShmBlock(&block, segment->shmPoolHandle, 100, 0, 0, 0, ""));
  MUST(_trelFreeShmBlock(&block, segment->shmPoolHandle, 0, 0, ""));
  MUST(trelDeleteStatusSegment(&segment, 4, 2, 2));
}

void read(const PLATIPCResID& key) {
  ShmSegInfo_t* segment = nullptr;
  SNodeCB_t* node = nullptr;
  TopNodeInfo_t top;
  uint32_t rc = 1;
  const auto connect = [&] {
    return trelConnectToATree(&segment, &node, &top, &key, 0, nullptr, nullptr);
  };
  for (int i = 0; i < 500 && rc; ++i, usleep(10000)) rc = connect();
  MUST(rc);
  CHECK(top.tag == 77);
  for (uint32_t bit : kKinds)
    for (uint64_t i = 1; i <= kCount; ++i) {
      Text value;
      MUST((Api{node, bit}.get(nameOf(bit, i), &value)));
      CHECK(value == valueOf(bit, i));
    }
  void* blocks[200];
  for (size_t i = 0; i < 200; ++i)
    MUST(_trelAllocateShmBlock(&blocks[i], segment->shmPoolHandle, static_cast<uint32_t>(1 + i), 0,
                               0, 0, ""));
  for (size_t i = 0; i < 200; ++i)
    MUST(_trelFreeShmBlock(&blocks[(i * 73) % 200], segment->shmPoolHandle, 0, 0, ""));
  WatchRecord_t watch = {};
  watch.updateMode = TREL_UPDATE_BY_COUNTER;
  rc = 1;
  for (int i = 0; i < 500 && rc; ++i, usleep(1000)) rc = trelIsStillBeingUpdated(node, &watch);
  MUST(rc);
  countRounds(node);
  MUST(trelDetachFromTopNode(&segment, 1));
  CHECK(segment == nullptr);
  MUST(connect());
  MUST(trelDeleteRProperty(node, 1, 0));
  MUST((Api{node, TREL_EXPORT_R}.add({kAnswer, ""}, valueOf(TREL_EXPORT_R, kAnswer))));
  enter(node);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const PLATIPCResID key = {PLAT_STRUCTURE_TAG,
                            static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 0))};
  MUST(TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION));
  std::strcmp(argv[1], "publish") == 0 ? publish(key) : read(key);
  MUST(TRELCleanup(1));
  return testing::Test::HasFailure();
}
