// Segments, atomic cells, time, reports and the flow trace of the platform.
#include <sys/mman.h>
#include <time.h>

#include <vector>

#include "segment_fixture.h"

namespace {

PLATIPCMemoryCreateParam paramOf(const PLATIPCResID& id, void* address = nullptr) {
  return {PLAT_STRUCTURE_TAG, id, 10000, reinterpret_cast<uintptr_t>(address), 07640, 0};
}

char* addressOf(const PLATHIPCMemory& memory) {
  void* address = nullptr;
  EXPECT_EQ(memory.getAddress(&address), memory.isAttached() ? 0u : PLAT_RC_NOT_ATTACHED);
  return static_cast<char*>(address);
}

struct SegmentMemory : testing::Test {
  const Key key;
  const PLATIPCMemoryCreateParam param = paramOf(key.id());
  PLATHIPCMemory creator, reader;
  shmid_ds info;
};

TEST_F(SegmentMemory, LivesFromCreateToDestroy) {
  EXPECT_EQ(reader.attach(key, nullptr), PLAT_RC_NO_SEGMENT);
  ASSERT_EQ(creator.create(&param), 0u);
  EXPECT_EQ(reader.create(&param), 0x9000004au);
  const PLATIPCMemoryCreateParam nameless = paramOf({PLAT_STRUCTURE_TAG, 0});
  EXPECT_EQ(reader.create(&nameless), PLAT_RC_ARGUMENT) << "it would never be found again";

  ASSERT_EQ(reader.attach(key, nullptr), 0u);
  EXPECT_EQ(reader.getSize(), 10000u);
  addressOf(creator)[9999] = 'x';
  EXPECT_EQ(addressOf(reader)[9999], 'x');
  ASSERT_EQ(reader.getInfo(&info), 0u);
  EXPECT_EQ(info.shm_perm.mode & 07777, 0640);

  EXPECT_EQ(reader.detach(), 0u);
  EXPECT_EQ(reader.detach(), PLAT_RC_NOT_ATTACHED);
  ASSERT_EQ(reader.attach(key, nullptr), 0u);
  EXPECT_EQ(creator.destroy(), 0u);
  EXPECT_EQ(reader.destroy(), 0u) << "gone already";
  EXPECT_EQ(reader.attach(key, nullptr), PLAT_RC_NO_SEGMENT);
}

TEST_F(SegmentMemory, TakesAHintOnlyIfItIsFree) {
  void* free = mmap(nullptr, 1 << 20, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  munmap(free, 1 << 20);
  const PLATIPCMemoryCreateParam hinted = paramOf(key.id(), free);
  ASSERT_EQ(creator.create(&hinted), 0u);
  EXPECT_EQ(addressOf(creator), free);

  *addressOf(creator) = 'y';
  for (char* hint : {addressOf(creator), addressOf(creator) + 65537}) {
    ASSERT_EQ(reader.attach(key, hint), 0u);
    EXPECT_NE(addressOf(reader), hint) << "occupied, or unaligned";
    EXPECT_EQ(*addressOf(reader), 'y');
    EXPECT_EQ(reader.detach(), 0u);
  }
  shmdt(free);
  key.remove();
  EXPECT_EQ(creator.getInfo(&info), PLAT_RC_NO_SEGMENT);
  EXPECT_EQ(creator.detach(), 0u) << "no longer mapped";
}

TEST(Platform, AtomicCellsWorkAtAnyAddress) {
  alignas(8) uint8_t bytes[144];
  for (int start = 0; start < 8; ++start) {
    auto* cell = reinterpret_cast<PLATVAtomicSigned32*>(bytes + start);
    int32_t value = 0;
    PLATVAtomicSigned32::init(cell, INT32_MAX, 1);
    EXPECT_EQ(PLATVAtomicSigned32::increment(cell, &value), 0u);
    EXPECT_EQ(value, INT32_MIN);
    EXPECT_EQ(PLATVAtomicSigned32::swap(cell, -5, &value), 0u);
    EXPECT_EQ(value, INT32_MIN) << "the value before";
    for (const int32_t added : {3, 0}) {
      EXPECT_EQ(PLATVAtomicSigned32::add(cell, added, &value), 0u);
      EXPECT_EQ(value, -2) << "the new value";
    }
  }
}

TEST(Platform, TimeIsThatOfTheClock) {
  PLATTime now;
  const auto before = static_cast<uint32_t>(time(nullptr));
  ASSERT_EQ(platTimeGetUTC(&now), 0u);
  EXPECT_LE(now.seconds - before, static_cast<uint32_t>(time(nullptr)) - before);
  EXPECT_LT(static_cast<uint16_t>(now.tick - 10 * now.seconds), 10u) << "tenths";
}

std::vector<std::string> lines;
void keep(const char* line) { lines.push_back(line); }

TEST(Platform, ReportsAreOneLineEach) {
  lines.clear();
  platSetReportSink(keep);
  const uint8_t data[100] = {0x00, 0x1f, 0xa0, 0xff};
  platLog(0, FID_trelSetNodeTag, TREL_RC_TAG_RANGE, 12, 2, 1, data, 4, 0);
  platLog(0, FID_trelSetNodeTag, TREL_RC_TAG_RANGE, 12, 2, 1, data, 100, 0);
  platLog(0, 0, 0, 12, 2, 1, nullptr, 4, 0);
  platAssertFailed("pad wrong found at:", "file.c", 77);
  platAssertFailed(nullptr, nullptr, 0);
  platSetReportSink(nullptr);
  ASSERT_EQ(lines.size(), 5u);
  for (const char* part : {"trelSetNodeTag", "900000e0", "tag 0 where", "12", "001fa0ff"})
    EXPECT_NE(lines[0].find(part), std::string::npos) << part << " in " << lines[0];
  EXPECT_LT(lines[1].size(), 300u);
  EXPECT_NE(lines[1].find("00..."), std::string::npos) << "cut";
  EXPECT_NE(lines[3].find("pad wrong found at: file.c:77"), std::string::npos);
  for (const std::string& line : lines) EXPECT_EQ(line.find('\n'), std::string::npos);
}

TEST(Platform, FlowTraceNeedsASinkAndTheSwitch) {
  _flowlogEntry(1, FID_trelInitNode);  // no sink: nothing, and no crash
  lines.clear();
  flowlogAttach(keep);
  flowlogEnable(1);
  const uint16_t data = 0x3412;
  _flowlogEntry(platThreadID(), FID_trelInitNode);
  _flowlogErrorVar(platThreadID(), FID_trelInitNode, TREL_RC_NODE_NULL, 9, &data, 2);
  _flowlogExit(platThreadID(), FID_trelInitNode, TREL_RC_NODE_NULL);
  flowlogEnable(0);
  EXPECT_EQ(flowlogIsEnabled(), 0u);
  flowlogAttach(nullptr);

  const std::string who = std::to_string(gettid()) + " trelInitNode ";
  const std::string code = "0x900000de node pointer null";
  EXPECT_EQ(lines, (std::vector{who + "entry", who + "failure " + code + ", probe 9, data 1234",
                                who + "exit " + code}));
}

}  // namespace
