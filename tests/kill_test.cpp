// Two writers and two readers on one segment, while a supervisor kills writers at random moments
// and starts others in their place; and daemons that are killed at any moment of their life and
// started again. TREL_KILL_SECONDS makes it longer than 500 kills, 100 a second, and 100 restarts.
#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <random>
#include <vector>

#include "heap_walker.h"
#include "section_walker.h"
#include "segment_fixture.h"

namespace {

using walker::bytes;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kSize = 0x80000;
constexpr uint64_t kTags = 8;  // each writer's own properties
constexpr uint64_t kStamp = 0x57a3b00;
constexpr int kBlocks = 24;  // each writer's own blocks

// What the processes tell each other apart from the segment under test.
struct Board {
  std::atomic<bool> stop;
  std::atomic<uint64_t> reads, writes, longestWaitUs, refusals;
  // Blocks by writer, as offsets. A killed writer leaves its row to the next, and the block that it
  // was giving back, which bears a stamp.
  std::atomic<uint64_t> blocks[2][kBlocks];
  std::atomic<uint64_t> returning[2];
};

struct Kills : Library {
  Segment segment{kSize};
  SNodeCB_t* const node =
      segment.makeActive(TREL_EXPORT_ID | TREL_EXPORT_R | TREL_EXPORT_IV,
                         {16 + 64, 0, 0, 0, 0, 0, 0x8000, 0, 0, 0x8000}, 1, "node");
  const Shared<Board> board;

  Kills() {
    EXPECT_EQ(0u, trelCreateRPropertyList(node, nullptr, nullptr, 0, 40, 1, 0));
    EXPECT_EQ(0u, trelCreateIVPropertyList(node, nullptr, nullptr, nullptr, 16, nullptr, nullptr,
                                           32, 0, 7, 7, 40, 1, 0));
    EXPECT_EQ(0u, trelAddRProperty(node, 99, 5, 0));
  }

  std::atomic<uint64_t>* stampOf(uint64_t block) {
    return reinterpret_cast<std::atomic<uint64_t>*>(static_cast<uint8_t*>(segment.domain()->base) +
                                                    block);
  }
  // By which the pool's own records tell whose a block is.
  static uint32_t lineOf(uint64_t who) { return static_cast<uint32_t>(1000 + who); }
  void take(uint64_t who, std::atomic<uint64_t>* place, uint32_t size) {
    void* address = nullptr;
    if (_trelAllocateShmBlock(&address, segment.pool(), size, 0, 1, lineOf(who), "kill_test") != 0)
      return;
    *place = segment.offsetOf(address);
    *stampOf(*place) = kStamp + who;
  }
  // A block that was freed already has lost its stamp, or is refused.
  void giveBack(uint64_t who) {
    const uint64_t block = board->returning[who];
    if (block == 0) return;
    void* address = stampOf(block);
    if (*stampOf(block) == (kStamp + who))
      _trelFreeShmBlock(&address, segment.pool(), 1, 2, "kill_test");
    board->returning[who] = 0;
  }

  // Adds, sets and deletes properties of its own and entries of a shared list, gets and frees
  // blocks, until it is killed.
  void write(uint64_t who) {
    std::mt19937 random(static_cast<uint32_t>(getpid()));
    srand(static_cast<uint32_t>(getpid()));
    const uint64_t first = 1 + who * kTags;
    giveBack(who);
    while (!board->stop) {
      const uint64_t tag = first + random() % kTags;
      trelAddRProperty(node, tag, static_cast<int32_t>(tag), 0);
      trelAddIVProperty(node, tag, 3, bytes("abc"), 8, bytes("contents"), 0);
      trelSetValueForIVProperty(node, tag, 3, bytes("abc"), 11, bytes("more of it "), 0);
      const uint64_t gone = first + random() % kTags;
      trelDeleteRProperty(node, gone, 0);
      trelDeleteIVProperty(node, gone, 3, bytes("abc"), 0);
      const HdmModuleRecord_t module = {{static_cast<char>('a' + random() % 4)}, {}};
      HdmModuleRecord_t* entry = nullptr;
      trelInsertHDMNodeIntoLList(segment.pool(), &module, &entry);
      trelDeleteHDMNodeFromLList(segment.pool(), &module);
      for (int i = 0; i < 4; ++i) {
        std::atomic<uint64_t>& place = board->blocks[who][random() % kBlocks];
        if (place) {
          board->returning[who] = place.load();
          place = 0;
          giveBack(who);
        } else {
          take(who, &place, 16 + random() % 900);
        }
      }
      ++board->writes;
    }
  }

  // A reader's visit to one latch.
  void visit(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    const auto waited = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count());
    uint64_t longest = board->longestWaitUs;
    while (waited > longest && !board->longestWaitUs.compare_exchange_weak(longest, waited)) {
    }
  }

  void read() {
    for (; !board->stop; ++board->reads) {
      visit([&] {
        int32_t value = 0;
        if (trelGetValueForRProperty(node, 99, &value, 0) != 0 || value != 5) ++board->refusals;
      });
      visit([&] {
        trelLatchShmPool(segment.pool());
        trelUnlatchShmPool(segment.pool());
      });
      visit([&] {
        trelLatchShmDomain(segment.domain());
        trelUnlatchShmDomain(segment.domain());
      });
      usleep(200);
    }
  }

  void expectSound() {
    // Takes the latches, so that whatever the last death left is repaired.
    EXPECT_EQ(0u, trelLatchShmPool(segment.pool()));
    EXPECT_EQ("", heapFault(segment.domain()->base, 2, segment.pool()->poolOffset));
    EXPECT_EQ(0u, trelUnlatchShmPool(segment.pool()));
    EXPECT_EQ(0u, trelLatchShmDomain(segment.domain()));
    EXPECT_EQ("", heapFault(segment.domain()->base, 1, segment.domain()->heapOffset));
    EXPECT_EQ(0u, trelUnlatchShmDomain(segment.domain()));
    EXPECT_EQ(0u, trelEnterCriticalSectionBeforeWrite(node, &node->nodeLatchArea));
    EXPECT_EQ("", walker::Section(node, TREL_EXPORT_R).error);
    EXPECT_EQ("", walker::Section(node, TREL_EXPORT_IV).error);
    EXPECT_EQ(TREL_CONDITION_ACTIVE, node->condition);
    EXPECT_EQ(0u, trelExitCriticalSectionAfterWrite(node, &node->nodeLatchArea));
  }

  // The writer is dead. Gives back what it had got and not noted yet; no more than one block can
  // be.
  void reclaim(uint64_t who) {
    for (auto& place : board->blocks[who])
      if (place) *stampOf(place) = kStamp + who;
    giveBack(who);
    std::vector<void*> orphans;
    EXPECT_EQ(0u, trelLatchShmPool(segment.pool()));
    auto* base = static_cast<uint8_t*>(segment.domain()->base);
    const HeapWalk walk(base, 2, segment.pool()->poolOffset);
    EXPECT_EQ("", walk.fault);
    for (const HeapBlock& block : walk.allocated) {
      const auto& row = board->blocks[who];
      if (reinterpret_cast<AllocNode_t*>(base + block.node)->callerLine == lineOf(who) &&
          std::find(std::begin(row), std::end(row), block.data) == std::end(row))
        orphans.push_back(base + block.data);
    }
    EXPECT_EQ(0u, trelUnlatchShmPool(segment.pool()));
    EXPECT_LE(orphans.size(), 1u);
    for (void* block : orphans)
      EXPECT_EQ(0u, _trelFreeShmBlock(&block, segment.pool(), 1, 2, "kill_test"));
  }

  // Blocks in use that no writer has noted.
  size_t unnoted() {
    const HeapWalk walk(segment.domain()->base, 2, segment.pool()->poolOffset);
    size_t noted = 0;
    for (auto& row : board->blocks)
      for (auto& place : row) noted += place != 0;
    return walk.allocated.size() - noted;
  }
};

TEST_F(Kills, WritersAtRandomMoments) {
  const char* wanted = getenv("TREL_KILL_SECONDS");
  const int kills = (wanted ? atoi(wanted) : 5) * 100;
  const size_t atFirst = unnoted();
  Child reader([&] { read(); }), another([&] { read(); });
  std::optional<Child> writers[2];
  const auto start = [&](uint64_t w) { writers[w].emplace([&, w] { write(w); }); };
  const auto end = [&](uint64_t w) {
    writers[w]->end();
    reclaim(w);
  };
  for (uint64_t w = 0; w < 2; ++w) start(w);
  std::mt19937 random(11);
  for (int kill = 0; kill < kills; ++kill) {
    usleep(500 + random() % 8000);
    const uint64_t w = random() % 2;
    end(w);
    if (kill % 16 == 0) expectSound();
    start(w);
  }
  for (uint64_t w = 0; w < 2; ++w) end(w);
  board->stop = true;
  EXPECT_EQ(0, reader.wait() | another.wait());
  expectSound();
  EXPECT_EQ(0u, trelDeleteHDMLList(segment.pool()));
  printf("%d kills, longest wait of a reader %llu us\n", kills,
         static_cast<unsigned long long>(board->longestWaitUs));
  EXPECT_GT(board->reads, 100u);
  EXPECT_GT(board->writes, 100u);
  EXPECT_EQ(0u, board->refusals);
  EXPECT_LT(board->longestWaitUs, 2000000u);  // the machine may be busy
  EXPECT_EQ(atFirst, unnoted());              // memory in use does not creep
}

struct Restarts : Library {
  struct Board {
    std::atomic<uint64_t> starts, failures, code;
  };
  const Key key;
  const Shared<Board> board;

  bool succeeds(uint32_t rc) {
    if (rc == 0) return true;
    board->code = rc;
    ++board->failures;
    return false;
  }
  // A daemon's life, over and over: it ends what its predecessor has left whole, makes its segment,
  // publishes, compacts, and deletes its segment again.
  void serve() {
    srand(static_cast<uint32_t>(getpid()));
    for (uint64_t round = 0;; ++round) {
      ShmSegInfo_t* info = nullptr;
      const auto create = [&] {
        return trelGetProtectedStatusSegment(&info, 0x40000, key, 0, 0, nullptr, nullptr);
      };
      uint32_t rc = create();
      if (rc == TREL_RC_SEGMENT_EXISTS && succeeds(trelRemoveStatusSegment(key, 2))) rc = create();
      if (!succeeds(rc)) return;
      ++board->starts;
      uint64_t sizes[64] = {16 + 64}, size = 0, offset = 0, found = 0;
      SNodeCB_t* node = nullptr;
      succeeds(trelCreateNode(info, &node, TREL_EXPORT_ID, sizes, &size, &offset));
      succeeds(trelPutTopNodeInfoIntoDomainHeader(
          info->shmDomainHandle, 1, offset,
          static_cast<uint32_t>(info->shmPoolHandle->poolOffset)));
      void* blocks[20] = {};
      for (uint32_t i = 0; i < 40; ++i) {
        void*& block = blocks[i % 20];
        succeeds(
            block ? _trelFreeShmBlock(&block, info->shmPoolHandle, 1, 2, "daemon")
                  : _trelAllocateShmBlock(&block, info->shmPoolHandle, 24 + i, 0, 1, 2, "daemon"));
      }
      succeeds(trelLatchShmPool(info->shmPoolHandle));
      trelDefragmentSList(info->shmDomainHandle->base, TREL_HEAP_POOL,
                          info->shmPoolHandle->poolOffset, &size, &found);
      succeeds(trelUnlatchShmPool(info->shmPoolHandle));
      if (!succeeds(trelDeleteStatusSegment(&info, 3, 1 + round % 2, 2))) return;
    }
  }
};

TEST_F(Restarts, OfADaemonNeedNobody) {
  const int restarts = getenv("TREL_KILL_SECONDS") ? 1000 : 100;
  std::mt19937 random(7);
  for (int i = 0; i < restarts; ++i) {
    Child daemon([&] { serve(); });
    for (const uint64_t before = board->starts; board->starts == before && board->failures == 0;)
      usleep(50);
    usleep(random() % 3000);
    EXPECT_TRUE(daemon.isRunning());
    daemon.end();
    ASSERT_EQ(0u, board->failures) << "restart " << i << ": " << std::hex << board->code;
  }
  printf("%d restarts, %llu segments made\n", restarts,
         static_cast<unsigned long long>(board->starts));
  const uint32_t rc = trelRemoveStatusSegment(key, 1);
  EXPECT_TRUE(rc == 0 || rc == TREL_RC_SEGMENT_ABSENT) << std::hex << rc;
  EXPECT_FALSE(key.exists());
}

}  // namespace
