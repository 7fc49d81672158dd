// A process dies at every store of every operation on a heap, and of the repair that follows.
#include <map>
#include <random>

#include "deaths.h"
#include "heap_walker.h"
#include "segment_fixture.h"
#include "trel/codes.h"

namespace {

// What stands in a heap: data offset and requested size of each allocated block.
using Blocks = std::map<uint64_t, uint64_t>;

struct Contents {
  Blocks chunks, blocks;
  std::vector<uint32_t> entries;  // keys on the shared list of segments
  size_t pools;
  bool operator==(const Contents& o) const {
    return chunks == o.chunks && blocks == o.blocks && entries == o.entries && pools == o.pools;
  }
};

constexpr uint32_t kSegment = 0x20000;

// A domain on a System V segment with one pool, whose node space is small, so that it is often
// rebuilt and resized.
struct Heaps {
  Key key;
  ShmDomainHandle_t* domain = nullptr;
  ShmPoolHandle_t* pool = nullptr;
  Memory memory{nullptr, 0};

  explicit Heaps(uint32_t poolSize = 0x4000, uint64_t nodes = 6) {
    ShmDomainParam_t domainParam{};
    domainParam.nodeCount = 8;
    EXPECT_EQ(0u, trelCreateShmDomain(key, 0, kSegment, &domainParam, &domain));
    ShmPoolParam_t poolParam{};
    poolParam.nodeCount = nodes;
    poolParam.maxLevel = 4;
    EXPECT_EQ(0u, _trelCreateShmPool(&pool, domain, poolSize, &poolParam, 1, 2, "killpoints"));
    memory = Memory(domain->base, kSegment);
  }
  ~Heaps() {
    trelDestroyShmPoolHandle(&pool);
    trelFreeShmDomain(&domain, 2);
  }

  void* allocate(uint32_t size) const {
    void* block = nullptr;
    if (_trelAllocateShmBlock(&block, pool, size, 0, 3, 4, "killpoints") == 0)
      memset(block, static_cast<int>(size), size);
    return block;
  }
  uint32_t release(uint64_t data) const {
    void* block = memory.base() + data;
    return _trelFreeShmBlock(&block, pool, 5, 6, "killpoints");
  }
  SkipListHeader_t* lists() const {
    return reinterpret_cast<SkipListHeader_t*>(memory.base() + pool->poolOffset +
                                               TREL_HEAP_HEADER_SIZE);
  }
  bool hasPool() const {
    return reinterpret_cast<HeapHeader_t*>(memory.base() + pool->poolOffset)->heapState ==
           TREL_POOL_STATE;
  }

  static Blocks blocksOf(const HeapWalk& walk) {
    Blocks blocks;
    for (const HeapBlock& b : walk.allocated) blocks[b.data] = b.requested;
    return blocks;
  }
  // Walks all heaps. A fault ends the test.
  Contents contents() const {
    const HeapWalk whole(memory.base(), TREL_HEAP_DOMAIN, 0);
    EXPECT_EQ("", whole.fault) << "domain";
    Contents found{blocksOf(whole), {}, {}, 0};
    const auto* tail = reinterpret_cast<HeapHeaderTail_t*>(memory.base() + sizeof(HeapHeader_t));
    for (uint64_t at = tail->words[2]; at != 0;) {
      const auto* entry = reinterpret_cast<SegListNode_t*>(memory.base() + at);
      found.entries.push_back(entry->identity.segmentKey.key);
      at = entry->nextOffset;
    }
    for (const auto& chunk : found.chunks) {
      const auto* header = reinterpret_cast<HeapHeader_t*>(memory.base() + chunk.first);
      if (header->heapState != TREL_POOL_STATE || header->heapOffset != chunk.first) continue;
      ++found.pools;
      const HeapWalk walk(memory.base(), TREL_HEAP_POOL, chunk.first);
      EXPECT_EQ("", walk.fault) << "pool";
      found.blocks.merge(blocksOf(walk));
    }
    return found;
  }

  // Takes both latches.
  void takeOver() const {
    EXPECT_EQ(0u, trelLatchShmDomain(domain));
    EXPECT_EQ(0u, trelUnlatchShmDomain(domain));
    if (!hasPool()) return;
    EXPECT_EQ(0u, trelLatchShmPool(pool));
    EXPECT_EQ(0u, trelUnlatchShmPool(pool));
  }

  // Uses both heaps, then takes both latches.
  void useAll() const {
    uint64_t size = 4096, block = 0, data = 0;
    const uint32_t rc = trelGetMemChunkFromShmHeap(domain->base, 1, 0, 4096, 0, 0, &size, &block,
                                                   &data, 1, 2, "after");
    EXPECT_EQ(0u, rc) << std::hex << rc;
    if (rc == 0) {
      EXPECT_EQ(0u, trelReturnMemChunkToShmHeap(domain->base, 1, 0, block, data, 0, 1, 2, "after"));
    }
    for (const uint32_t bytes : {8u, 40u}) {
      void* one = hasPool() ? allocate(bytes) : nullptr;
      if (one) {
        EXPECT_EQ(0u, _trelFreeShmBlock(&one, pool, 5, 6, "after"));
      }
    }
    takeOver();
  }

  // All blocks that stood before and stand now have their bytes. Entries of lists change in front.
  void expectBytes(const Image& before, const Contents& was, const Contents& is) const {
    for (const auto& block : was.blocks)
      if (is.blocks.count(block.first)) {
        const uint64_t link = block.second == sizeof(SegListNode_t) ? 8 : 0,
                       at = block.first + link;
        EXPECT_EQ(0, memcmp(&before[at], memory.base() + at, block.second - link))
            << "bytes of the block at " << block.first;
      }
  }
};

// Lets the operation die everywhere, and after some of these deaths the repair too. What is left
// must be what was before the operation or what is behind it.
void dieEverywhere(const Heaps& heaps, const std::string& what, const std::function<void()>& work) {
  SCOPED_TRACE(what);
  const Image start = heaps.memory.save();
  const Contents before = heaps.contents();
  ASSERT_FALSE(heaps.memory.dies(~uint64_t{0}, work));
  const Contents behind = heaps.contents();
  const auto survive = [&](uint64_t n) {
    SCOPED_TRACE("killed in front of store " + std::to_string(n));
    heaps.useAll();
    const Contents is = heaps.contents();
    EXPECT_TRUE(is == before || is == behind);
    heaps.expectBytes(start, before, is);
  };
  const uint64_t tried = heaps.memory.dieEverywhere(start, work, survive);
  EXPECT_GT(tried, 2u);
  heaps.memory.dieTwice(
      start, work, (tried + 1) / (isFullRun() ? 4 : 1), [&] { heaps.takeOver(); }, survive);
  heaps.memory.restore(start);
}

// Some allocations and frees, and what each did to the node space. Stops in front of the first
// that does what is wanted, with the operation to do.
enum class Effect { none, rebuilds, grows };

bool runUntil(const Heaps& heaps, uint32_t seed, bool allocates, Effect wanted,
              std::function<void()>* work) {
  std::mt19937 random(seed);
  std::vector<uint64_t> live;
  const auto offsetOf = [&](void* block) {
    return static_cast<uint64_t>(static_cast<uint8_t*>(block) - heaps.memory.base());
  };
  if (wanted == Effect::rebuilds)  // so full that the space cannot grow
    while (void* block = heaps.allocate(8 + random() % 60)) live.push_back(offsetOf(block));
  for (int step = 0; step < 400; ++step) {
    const bool allocating = live.size() < 4 || random() % 5 < 3;
    const uint32_t size = 8 + random() % 200;
    const uint64_t victim = live.empty() ? 0 : live[random() % live.size()];
    const Image before = heaps.memory.save();
    const SkipListHeader_t was = *heaps.lists();
    if (allocating) {
      if (void* block = heaps.allocate(size)) live.push_back(offsetOf(block));
    } else {
      EXPECT_EQ(0u, heaps.release(victim));
      live.erase(std::find(live.begin(), live.end(), victim));
    }
    const SkipListHeader_t& is = *heaps.lists();
    const Effect effect = is.slSpaceSize != was.slSpaceSize     ? Effect::grows
                          : is.rebuildCount != was.rebuildCount ? Effect::rebuilds
                                                                : Effect::none;
    if (step < 12 || allocating != allocates || effect != wanted) continue;
    heaps.memory.restore(before);
    if (allocating) {
      *work = [&heaps, size] { heaps.allocate(size); };
    } else {
      *work = [&heaps, victim] { heaps.release(victim); };
    }
    return true;
  }
  return false;
}

constexpr const char* kEffects[] = {"", " with a rebuild", " with growth"};

TEST(HeapDeaths, AllocateAndFree) {
  for (const bool allocates : {true, false})
    for (const Effect effect : {Effect::none, Effect::rebuilds, Effect::grows}) {
      if (allocates && effect == Effect::rebuilds) continue;  // takes what a repair has left
      int found = 0;
      for (uint32_t seed = 1; seed <= 60 && found < (isFullRun() ? 6 : 1); ++seed) {
        Heaps heaps;
        std::function<void()> work;
        if (!runUntil(heaps, seed, allocates, effect, &work)) continue;
        ++found;
        dieEverywhere(heaps,
                      std::string(allocates ? "allocate" : "free") +
                          kEffects[static_cast<int>(effect)] + ", seed " + std::to_string(seed),
                      work);
        if (HasFailure()) return;
      }
      EXPECT_GT(found, 0) << allocates << kEffects[static_cast<int>(effect)];
    }
}

// The pool's blocks, every second one freed again.
void fillWithHoles(const Heaps& heaps, int count) {
  std::vector<void*> blocks;
  for (int i = 0; i < count; ++i)
    blocks.push_back(heaps.allocate(24 + 8 * static_cast<uint32_t>(i)));
  for (int i = 0; i < count; i += 2)
    EXPECT_EQ(0u, _trelFreeShmBlock(&blocks[static_cast<size_t>(i)], heaps.pool, 1, 2, "holes"));
}

// Allocations and frees rebuild the space and let it grow; here it shrinks.
TEST(HeapDeaths, SpaceOfNodesShrinks) {
  Heaps heaps;
  heaps.allocate(64);
  const uint64_t space = heaps.lists()->slSpaceSize;
  const auto change = [&](uint64_t wanted, uint32_t direction) {
    EXPECT_EQ(0u, trelLatchShmPool(heaps.pool));
    uint64_t offset = 0, size = 0;
    EXPECT_EQ(0u, trelChangeSlistSpace(heaps.domain->base, 2, heaps.pool->poolOffset, wanted,
                                       direction, &offset, &size));
    EXPECT_EQ(0u, trelUnlatchShmPool(heaps.pool));
  };
  change(space + 2048, 1);
  fillWithHoles(heaps, 14);
  const uint64_t wanted = heaps.lists()->slSpaceSize - 1024;
  dieEverywhere(heaps, "shrink", [&] { change(wanted, 2); });
  change(wanted, 2);
  EXPECT_EQ(wanted, heaps.lists()->slSpaceSize);
}

// Nodes move together over the holes between them, in a heap that has not a byte free.
TEST(HeapDeaths, RebuildOfAFullHeap) {
  Heaps heaps(0x800, 40);
  std::vector<void*> blocks;
  while (void* block = heaps.allocate(24)) blocks.push_back(block);
  for (const size_t i : {1u, 4u, 5u, 9u})
    EXPECT_EQ(0u, _trelFreeShmBlock(&blocks[i], heaps.pool, 1, 2, "holes"));
  while (heaps.allocate(56) || heaps.allocate(8)) {
  }
  dieEverywhere(heaps, "rebuild", [&] {
    EXPECT_EQ(0u, trelLatchShmPool(heaps.pool));
    EXPECT_EQ(0u, trelDefragmentSLInPlace(heaps.domain->base, 2, heaps.pool->poolOffset));
    EXPECT_EQ(0u, trelUnlatchShmPool(heaps.pool));
  });
}

TEST(HeapDeaths, Pools) {
  Heaps heaps;
  fillWithHoles(heaps, 6);
  ShmPoolParam_t param{};
  param.nodeCount = 4;
  const auto create = [&] {
    ShmPoolHandle_t* made = nullptr;
    EXPECT_EQ(0u, _trelCreateShmPool(&made, heaps.domain, 0x2000, &param, 1, 2, "killpoints"));
  };
  dieEverywhere(heaps, "create a pool", create);

  // Freed by another process than the one that holds the handle.
  const auto freeIt = [&] {
    ShmPoolHandle_t* handle = heaps.pool;
    EXPECT_EQ(0u, _trelFreeShmPool(&handle, 4, 1, 2, "killpoints"));
  };
  dieEverywhere(heaps, "free a pool", freeIt);
  EXPECT_EQ(0u, trelPutTopNodeInfoIntoDomainHeader(heaps.domain, 7, heaps.pool->poolOffset,
                                                   static_cast<uint32_t>(heaps.pool->poolOffset)));
  ShmPoolHandle_t* other = nullptr;
  EXPECT_EQ(0u, _trelCreateShmPool(&other, heaps.domain, 0x1000, &param, 1, 2, "killpoints"));
  for (const uint32_t key : {1u, 2u, 3u, 4u}) {
    SegIdentity_t record{}, *entry = nullptr;
    record.segmentKey.key = key;
    EXPECT_EQ(0u,
              trelInsertAttachSegInfoNodeIntoLList(key % 2 ? other : heaps.pool, &record, &entry));
  }
  dieEverywhere(heaps, "free the top pool", freeIt);
}

}  // namespace
