// A process dies at every store of the creation, deletion and removal of whole segments. After each
// death another makes the segment anew under its key, or removes it, at once and without help.
#include <sys/mman.h>

#include <chrono>

#include "deaths.h"
#include "heap_walker.h"
#include "segment_fixture.h"

namespace {

constexpr uint32_t kSize = 0x20000;

struct SegmentDeaths : Library {
  const Key key;
  uint8_t* const place =
      static_cast<uint8_t*>(mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  uint64_t points = 0;
  std::chrono::nanoseconds longest{0};

  SegmentDeaths() { munmap(place, kSize); }

  // At a place that is known before, so that its stores can be counted.
  uint32_t create(ShmSegInfo_t** info, uint32_t size = kSize) const {
    return trelGetProtectedStatusSegment(info, size, key, reinterpret_cast<uintptr_t>(place), 0,
                                         nullptr, nullptr);
  }
  // From start to end: the segment is made, found sound, used and deleted.
  void live(uint32_t size) {
    const auto start = std::chrono::steady_clock::now();
    ShmSegInfo_t* info = nullptr;
    const uint32_t rc = create(&info, size);
    ASSERT_EQ(0u, rc) << std::hex << rc;
    EXPECT_EQ("", heapFault(info->shmDomainHandle->base, TREL_HEAP_DOMAIN, 0));
    EXPECT_EQ("", heapFault(info->shmDomainHandle->base, TREL_HEAP_POOL,
                            info->shmPoolHandle->poolOffset));
    EXPECT_EQ(0, inOtherProcess([&] {
                ShmDomainHandle_t* domain = nullptr;
                EXPECT_EQ(0u, trelConnectToShmDomain(key, 0, nullptr, &domain));
                EXPECT_EQ(0u, trelDisconnectFromShmDomain(&domain));
              }));
    EXPECT_EQ(0u, trelDeleteStatusSegment(&info, 3, 1, 2));
    EXPECT_FALSE(key.exists());
    const auto took = std::chrono::steady_clock::now() - start;
    if (took > longest) longest = took;
    EXPECT_GT(std::chrono::seconds(3), took) << "on a quiet machine it is 300 ms";
  }

  // Lets work die in front of each of its stores, from what prepare() leaves.
  void die(const char* what, const std::function<void()>& prepare,
           const std::function<void()>& work, const std::function<void(uint64_t)>& survive) {
    SCOPED_TRACE(what);
    const Memory memory(place, kSize);
    uint64_t n = 0;
    for (;; ++n) {
      SCOPED_TRACE("killed in front of store " + std::to_string(n));
      prepare();
      if (!memory.dies(n, work) || HasFailure()) break;
      survive(n);
    }
    key.remove();
    points += n;
    EXPECT_GT(n, 1u);
  }
  void report() const {
    printf("%llu points, at most %lld us to go on\n", static_cast<unsigned long long>(points),
           static_cast<long long>(longest.count() / 1000));
  }
  void leaveOne() const {
    EXPECT_EQ(0, inOtherProcess([&] {
                ShmSegInfo_t* info = nullptr;
                EXPECT_EQ(0u, create(&info));
                const uint64_t pool = info->shmPoolHandle->poolOffset;
                EXPECT_EQ(0u, trelPutTopNodeInfoIntoDomainHeader(info->shmDomainHandle, 7, pool,
                                                                 static_cast<uint32_t>(pool)));
              }));
  }
};

TEST_F(SegmentDeaths, Creation) {
  const auto make = [&] {
    beginAnew();
    ShmSegInfo_t* info = nullptr;
    EXPECT_EQ(0u, create(&info));
  };
  // Whole only behind its last store: until then nobody finds a segment.
  const auto isWhole = [&] {
    Tree tree;
    const uint32_t rc = tree.connect(key);
    EXPECT_TRUE(rc == TREL_RC_SEGMENT_HALF_MADE || rc == TREL_RC_NO_TREE) << std::hex << rc;
    return rc == TREL_RC_NO_TREE;
  };
  uint64_t whole = 0;
  const auto goOn = [&](uint32_t size) {
    return [&, size](uint64_t) {
      const bool stands = isWhole();
      whole += stands;
      if (stands) {
        EXPECT_EQ(0u, trelRemoveStatusSegment(key, 1));
      }
      live(size);
    };
  };
  die(
      "create, then the same again", [] {}, make, goOn(kSize));
  die(
      "create, then of another size", [] {}, make, goOn(2 * kSize));
  die(
      "create, then remove", [] {}, make,
      [&](uint64_t n) {
        EXPECT_EQ(0u, trelRemoveStatusSegment(key, 1 + n % 2));
        EXPECT_FALSE(key.exists());
      });
  EXPECT_LE(whole, 4u);
  // The second maker dies as well.
  const Memory memory(place, kSize);
  for (const uint64_t first : {0u, 1u, 3u, 20u, 60u}) {
    die(
        "create again", [&] { EXPECT_TRUE(memory.dies(first, make)); }, make, goOn(kSize));
  }
  report();
}

TEST_F(SegmentDeaths, DeletionAndRemoval) {
  const auto deleteIt = [&](uint32_t mode) {
    return [&, mode] {
      beginAnew();
      ShmSegInfo_t* info = nullptr;
      EXPECT_EQ(0u, trelAttachStatusSegment(&info, key, reinterpret_cast<uintptr_t>(place), 0, 0,
                                            nullptr, nullptr));
      EXPECT_EQ(0u, trelDeleteStatusSegment(&info, 4, mode, 2));
    };
  };
  const auto goOn = [&](uint64_t) {
    if (key.exists()) {
      const uint32_t rc = trelRemoveStatusSegment(key, 1);
      EXPECT_EQ(0u, rc) << std::hex << rc;
    }
    live(kSize);
  };
  die(
      "delete by force", [&] { leaveOne(); }, deleteIt(2), goOn);
  die(
      "delete", [&] { leaveOne(); }, deleteIt(1), goOn);
  // Whoever died connected does not count: a polite deletion ends the segment.
  die(
      "attach and detach", [&] { leaveOne(); },
      [&] {
        beginAnew();
        ShmSegInfo_t* info = nullptr;
        EXPECT_EQ(0u, trelAttachStatusSegment(&info, key, reinterpret_cast<uintptr_t>(place), 0, 0,
                                              nullptr, nullptr));
        EXPECT_EQ(0u, trelDetachStatusSegment(&info, 1));
      },
      [&](uint64_t) {
        EXPECT_EQ(0, inOtherProcess(deleteIt(1)));
        EXPECT_FALSE(key.exists());
        live(kSize);
      });
  // A removal dies in the middle.
  leaveOne();
  const int id = shmget(static_cast<key_t>(key.id().key), 0, 0);
  auto* header = static_cast<HeapHeader_t*>(shmat(id, nullptr, 0));
  header->heapState = 0;
  shmdt(header);
  live(kSize);
  report();
}

}  // namespace
