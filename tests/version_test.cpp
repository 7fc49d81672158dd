// Looks at a node without its latch, beside writers at full speed: nothing is torn, and nobody is
// told what was so for a moment only.
#include <atomic>
#include <thread>

#include "property_api.h"
#include "segment_fixture.h"

namespace {

using namespace walker;

constexpr uint32_t kExports = TREL_EXPORT_ID | TREL_EXPORT_R | TREL_EXPORT_V;
constexpr uint64_t kOthers = 8;

// A node of which everything can be checked that is read in one look: bytes all alike, of a size
// that follows from them, and an RC that is the value.
struct Checked {
  SNodeCB_t* node;
  RProperty_t* held = nullptr;

  static Text valueFor(uint32_t n) { return Text(1 + n % 97, static_cast<char>(n % 97)); }
  // Both lists as they are at n, in one form or the other.
  void make(uint32_t n) {
    Api::Entries registers{{{1, ""}, registerOf(0)}}, values{{{1, ""}, valueFor(n)}};
    for (uint64_t i = 2; i < 2 + kOthers; ++i) values.push_back({{i, ""}, valueFor(96)});
    EXPECT_EQ(0u, (Api{node, TREL_EXPORT_V}.create({20 + n % 3, n % 2, 0, 100 + n % 50}, values)));
    if (held) return;
    EXPECT_EQ(0u, (Api{node, TREL_EXPORT_R}.create({3, 1}, registers)));
    EXPECT_EQ(0u, trelGetAddressForRProperty(node, 1, &held));
  }
  void write(uint32_t n) {
    const Text value = valueFor(n);
    ASSERT_EQ(0u, trelSetValueForVProperty(node, 1, value.size(), bytes(value), 0));
    ASSERT_EQ(0u, trelSetValueAndRCForRProperty(node, held, static_cast<int32_t>(n), n, 0));
  }
  void read() const {
    uint64_t size = 0, rc = 0, tags[kOthers + 2], sizes[kOthers + 2], current = 0, maximum = 0;
    int32_t value = 0;
    uint8_t *place = nullptr, copy[160];
    ASSERT_EQ(0u, trelGetValueForVProperty(node, 1, &size, &place, copy, 0));
    ASSERT_EQ(1u + copy[0], size);
    for (uint64_t i = 1; i < size; ++i) ASSERT_EQ(copy[0], copy[i]);
    ASSERT_EQ(0u, trelGetValueAndRCForRProperty(node, held, &value, &rc, 0));
    ASSERT_EQ(static_cast<uint64_t>(value), rc);
    ASSERT_EQ(0u, trelReturnVProperties(node, tags, sizes, 0, kOthers + 2, 0));
    uint64_t all = 0, found = 0;
    for (uint64_t i = 0; i <= kOthers; ++i) all |= 1u << tags[i], found += sizes[i] == 97;
    ASSERT_EQ((1u << (kOthers + 2)) - 2, all);
    ASSERT_GE(found, kOthers);
    ASSERT_EQ(0u, tags[kOthers + 1]);
    ASSERT_EQ(0u, trelGetNumberOfVProperties(node, &current, &maximum, 0));
    ASSERT_EQ(kOthers + 1, current);
  }
};

struct Versions : Library {
  Segment segment{0x40000};

  SNodeCB_t* make() const {
    return segment.makeActive(kExports, {16 + 16, 0, 0, 0, 0, 0, 2000, 20000}, 1, "node");
  }
};

// 4 looks a round: beside a million of them nothing may go wrong.
constexpr uint32_t kRounds = 260000;

TEST_F(Versions, AreWholeBesideAnotherProcess) {
  Checked checked{make()};
  checked.make(0);
  Shared<std::atomic<bool>> stop;
  Child writer(
      [&] {
        for (uint32_t n = 0; !*stop && !HasFailure(); ++n) {
          checked.write(n);
          if (n % 16 == 0) checked.make(n);
        }
      },
      false);
  for (uint32_t i = 0; i < kRounds && !HasFatalFailure(); ++i) checked.read();
  *stop = true;
  EXPECT_EQ(0, writer.wait());
}

TEST_F(Versions, AreWholeBesideThreads) {
  Checked checked{make()};
  checked.make(0);
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (uint32_t n = 0; !stop; ++n) n % 16 ? checked.write(n) : checked.make(n);
  });
  std::thread reader([&] {
    while (!stop) checked.read();
  });
  for (uint32_t i = 0; i < 20000 && !HasFatalFailure(); ++i) checked.read();
  stop = true;
  writer.join();
  reader.join();
}

// A writer dies between its stores: who looks next repairs, and sees what was stored.
TEST_F(Versions, AreRepairedAfterADeath) {
  Checked checked{make()};
  checked.make(0);
  for (uint32_t n = 0; n < 10; ++n) {
    Child(
        [&] {
          EXPECT_EQ(
              0u, trelEnterCriticalSectionBeforeWrite(checked.node, &checked.node->nodeLatchArea));
          EXPECT_EQ(0u, trelDeleteVProperty(checked.node, 2, 1));
          EXPECT_EQ(0u, trelAddVProperty(checked.node, 2, 97, bytes(checked.valueFor(96)), 1));
        },
        false)
        .wait();
    checked.read();
  }
}

// The memory of a node becomes other things and again a node, under somebody who looks at it.
TEST_F(Versions, AreOfOneNode) {
  SNodeCB_t* const place = make();
  Checked first{place};
  first.make(0);
  const uint32_t size = static_cast<uint32_t>(place->nodeSize);
  Shared<std::atomic<bool>> stop;
  Child maker(
      [&] {
        SNodeCB_t* given = place;
        for (uint32_t i = 0; !*stop && !HasFailure(); ++i) {
          EXPECT_EQ(0u, trelDisclaimNode(&given, segment.pool(), TREL_STRUCTURE_VERSION));
          void* block = nullptr;
          EXPECT_EQ(0u, _trelAllocateShmBlock(&block, segment.pool(), size, 0, 1, 2, "other"));
          ASSERT_EQ(place, block);
          memset(block, static_cast<int>(i), size);
          EXPECT_EQ(0u, _trelFreeShmBlock(&block, segment.pool(), 1, 2, "other"));
          ASSERT_EQ(place, given = make());
          Checked next{given};
          next.make(i);
          next.write(i);
        }
      },
      false);
  for (uint32_t i = 0; i < kRounds; ++i) {
    uint64_t rc = 0;
    int32_t value = 0;
    if (trelGetValueAndRCForRProperty(place, first.held, &value, &rc, 0)) continue;
    ASSERT_EQ(static_cast<uint64_t>(value), rc);
  }
  *stop = true;
  EXPECT_EQ(0, maker.wait());
}

}  // namespace
