// One half of a pair of processes of different widths on one segment: `width_peer publish KEY`
// makes the segment and waits for its peer, `width_peer read KEY` checks every value, changes the
// node and the pool, and answers. Exits 0 if all was right.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platsvc/platsvc.h"
#include "trel/trel.h"

namespace {

constexpr uint64_t kCount = 500, kMaxValue = 40, kMaxId = 16, kAnswer = 9000;

void must(uint32_t rc, int line) {
  if (rc == 0) return;
  std::fprintf(stderr, "line %d: 0x%x %s\n", line, rc, rcdErrorGetDescription(rc));
  std::exit(1);
}
#define MUST(expression) must(expression, __LINE__)
#define CHECK(condition) must((condition) ? 0 : 1, __LINE__)

const uint8_t* bytes(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}
int32_t valueOf(uint64_t i) { return static_cast<int32_t>(i * 2654435761u); }
std::string textOf(uint64_t i) { return "value " + std::to_string(i); }
std::string idOf(uint64_t i) { return "id" + std::to_string(i % 7); }

void publish(const PLATIPCResID& key) {
  ShmSegInfo_t* segment = nullptr;
  SNodeCB_t* node = nullptr;
  std::array<uint64_t, 64> sizes{};
  sizes[0] = 16 + 13;  // the sections behind lie at odd places
  for (int slot = 6; slot <= 9; ++slot) sizes[static_cast<size_t>(slot)] = 2000003;
  uint64_t size = 0, offset = 0;
  MUST(trelGetProtectedStatusSegment(&segment, 20 << 20, &key, 0, 0, nullptr, nullptr));
  MUST(trelCreateNode(
      segment, &node,
      TREL_EXPORT_ID | TREL_EXPORT_R | TREL_EXPORT_V | TREL_EXPORT_IR | TREL_EXPORT_IV,
      sizes.data(), &size, &offset));
  MUST(trelInitNode(&node, offset, 4, bytes("name"), nullptr, nullptr, 8, nullptr, nullptr,
                    nullptr));
  MUST(trelSetNodeTag(node, 77, 0));
  MUST(trelActivateNode(&node));
  MUST(trelCreateRPropertyList(node, nullptr, nullptr, 0, 2 * kCount, 1, 0));
  MUST(trelCreateVPropertyList(node, nullptr, nullptr, nullptr, kMaxValue, 0, kCount, 1, 0));
  MUST(trelCreateIRPropertyList(node, nullptr, nullptr, nullptr, nullptr, kMaxId, 0, 50, 50, kCount,
                                1, 0));
  MUST(trelCreateIVPropertyList(node, nullptr, nullptr, nullptr, kMaxId, nullptr, nullptr,
                                kMaxValue, 0, 50, 50, kCount, 1, 0));
  for (uint64_t i = 1; i <= kCount; ++i) {
    const std::string text = textOf(i), id = idOf(i);
    MUST(trelAddRProperty(node, i, valueOf(i), 0));
    MUST(trelAddVProperty(node, i, text.size(), bytes(text), 0));
    MUST(trelAddIRProperty(node, i, id.size(), bytes(id), valueOf(i), 0));
    MUST(trelAddIVProperty(node, i, id.size(), bytes(id), text.size(), bytes(text), 0));
  }
  MUST(trelPutTopNodeInfoIntoDomainHeader(
      segment->shmDomainHandle, 77, offset,
      static_cast<uint32_t>(segment->shmPoolHandle->poolOffset)));
  int32_t answer = 0;
  for (int i = 0; i < 2000 && trelGetValueForRProperty(node, kAnswer, &answer, 0) != 0; ++i) {
    MUST(trelUpdateNodeStatus(node));
    usleep(10000);
  }
  CHECK(answer == valueOf(kAnswer));
  CHECK(trelGetValueForRProperty(node, 1, &answer, 0) == TREL_RC_KEY_ABSENT_R);
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
  for (int i = 0; i < 500 && rc; ++i, usleep(10000))
    rc = trelConnectToATree(&segment, &node, &top, &key, 0, nullptr, nullptr);
  MUST(rc);
  CHECK(top.tag == 77);
  for (uint64_t i = 1; i <= kCount; ++i) {
    const std::string text = textOf(i), id = idOf(i);
    int32_t value = 0;
    uint64_t size = 0;
    uint8_t* address = nullptr;
    MUST(trelGetValueForRProperty(node, i, &value, 0));
    CHECK(value == valueOf(i));
    MUST(trelGetValueForIRProperty(node, i, id.size(), bytes(id), &value, 0));
    CHECK(value == valueOf(i));
    MUST(trelGetValueForVProperty(node, i, &size, &address, nullptr, 0));
    CHECK(std::string(reinterpret_cast<char*>(address), size) == text);
    MUST(trelGetValueForIVProperty(node, i, id.size(), bytes(id), &size, &address, nullptr, 0));
    CHECK(std::string(reinterpret_cast<char*>(address), size) == text);
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
  MUST(trelDeleteRProperty(node, 1, 0));
  MUST(trelAddRProperty(node, kAnswer, valueOf(kAnswer), 0));
  MUST(trelDetachFromTopNode(&segment, 1));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const PLATIPCResID key = {PLAT_STRUCTURE_TAG,
                            static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 0))};
  MUST(TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION));
  std::strcmp(argv[1], "publish") == 0 ? publish(key) : read(key);
  MUST(TRELCleanup(1));
  return 0;
}
