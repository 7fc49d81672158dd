// Storage heaps on given memory: the layout, the skip lists under traffic, pads, limits.
#include <cstring>
#include <map>
#include <random>

#include "heap_fixture.h"

namespace {

bool repeats(const uint8_t* bytes, uint32_t size, uint8_t value) {
  return std::all_of(bytes, bytes + size, [&](uint8_t byte) { return byte == value; });
}

// A pool beside a model of what it holds: each block's bytes repeat the low byte of its size.
class Traffic {
 public:
  Traffic(Heap& heap, uint32_t seed) : heap_(heap), random_(seed) {}

  uint64_t pads = 32;  // bytes of both pads of a new block

  uint64_t upTo(uint64_t limit) { return random_() % (limit + 1); }
  size_t blocks() const { return model_.size(); }

  // The first free block that is large enough gives its top end. A failure must be one of size, or
  // of a node space that cannot grow, and lose nothing.
  uint32_t allocate(uint64_t bytes) {
    const uint32_t size = static_cast<uint32_t>(bytes);
    const ShmPoolInfo_t info = heap_.info();
    const uint64_t unit = info.granularity, needed = (size + unit - 1) / unit * unit + pads;
    const auto fit = [&] {
      for (const HeapBlock& block : heap_.walk().freeBySize)
        if (block.size >= needed) return block;
      return HeapBlock{};
    };
    const bool follows = blocks() < 100;  // more would cost minutes
    const HeapBlock expected = follows ? fit() : HeapBlock{};
    void* data = nullptr;
    const uint32_t rc = heap_.allocate(&data, size);
    if (rc == 0) {
      if (follows) {
        const HeapBlock block = heap_.blockOf(data);
        EXPECT_EQ(needed, block.size);
        EXPECT_TRUE(expected.end() == block.end() || heap_.info().slSpaceSize != info.slSpaceSize);
      }
      EXPECT_EQ(0u, heap_.offsetOf(data) % 8);
      EXPECT_TRUE(repeats(static_cast<uint8_t*>(data), size, 0xff));
      memset(data, static_cast<uint8_t>(size), size);
      model_[heap_.offsetOf(data)] = size;
    } else if (rc == TREL_RC_POOL_NO_BLOCK || rc == TREL_RC_POOL_ABOVE_FREE) {
      EXPECT_EQ(0u, fit().size);
    } else {
      EXPECT_TRUE(rc == TREL_RC_SPACE_FIXED || rc == TREL_RC_SPACE_FULL) << std::hex << rc;
    }
    return rc;
  }

  // Frees one of the blocks.
  void release() {
    const auto entry = std::next(model_.begin(), static_cast<long>(upTo(blocks() - 1)));
    void* block = heap_.memory + entry->first;
    EXPECT_TRUE(holds(*entry));
    EXPECT_EQ(0u, heap_.release(&block));
    EXPECT_EQ(nullptr, block);
    model_.erase(entry);
  }

  // The pool's lists against the model; with `contents`, the bytes of all blocks too.
  std::string difference(bool contents) const {
    const HeapWalk walk = heap_.walk();
    if (!walk.fault.empty()) return walk.fault;
    if (walk.allocated.size() != model_.size()) return "blocks lost or gained";
    auto found = walk.allocated.begin();
    for (const auto& entry : model_) {
      if (found->data != entry.first || found->requested != entry.second) return "another block";
      if (contents && !holds(entry)) return "contents changed";
      ++found;
    }
    return "";
  }

 private:
  bool holds(const std::pair<const uint64_t, uint32_t>& entry) const {
    return repeats(heap_.memory + entry.first, entry.second, static_cast<uint8_t>(entry.second));
  }

  Heap& heap_;
  std::mt19937 random_;
  std::map<uint64_t, uint32_t> model_;  // data offset, size
};

TEST(HeapLayout, SizesComeFromTheTables) {
  struct {
    uint64_t size, user;
    uint32_t kind;
    uint64_t nodes, level;
    std::array<uint64_t, 5> wanted;  // nodes, level, sizes of header, list header and node space
  } rows[] = {{0x100000, 0, 1, 0, 7, {350, 7, 488, 720, 64776}},
              {0x10000, 0, 1, 0, 7, {25, 7, 488, 720, 5296}},
              {0xfffff, 12, 1, 0, 7, {57, 7, 504, 720, 11152}},
              {0x100000, 0, 2, 0, 10, {125, 10, 488, 936, 23816}},
              {0x1000, 1, 1, 10001, 26, {10000, 25, 496, 2016, 1832016}},
              {0x1000, 8, 2, 250001, 1, {250000, 1, 496, 288, 45750288}},
              {0x40000000, 0, 1, 0, 7, {4693, 7, 488, 720, 859544}},
              {0x3fffffff, 0, 2, 0, 10, {11734, 10, 488, 936, 2148264}}};
  for (auto& row : rows) {
    std::array<uint64_t, 5> got = {row.nodes, row.level, 0, 0, 0};
    EXPECT_EQ(0u, trelGetHHeaderInfo(row.size, row.kind, &got[0], &got[1], row.user, &got[2],
                                     &got[3], &got[4]));
    EXPECT_EQ(row.wanted, got) << row.size;
  }
}

TEST(HeapLayout, FreeBlocksOfOneSizeServeInTurn) {
  Heap heap(0x40000, 0x10000);
  void* blocks[5];
  for (void*& block : blocks) ASSERT_EQ(0u, heap.allocate(&block, 40));
  for (int i : {1, 3}) {
    void* block = blocks[i];
    ASSERT_EQ(0u, heap.release(&block));
  }
  for (int i : {3, 1}) {  // the one freed last is the first
    void* block = nullptr;
    ASSERT_EQ(0u, heap.allocate(&block, 33));
    EXPECT_EQ(blocks[i], block);
  }
}

// Heaps of every shape under random use, and their lists repaired and moved meanwhile.
TEST(HeapTraffic, RandomAgainstModel) {
  const Reports reports;
  const uint32_t anySeed = std::random_device{}();
  for (uint32_t i = 0; i < 12; ++i) {
    const uint32_t seed = i < 6 ? i : anySeed + i;
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    ShmDomainParam_t domain{};
    ShmPoolParam_t pool{};
    domain.maxLevel = pool.maxLevel = std::array{1, 2, 10, 25}[i % 4];
    domain.granularity = pool.granularity = std::array{8, 64, 4096}[i % 3];
    domain.userAreaSize = pool.userAreaSize = std::array{0, 1, 12, 8, 257}[i % 5];
    domain.heapOffset = 8 * pool.userAreaSize;
    const std::vector<uint8_t> data(pool.userAreaSize + 1, 0x5a);
    domain.userData = pool.userData = data.data();
    Heap heap(600005, 200000, domain, pool);
    const ShmPoolInfo_t info = heap.info();
    EXPECT_EQ(0u, info.heapSize % pool.granularity);
    EXPECT_GE(info.freeBytes, 200000u);
    EXPECT_EQ(pool.maxLevel, info.maxLevel);
    std::vector<uint8_t> copy(data.size(), 0x5a);
    uint64_t userSize = 0;
    EXPECT_EQ(0u, trelGetPoolUserAppData(heap.pool, &userSize, copy.data()));
    EXPECT_EQ(pool.userAreaSize, userSize);
    EXPECT_EQ(data, copy);

    Traffic traffic(heap, seed);
    const uint64_t h = heap.pool->poolOffset;
    bool grow = true;
    for (int step = 0; step < 700; ++step) {
      const uint64_t what = traffic.upTo(99);
      if (what == 0) {
        const uint32_t words = static_cast<uint32_t>(1 + traffic.upTo(7));
        const PadShape& shape = kPadShapes[1 + traffic.upTo(std::size(kPadShapes) - 2)];
        EXPECT_EQ(0u, trelSetShmDebug(heap.memory, TREL_HEAP_POOL, h, 3, shape.mode, words, words));
        traffic.pads = shape.frontSize(words) + shape.backSize(words);
      } else if (what < 5) {  // the remedies for lack of node space, with no block in flight
        uint64_t offset = 0, size = 0;
        const uint64_t space = heap.info().slSpaceSize, wanted = 8 * traffic.upTo(space / 4);
        ASSERT_EQ(0u, trelLatchShmPool(heap.pool));
        const uint32_t rc =
            what == 1   ? trelDefragmentSLInPlace(heap.memory, TREL_HEAP_POOL, h)
            : what == 2 ? trelDefragmentSList(heap.memory, TREL_HEAP_POOL, h, &offset, &size)
                        : trelChangeSlistSpace(heap.memory, TREL_HEAP_POOL, h, wanted,
                                               wanted > space ? 1 : 2, &offset, &size);
        ASSERT_EQ(0u, trelUnlatchShmPool(heap.pool));
        EXPECT_TRUE(rc == 0 || rc == TREL_RC_SPACE_FIXED || rc == TREL_RC_SPACE_FULL)
            << std::hex << rc;
      } else if (traffic.blocks() == 0 || (what < 75) == grow) {
        const uint64_t kind = traffic.upTo(20);
        const uint64_t limit = kind < 15 ? 120 : kind < 20 ? 2000 : 50000;
        if (traffic.allocate(1 + traffic.upTo(limit))) grow = false;
      } else {
        traffic.release();
        if (traffic.blocks() == 0) grow = true;
      }
      ASSERT_EQ("", traffic.difference(step % 50 == 0 || what < 5)) << "step " << step;
    }
    while (traffic.blocks()) traffic.release();
    EXPECT_EQ(1u, heap.info().freeNodeCount);
    EXPECT_EQ(info.freeBytes + info.slSpaceSize, heap.info().freeBytes + heap.info().slSpaceSize);
    EXPECT_EQ("", heap.fault());
  }
  EXPECT_EQ(0u, reports.lines.size()) << reports.lines[0];
}

// Small blocks need more node space than a pool starts with; it must grow while memory is left, and
// nothing may be lost whatever happens.
TEST(HeapTraffic, BusyDefaultPoolFillsAndEmpties) {
  for (const uint32_t size : {0x40000u, 0x100000u}) {
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    Heap heap(2 * size, size);
    Traffic traffic(heap, seed);
    const ShmPoolInfo_t fresh = heap.info();
    for (int round = 0; round < 3; ++round) {
      for (int refusals = 0; refusals < 20;)
        if (traffic.allocate(1 + traffic.upTo(200))) ++refusals;
      ASSERT_EQ("", traffic.difference(true));
      EXPECT_LT(heap.info().freeBytes, fresh.freeBytes / (round == 0 ? 12 : 2)) << traffic.blocks();
      while (traffic.blocks() > (round == 2 ? 0u : 50u)) traffic.release();
      ASSERT_EQ("", traffic.difference(true));
    }
    EXPECT_EQ(1u, heap.info().freeNodeCount);
  }
}

// In each mode: what is written around a block, and that damage to each part is told.
TEST(HeapPads, EveryModeFindsItsDamage) {
  for (const PadShape& shape : kPadShapes) {
    SCOPED_TRACE(shape.mode);
    const bool off = shape.mode == TREL_PAD_OFF;
    Heap heap(0x40000, 0x10000);
    const uint64_t h = heap.pool->poolOffset;
    ASSERT_EQ(0u, trelSetShmDebug(heap.memory, TREL_HEAP_POOL, h, 0xb, shape.mode, 2, 2));
    void* block = nullptr;
    ASSERT_EQ(0u, heap.allocate(&block, 13, "a_file_name_longer_than_23_bytes.cpp"));
    EXPECT_EQ(TREL_RC_DEBUG_MODE_LOCKED,  // pads come and go in an empty heap alone
              trelSetShmDebug(heap.memory, TREL_HEAP_POOL, h, 0xb,
                              off ? TREL_PAD_DEFAULT : TREL_PAD_OFF, 2, 2));
    ASSERT_EQ("", heap.fault());
    const HeapBlock found = heap.walk().allocated[0];
    EXPECT_EQ(16 + shape.frontSize(2) + shape.backSize(2), found.size);
    if (shape.hasFile) {
      EXPECT_STREQ("a_file_name_longer_than",
                   reinterpret_cast<char*>(heap.memory + found.offset + 16));
    }

    const bool back = shape.back, record = shape.hasWords, guard = shape.hasGuard;
    const uint64_t d = found.data, e = found.offset + found.size, inner = guard ? 24 : 16;
    for (const auto& [there, at, message] : Rows<bool, uint64_t, const char*>{
             {true, d - 8, off ? nullptr : "Front memory pad corruption found at:"},
             {record, d - inner - 8, "match between front and back pad structures found at:"},
             {record, d - inner - 4, "match between front and back pad structures found at:"},
             {record, found.offset, "Front pad corruption found at:"},
             {record, found.offset + 15, "Front pad corruption found at:"},
             {guard, d - 24, "Front memory pad checksum corruption found at:"},
             {back, e - 5, "Back memory pad corruption found at:"},
             {back, e - 1, "Back memory pad corruption found at:"},
             {guard, e - 20, "Back memory pad checksum corruption found at:"},
             {back, d + 13, "Back memory pad aligned size corruption found at"},
             {record, e - inner - 16, "back pad corruption found at:"},
             {back, e - 16, "Memory pad node offset corruption found at:"}}) {
      if (!there) continue;
      const Reports reports;
      EXPECT_EQ(0u, heap.check(block));
      EXPECT_EQ(0u, reports.lines.size()) << reports.lines[0];
      heap.memory[at] ^= 1;  // word counts: 2 becomes 3
      EXPECT_EQ(0u, heap.check(block));
      heap.memory[at] ^= 1;
      if (off) {
        EXPECT_EQ(0u, reports.lines.size());
        continue;
      }
      EXPECT_EQ(1u, reports.count(message)) << message << at;
      EXPECT_NE(0u, reports.count("heap_test:8"));
    }
    const Reports reports;
    void* again = block;
    EXPECT_EQ(0u, heap.release(&block));
    EXPECT_EQ(nullptr, block);
    EXPECT_EQ(TREL_RC_PAD_MODE, heap.release(&again));
    EXPECT_EQ(TREL_RC_PAD_MODE, heap.check(again));
    EXPECT_EQ(0u, reports.lines.size());
    EXPECT_EQ(0u, _trelCheckAllocShmChunk(heap.memory, TREL_HEAP_POOL, h, d, nullptr, 7, 8, "f"));
    EXPECT_EQ(1u, reports.count("Freeing freed memory found at:"));
  }
}

TEST(HeapPads, OneToEightWords) {
  Heap heap(0x40000, 0x10000);
  const auto set = [&](uint32_t mode, uint32_t front, uint32_t back) {
    return trelSetShmDebug(heap.memory, TREL_HEAP_POOL, heap.pool->poolOffset, 0xb, mode, front,
                           back);
  };
  EXPECT_EQ(0u, set(TREL_PAD_OFF, 2, 2));
  for (const uint32_t words : {0u, 9u}) {
    EXPECT_EQ(TREL_RC_FRONT_PAD_WORDS, set(TREL_PAD_RECORD, words, words));
    EXPECT_EQ(TREL_RC_BACK_PAD_WORDS, set(TREL_PAD_RECORD, 1, words));
  }
  void* block = nullptr;
  EXPECT_EQ(0u, set(0x12345678, 8, 8));
  EXPECT_EQ(TREL_RC_PAD_MODE, heap.allocate(&block, 8));
  EXPECT_EQ(0u, set(TREL_PAD_FILE_GUARD, 8, 8));
  ASSERT_EQ(0u, heap.allocate(&block, 8));
  EXPECT_EQ(8 + 216u, heap.walk().allocated[0].size);
  EXPECT_EQ("", heap.fault());
}

TEST(HeapLimits, RefusalsChangeNothing) {
  const Reports reports;
  Heap heap(0x40000, 0x10000);
  void* block = nullptr;
  const uint64_t freeBytes = heap.info().freeBytes;
  EXPECT_EQ(TREL_RC_POOL_SIZE_SMALL, heap.allocate(&block, 0));
  EXPECT_EQ(TREL_RC_POOL_ABOVE_HEAP, heap.allocate(&block, 0xffffffff));
  EXPECT_EQ(TREL_RC_POOL_ABOVE_FREE, heap.allocate(&block, static_cast<uint32_t>(freeBytes - 24)));
  EXPECT_EQ(nullptr, block);
  EXPECT_EQ(0u, heap.allocateRest(&block));
  EXPECT_EQ(0u, heap.info().freeNodeCount);
  void* none = nullptr;
  EXPECT_EQ(TREL_RC_POOL_ABOVE_FREE, heap.allocate(&none, 1));
  EXPECT_EQ("", heap.fault());
  EXPECT_EQ(0u, heap.release(&block));

  void* blocks[3];
  for (void*& one : blocks) ASSERT_EQ(0u, heap.allocate(&one, 100));
  ASSERT_EQ(0u, heap.allocateRest(&block));
  ASSERT_EQ(0u, heap.release(&blocks[0]));
  ASSERT_EQ(0u, heap.release(&blocks[2]));
  EXPECT_EQ(TREL_RC_POOL_NO_BLOCK, heap.allocate(&none, 150));

  // A mode word within a block does not make a block.
  uint8_t* const forged = static_cast<uint8_t*>(block) + 48;
  const PadTail_t pad = {heap.walk().allocated[0].node, TREL_PAD_FRONT_MAGIC, TREL_PAD_DEFAULT};
  memcpy(forged - sizeof pad, &pad, sizeof pad);
  for (auto [stranger, code] : Rows<void*, uint32_t>{
           {heap.memory - 8, TREL_RC_BLOCK_BELOW_BASE},
           {static_cast<uint8_t*>(blocks[1]) + 8, TREL_RC_PAD_MODE},
           {heap.header(heap.pool->poolOffset), TREL_RC_BLOCK_OUTSIDE_POOL},  // the domain's block
           {forged, TREL_RC_POOL_NOT_FOUND}})
    EXPECT_EQ(code, heap.release(&stranger));
  EXPECT_EQ("", heap.fault());
}

}  // namespace
