// Storage heaps on given memory: the layout, the skip lists under traffic, pads, codes.
#include <cstring>
#include <map>
#include <random>

#include "heap_fixture.h"

namespace {

constexpr uint32_t kModes[] = {TREL_PAD_DEFAULT,   TREL_PAD_FRONT,        TREL_PAD_GUARD,
                               TREL_PAD_RECORD,    TREL_PAD_RECORD_GUARD, TREL_PAD_FILE,
                               TREL_PAD_FILE_GUARD};

// A pool beside a model of what it holds: each block's bytes repeat the low byte of its size.
class Traffic {
 public:
  Traffic(Heap& heap, uint32_t seed) : heap_(heap), random_(seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
  }

  uint64_t upTo(uint64_t limit) { return random_() % (limit + 1); }
  size_t blocks() const { return model_.size(); }
  std::mt19937& random() { return random_; }

  // A failure must be one of size, or of a node space that cannot grow, and lose nothing.
  uint32_t allocate(uint32_t size) {
    void* block = nullptr;
    const uint32_t rc = heap_.allocate(&block, size);
    if (rc == 0) {
      EXPECT_EQ(0u, heap_.offsetOf(block) % 8);
      for (uint32_t i = 0; i < size; ++i)
        if (static_cast<uint8_t*>(block)[i] != 0xff) return ADD_FAILURE() << "not filled", rc;
      memset(block, static_cast<uint8_t>(size), size);
      model_[heap_.offsetOf(block)] = size;
    } else if (rc == TREL_RC_POOL_NO_BLOCK || rc == TREL_RC_POOL_ABOVE_FREE) {
      const uint64_t unit = heap_.info().granularity;
      EXPECT_LT(heap_.walk().largestFree(), (size + unit - 1) / unit * unit + 216);
    } else {
      EXPECT_TRUE(rc == TREL_RC_SPACE_FIXED || rc == TREL_RC_SPACE_FULL) << std::hex << rc;
    }
    return rc;
  }

  uint32_t release(size_t index) {
    auto entry = std::next(model_.begin(), static_cast<long>(index));
    void* block = heap_.memory + entry->first;
    EXPECT_TRUE(holds(*entry));
    const uint32_t rc = heap_.release(&block);
    EXPECT_EQ(rc != 0, block != nullptr);
    if (rc == 0) model_.erase(entry);
    return rc;
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
    const uint8_t* bytes = heap_.memory + entry.first;
    for (uint32_t i = 0; i < entry.second; ++i)
      if (bytes[i] != static_cast<uint8_t>(entry.second)) return false;
    return true;
  }

  Heap& heap_;
  std::mt19937 random_;
  std::map<uint64_t, uint32_t> model_;  // data offset, size
};

TEST(HeapLayout, SizesComeFromTheTables) {
  struct Row {
    uint64_t size;
    uint32_t kind;
    uint64_t nodes, level, user, wantNodes, wantLevel, header, slHeader, slSpace;
  };
  const Row rows[] = {
      {0x100000, 1, 0, 7, 0, 350, 7, 488, 720, 64776},
      {0x10000, 1, 0, 7, 0, 25, 7, 488, 720, 5296},
      {0xfffff, 1, 0, 7, 12, 57, 7, 504, 720, 11152},
      {0x100000, 2, 0, 10, 0, 125, 10, 488, 936, 23816},
      {0x1000, 1, 10001, 26, 1, 10000, 25, 496, 2016, 1832016},
      {0x1000, 2, 250001, 1, 8, 250000, 1, 496, 288, 45750288},
      {0x40000000, 1, 0, 7, 0, 4693, 7, 488, 720, 859544},
      {0x3fffffff, 2, 0, 10, 0, 11734, 10, 488, 936, 2148264},
  };
  for (const Row& row : rows) {
    uint64_t nodes = row.nodes, level = row.level, header = 0, slHeader = 0, slSpace = 0;
    EXPECT_EQ(0u, trelGetHHeaderInfo(row.size, row.kind, &nodes, &level, row.user, &header,
                                     &slHeader, &slSpace));
    EXPECT_EQ(row.wantNodes, nodes) << row.size;
    EXPECT_EQ(row.wantLevel, level);
    EXPECT_EQ(row.header, header);
    EXPECT_EQ(row.slHeader, slHeader);
    EXPECT_EQ(row.slSpace, slSpace) << row.size;
  }
  uint64_t any = 0;
  EXPECT_EQ(TREL_RC_HEAP_KIND, trelGetHHeaderInfo(1, 3, &any, &any, 0, &any, &any, &any));
}

// Every shape of a heap is laid out by the rules and serves traffic.
TEST(HeapLayout, OddShapesHold) {
  for (const uint64_t user : {0u, 1u, 12u, 257u})
    for (const uint64_t level : {1u, 2u, 7u, 25u})
      for (const uint64_t granularity : {8u, 64u, 4096u}) {
        ShmDomainParam_t domain{};
        ShmPoolParam_t pool{};
        domain.userAreaSize = pool.userAreaSize = user;
        domain.maxLevel = pool.maxLevel = level;
        domain.granularity = pool.granularity = granularity;
        domain.heapOffset = 8 * user;
        const std::vector<uint8_t> data(user, 0x5a);
        domain.userData = pool.userData = data.data();
        Heap heap(400005, 100000, domain, pool);
        const ShmPoolInfo_t info = heap.info();
        EXPECT_EQ(0u, info.heapSize % granularity);
        EXPECT_GE(info.freeBytes, 100000u);
        EXPECT_EQ(level, info.maxLevel);
        EXPECT_EQ(user, info.userAreaSize);
        std::vector<uint8_t> copy(user);
        uint64_t size = 0;
        EXPECT_EQ(0u,
                  trelGetPoolUserAppData(heap.pool, &size,
                                         copy.empty() ? &size : static_cast<void*>(copy.data())));
        EXPECT_EQ(data, copy);
        Traffic traffic(heap, static_cast<uint32_t>(user + level + granularity));
        for (int step = 0; step < 60; ++step) {
          if (traffic.blocks() == 0 || traffic.upTo(2))
            traffic.allocate(static_cast<uint32_t>(1 + traffic.upTo(300)));
          else
            EXPECT_EQ(0u, traffic.release(traffic.upTo(traffic.blocks() - 1)));
          ASSERT_EQ("", traffic.difference(true)) << user << " " << level << " " << granularity;
        }
        for (const HeapBlock& block : heap.walk().allocated)
          EXPECT_EQ(0u, (block.size - 32) % granularity);
      }
}

TEST(HeapLayout, BestFitTakesTheTopAndFreeMerges) {
  Heap heap(0x40000, 0x10000);
  const uint64_t all = heap.info().freeBytes;
  void* blocks[5];
  for (void*& block : blocks) ASSERT_EQ(0u, heap.allocate(&block, 40));
  EXPECT_EQ(5 * 72u, heap.info().allocatedBytes);
  EXPECT_EQ(all - 5 * 72, heap.info().freeBytes);
  for (int i = 1; i < 5; ++i)
    EXPECT_EQ(heap.offsetOf(blocks[i - 1]) - 72, heap.offsetOf(blocks[i]));
  void* const first = blocks[1];
  void* const second = blocks[3];
  ASSERT_EQ(0u, heap.release(&blocks[1]));
  ASSERT_EQ(0u, heap.release(&blocks[3]));
  EXPECT_EQ(3u, heap.info().freeNodeCount);
  ASSERT_EQ(0u, heap.allocate(&blocks[3], 33));  // of two that fit exactly, the one freed last
  EXPECT_EQ(second, blocks[3]);
  ASSERT_EQ(0u, heap.allocate(&blocks[1], 40));
  EXPECT_EQ(first, blocks[1]);
  EXPECT_EQ(1u, heap.info().freeNodeCount);
  ASSERT_EQ(0u, heap.release(&blocks[0]));  // no neighbour, then below, above, and both
  ASSERT_EQ(0u, heap.release(&blocks[2]));
  EXPECT_EQ(3u, heap.info().freeNodeCount);
  ASSERT_EQ(0u, heap.release(&blocks[1]));
  EXPECT_EQ(2u, heap.info().freeNodeCount);
  ASSERT_EQ(0u, heap.release(&blocks[4]));
  ASSERT_EQ(0u, heap.release(&blocks[3]));
  EXPECT_EQ(1u, heap.info().freeNodeCount);
  EXPECT_EQ(all, heap.info().freeBytes);
  EXPECT_EQ("", heap.fault());
}

TEST(HeapTraffic, RandomAgainstModel) {
  const Reports reports;
  for (const uint32_t seed : {std::random_device{}(), 1u, 2u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 shape(seed);
    ShmPoolParam_t param{};
    param.maxLevel = shape() % 4 ? 10 : 1 + shape() % 25;
    Heap heap(600000, 100000 + shape() % 200000, {}, param);
    Traffic traffic(heap, seed);
    const uint64_t h = heap.pool->poolOffset;
    bool grow = true;
    for (int step = 0; step < 2500; ++step) {
      const uint64_t what = traffic.upTo(99);
      if (what == 0) {
        const uint32_t words = static_cast<uint32_t>(1 + traffic.upTo(7));
        EXPECT_EQ(0u, trelSetShmDebug(heap.memory, TREL_HEAP_POOL, h, 3,
                                      kModes[traffic.upTo(std::size(kModes) - 1)], words, words));
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
        ASSERT_EQ("", traffic.difference(true)) << "step " << step << ", remedy " << what;
      } else if (traffic.blocks() == 0 || (what < 75) == grow) {
        const uint64_t kind = traffic.upTo(20);
        const uint64_t size =
            kind < 15 ? 1 + traffic.upTo(120) : 1 + traffic.upTo(kind == 20 ? 50000 : 2000);
        if (traffic.allocate(static_cast<uint32_t>(size))) grow = false;
      } else {
        EXPECT_EQ(0u, traffic.release(traffic.upTo(traffic.blocks() - 1)));
        if (traffic.blocks() == 0) grow = true;
      }
      ASSERT_EQ("", traffic.difference(step % 50 == 0)) << "step " << step;
    }
    while (traffic.blocks()) ASSERT_EQ(0u, traffic.release(0));
    EXPECT_EQ(1u, heap.info().freeNodeCount);
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
      int refusals = 0;
      while (refusals < 20)
        if (traffic.allocate(static_cast<uint32_t>(1 + traffic.upTo(200)))) ++refusals;
      ASSERT_EQ("", traffic.difference(true));
      EXPECT_LT(heap.info().freeBytes, fresh.freeBytes / (round == 0 ? 50 : 4)) << traffic.blocks();
      while (traffic.blocks() > (round == 2 ? 0u : 50u))
        ASSERT_EQ(0u, traffic.release(traffic.upTo(traffic.blocks() - 1)));
      ASSERT_EQ("", traffic.difference(true));
    }
    const ShmPoolInfo_t now = heap.info();
    EXPECT_EQ(1u, now.freeNodeCount);
    EXPECT_EQ(fresh.freeBytes + fresh.slSpaceSize, now.freeBytes + now.slSpaceSize);
  }
}

// In each mode: what is written around a block, and that damage to each part is told.
TEST(HeapPads, EveryModeFindsItsDamage) {
  for (const uint32_t mode : kModes) {
    SCOPED_TRACE(mode);
    Heap heap(0x40000, 0x10000);
    const uint64_t h = heap.pool->poolOffset;
    ASSERT_EQ(0u, trelSetShmDebug(heap.memory, TREL_HEAP_POOL, h, 0xb, mode, 2, 2));
    void* block = nullptr;
    ASSERT_EQ(0u, heap.allocate(&block, 13, "a_file_name_longer_than_23_bytes.cpp"));
    ASSERT_EQ("", heap.fault());
    const HeapBlock found = heap.walk().allocated[0];
    uint64_t front = 0, total = 0;
    ASSERT_TRUE(HeapWalk::padSizes(mode, 2, 2, &front, &total));
    EXPECT_EQ(16 + total, found.size);
    EXPECT_EQ(front, found.data - found.offset);
    const bool file = mode == TREL_PAD_FILE || mode == TREL_PAD_FILE_GUARD;
    if (file) {
      EXPECT_STREQ("a_file_name_longer_than",
                   reinterpret_cast<char*>(heap.memory + found.offset + 16));
    }

    const bool back = mode != TREL_PAD_FRONT;
    const bool record = back && mode != TREL_PAD_DEFAULT && mode != TREL_PAD_GUARD;
    const bool guard =
        mode == TREL_PAD_GUARD || mode == TREL_PAD_RECORD_GUARD || mode == TREL_PAD_FILE_GUARD;
    const uint64_t d = found.data, e = found.offset + found.size, inner = guard ? 24 : 16;
    const struct {
      bool there;
      uint64_t at;
      const char* message;
      size_t count;
    } damages[] = {
        {true, d - 8, "Front memory pad corruption found at:", 1},
        {record, d - inner - 8,
         "Allocation size does not match between front and back pad structures found at:", 1},
        {record, found.offset, "Front pad corruption found at:", 1},
        {record, found.offset + 15, "Front pad corruption found at:", 1},
        {guard, d - 24, "Front memory pad checksum corruption found at:", 1},
        {back, e - 5, "Back memory pad corruption found at:", 1},
        {back, e - 1, "Back memory pad corruption found at:", 1},
        {guard, e - 20, "Back memory pad checksum corruption found at:", 1},
        {back, d + 13, "Back memory pad aligned size corruption found at", 1},
        {record, e - inner - 16, "back pad corruption found at:", 1},
        {back, e - 16, "Memory pad node offset corruption found at:", 1},
    };
    for (const auto& damage : damages) {
      if (!damage.there) continue;
      const Reports reports;
      EXPECT_EQ(0u, heap.check(block));
      EXPECT_EQ(0u, reports.lines.size()) << reports.lines[0];
      heap.memory[damage.at] ^= 1;  // word counts: 2 becomes 3
      heap.check(block);
      heap.memory[damage.at] ^= 1;
      EXPECT_EQ(damage.count, reports.count(damage.message)) << damage.message << damage.at;
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

TEST(HeapPads, UnevenWordsAndUnknownModes) {
  const Reports reports;
  Heap heap(0x40000, 0x10000);
  const uint64_t h = heap.pool->poolOffset;
  const auto set = [&](uint32_t mode, uint32_t front, uint32_t back) {
    return trelSetShmDebug(heap.memory, TREL_HEAP_POOL, h, 0xb, mode, front, back);
  };
  EXPECT_EQ(0u, set(TREL_PAD_OFF, 2, 2));
  EXPECT_EQ(0u, set(TREL_PAD_RECORD, 3, 2));
  void* block = nullptr;
  ASSERT_EQ(0u, heap.allocate(&block, 8));
  EXPECT_EQ(0u, heap.check(block));
  EXPECT_EQ(1u, reports.count("Allocation size does not match"));
  EXPECT_EQ(TREL_RC_DEBUG_MODE_LOCKED, set(TREL_PAD_OFF, 2, 2));
  for (const uint32_t words : {0u, 9u}) {
    EXPECT_EQ(TREL_RC_FRONT_PAD_WORDS, set(TREL_PAD_RECORD, words, words));
    EXPECT_EQ(TREL_RC_BACK_PAD_WORDS, set(TREL_PAD_RECORD, 1, words));
  }
  EXPECT_EQ(0u, set(0x12345678, 8, 8));
  void* none = nullptr;
  EXPECT_EQ(TREL_RC_PAD_MODE, heap.allocate(&none, 8));
  EXPECT_EQ(0u, set(TREL_PAD_FILE_GUARD, 8, 8));
  ASSERT_EQ(0u, heap.allocate(&none, 8));
  EXPECT_EQ(8 + 216u, heap.walk().allocated[0].size);
  EXPECT_EQ("", heap.fault());
  EXPECT_EQ(0u, heap.release(&none));
  EXPECT_EQ(0u, heap.release(&block));

  Heap bare(0x40000, 0x10000);
  ASSERT_EQ(0u, trelSetShmDebug(bare.memory, TREL_HEAP_POOL, bare.pool->poolOffset, 0, 0, 1, 1));
  ASSERT_EQ(0u, bare.allocate(&block, 8));
  EXPECT_EQ(24u, bare.info().allocatedBytes);
  memset(static_cast<uint8_t*>(block) - 16, 0, 12);  // mode 0 is not checked
  reports.lines.clear();
  EXPECT_EQ(0u, bare.check(block));
  EXPECT_EQ(0u, reports.lines.size());
  EXPECT_EQ(TREL_RC_DEBUG_MODE_LOCKED,
            trelSetShmDebug(bare.memory, TREL_HEAP_POOL, bare.pool->poolOffset, 0, TREL_PAD_DEFAULT,
                            1, 1));
}

TEST(HeapCodes, BlocksRefuseInOrder) {
  const Reports reports;
  Heap heap(0x40000, 0x10000);
  void* block = nullptr;
  ShmPoolHandle_t odd = *heap.pool;
  const auto allocate = [&](void** out, ShmPoolHandle_t* pool, uint32_t size,
                            uint32_t options = 0) {
    return _trelAllocateShmBlock(out, pool, size, options, 1, 2, nullptr);
  };
  const auto release = [&](void** out, ShmPoolHandle_t* pool) {
    return _trelFreeShmBlock(out, pool, 1, 2, nullptr);
  };
  EXPECT_EQ(TREL_RC_POOL_HANDLE_NULL, allocate(nullptr, nullptr, 0));
  EXPECT_EQ(TREL_RC_POOL_HANDLE_NULL, release(nullptr, nullptr));
  odd.base = nullptr;
  odd.poolOffset += 4;
  EXPECT_EQ(TREL_RC_BASE_NULL, allocate(nullptr, &odd, 0));
  EXPECT_EQ(TREL_RC_BASE_NULL, release(nullptr, &odd));
  odd.base = heap.memory;
  EXPECT_EQ(TREL_RC_BLOCK_ADDRESS_NULL, allocate(nullptr, &odd, 0));
  EXPECT_EQ(TREL_RC_POOL_OFFSET_ALIGN, allocate(&block, &odd, 0));
  EXPECT_EQ(TREL_RC_POOL_OFFSET_ALIGN, release(nullptr, &odd));
  EXPECT_EQ(TREL_RC_BLOCK_ADDRESS_NULL, release(nullptr, heap.pool));
  EXPECT_EQ(TREL_RC_BLOCK_NULL, release(&block, heap.pool));
  EXPECT_EQ(7u, reports.count("failed: 0x"));  // the null arguments, logged
  odd.poolOffset = heap.domain->heapOffset;
  EXPECT_EQ(TREL_RC_POOL_STATE, allocate(&block, &odd, 0));

  const uint64_t freeBytes = heap.info().freeBytes;
  EXPECT_EQ(TREL_RC_POOL_OPTIONS, allocate(&block, heap.pool, 0, 1));
  EXPECT_EQ(TREL_RC_POOL_SIZE_SMALL, allocate(&block, heap.pool, 0));
  EXPECT_EQ(TREL_RC_POOL_ABOVE_HEAP, allocate(&block, heap.pool, 0xffffffff));
  EXPECT_EQ(TREL_RC_POOL_ABOVE_FREE,
            allocate(&block, heap.pool, static_cast<uint32_t>(freeBytes - 24)));
  EXPECT_EQ(nullptr, block);
  EXPECT_EQ(0u, allocate(&block, heap.pool, static_cast<uint32_t>(freeBytes - 32)));  // all of it
  EXPECT_EQ(0u, heap.info().freeNodeCount);
  EXPECT_EQ(0u, heap.info().freeBytes);
  void* none = nullptr;
  EXPECT_EQ(TREL_RC_POOL_ABOVE_FREE, allocate(&none, heap.pool, 1));
  EXPECT_EQ("", heap.fault());
  EXPECT_EQ(0u, release(&block, heap.pool));

  void* blocks[3];
  for (void*& one : blocks) ASSERT_EQ(0u, allocate(&one, heap.pool, 100));
  ASSERT_EQ(0u, allocate(&block, heap.pool, static_cast<uint32_t>(heap.info().freeBytes - 32)));
  ASSERT_EQ(0u, release(&blocks[0], heap.pool));
  ASSERT_EQ(0u, release(&blocks[2], heap.pool));
  EXPECT_EQ(TREL_RC_POOL_NO_BLOCK, allocate(&none, heap.pool, 150));

  void* bad = heap.memory - 8;
  EXPECT_EQ(TREL_RC_BLOCK_BELOW_BASE, release(&bad, heap.pool));
  bad = static_cast<uint8_t*>(blocks[1]) + 8;
  EXPECT_EQ(TREL_RC_PAD_MODE, release(&bad, heap.pool));
  // A block of the domain, which is the pool itself, is not a block of the pool.
  bad = heap.memory + heap.pool->poolOffset;
  EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, release(&bad, heap.pool));
  // A mode word within a block does not make a block.
  bad = static_cast<uint8_t*>(block) + 48;
  const PadTail_t forged = {heap.walk().allocated[0].node, TREL_PAD_FRONT_MAGIC, TREL_PAD_DEFAULT};
  memcpy(static_cast<uint8_t*>(bad) - sizeof forged, &forged, sizeof forged);
  EXPECT_EQ(TREL_RC_POOL_NOT_FOUND, release(&bad, heap.pool));
  EXPECT_EQ("", heap.fault());
}

TEST(HeapCodes, ListOperationsRefuse) {
  const Reports reports;
  Heap heap(0x40000, 0x10000);
  void* const base = heap.memory;
  const uint64_t h = heap.pool->poolOffset;
  uint64_t a = 0, b = 0;
  for (const uint32_t kind : {TREL_HEAP_DOMAIN, TREL_HEAP_POOL}) {
    const uint64_t at = kind == TREL_HEAP_DOMAIN ? 0 : h;
    const auto pick = [&](uint32_t domain, uint32_t pool) {
      return kind == TREL_HEAP_DOMAIN ? domain : pool;
    };
    const uint32_t absent = pick(TREL_RC_DOMAIN_NOT_FOUND, TREL_RC_POOL_NOT_FOUND);
    const uint32_t offset = pick(TREL_RC_DOMAIN_OFFSET, TREL_RC_POOL_OFFSET);
    EXPECT_EQ(TREL_RC_BASE_NULL, trelFindFreeBlockInSList(nullptr, kind, at, 8, &a, &b));
    EXPECT_EQ(absent, trelFindFreeBlockInSList(base, kind, at, 8, &a, &b));
    EXPECT_EQ(TREL_RC_BASE_NULL, trelDeleteAllocMemBlock(nullptr, kind, at, 8, &a));
    EXPECT_EQ(pick(TREL_RC_DOMAIN_LIST_END, TREL_RC_POOL_LIST_END),
              trelDeleteAllocMemBlock(base, kind, at, 0x3fff8, &a));
    EXPECT_EQ(pick(TREL_RC_DOMAIN_NO_BLOCK, TREL_RC_POOL_NO_BLOCK),
              trelGetFreeBlockFromSList(base, kind, at, 0x40000, &a, &b));
    EXPECT_EQ(TREL_RC_SPACE_DIRECTION, trelChangeSlistSpace(base, kind, at, 8, 3, &a, &b));
    EXPECT_EQ(pick(TREL_RC_DOMAIN_STATE, TREL_RC_POOL_STATE),
              trelConnectToStorageHeap(base, kind, h - at));  // a heap of the other kind
    reinterpret_cast<HeapHeader_t*>(heap.memory + at)->heapOffset += 8;
    EXPECT_EQ(offset, trelDefragmentSList(base, kind, at, &a, &b));
    EXPECT_EQ(offset, trelConnectToStorageHeap(base, kind, at));
    EXPECT_EQ(offset, trelGetFreeBlockFromSList(base, kind, at, 8, &a, &b));
    EXPECT_EQ(offset, trelReturnFreeBlockToSList(base, kind, at, 8, 8));
    reinterpret_cast<HeapHeader_t*>(heap.memory + at)->heapOffset -= 8;
  }
  EXPECT_EQ(TREL_RC_HEAP_KIND, trelFindFreeBlockInSList(base, 0, h, 8, &a, &b));
  EXPECT_EQ(TREL_RC_HEAP_KIND, trelDefragmentSList(base, 3, h, &a, &b));
  EXPECT_EQ(0x90000197, trelInsertFreeMemBlock(base, 9, h, nullptr, nullptr));
  EXPECT_EQ(0x90000197, trelDefragmentSList(base, 9, h, nullptr, nullptr));
  EXPECT_EQ(0x90000198, trelDefragmentSList(base, 9, h, &a, nullptr));
  EXPECT_EQ("", heap.fault());
}

}  // namespace
