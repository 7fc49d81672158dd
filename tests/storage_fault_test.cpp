// Allocations, system calls and latches that fail in turn below the storage manager: each failure
// leaves the heaps sound and loses nothing, and the same call again succeeds.
#include "faulty.h"
#include "heap_fixture.h"

namespace {

// One life of a domain, in which the n-th call fails. True if there was such a call.
bool liveWithFault(const Key& key, uint32_t n) {
  const Reports reports;
  ShmDomainHandle_t *domain = nullptr, *theirs = nullptr;
  ShmPoolHandle_t *pool = nullptr, *theirPool = nullptr;
  ShmPoolParam_t param{};
  param.nodeCount = 12;  // soon full, so that rebuilds and changes of space are in it
  uint32_t failures = 0;
  const auto sound = [&] {
    EXPECT_EQ("", heapFault(domain->base, TREL_HEAP_DOMAIN, 0));
    if (pool) {
      EXPECT_EQ("", heapFault(pool->base, TREL_HEAP_POOL, pool->poolOffset));
    }
  };
  // The second try has no failure left to meet.
  const auto twice = [&](auto&& call, auto&& failed) {
    if (call() == 0) return;
    ++failures;
    failed();
    if (domain) sound();
    EXPECT_EQ(0u, call());
  };
  faultyArm(kFaultyAllocation | kFaultySegment | kFaultyGet, n);
  twice([&] { return trelCreateShmDomain(key, 0, 0x20000, nullptr, &domain); },
        [&] {
          EXPECT_EQ(nullptr, domain);
          key.remove();  // only where removing itself was the call that failed
        });
  HeapHeader_t* const header = static_cast<HeapHeader_t*>(domain->base);
  twice([&] { return _trelCreateShmPool(&pool, domain, 0x4000, &param, 1, 1, ""); },
        [&] { EXPECT_EQ(0u, header->allocatedBytes); });
  twice([&] { return trelConnectToShmDomain(key, 0, nullptr, &theirs); },
        [&] { EXPECT_EQ(1u, header->connectionCount); });
  const uint32_t offset = static_cast<uint32_t>(pool->poolOffset);
  twice([&] { return trelConnectToShmPool(&theirPool, theirs, offset, nullptr); }, [] {});
  std::vector<void*> blocks(60);
  for (void*& block : blocks)
    twice([&] { return _trelAllocateShmBlock(&block, theirPool, 24, 0, 1, 1, ""); },
          [&] { EXPECT_EQ(nullptr, block); });
  for (size_t i = 0; i < blocks.size(); ++i) {
    void*& block = blocks[i * 7 % blocks.size()];
    twice([&] { return _trelFreeShmBlock(&block, theirPool, 1, 1, ""); },
          [&] { EXPECT_NE(nullptr, block); });
  }
  sound();
  EXPECT_EQ(1u, HeapWalk(pool->base, TREL_HEAP_POOL, offset).free.size());
  twice([&] { return trelDisconnectFromShmPool(&theirPool); },
        [&] { EXPECT_NE(nullptr, theirPool); });
  twice([&] { return trelDisconnectFromShmDomain(&theirs); }, [&] { EXPECT_NE(nullptr, theirs); });
  twice([&] { return _trelFreeShmPool(&pool, 3, 1, 1, ""); }, [] {});
  const uint32_t freed = trelFreeShmDomain(&domain, 1);
  const bool met = faultyDisarm();
  if (freed) {
    EXPECT_TRUE(met && !failures);
  }
  if (domain) {
    EXPECT_EQ(TREL_RC_SEGMENT_DESTROY, freed);
    PLATHIPCMemory* const segment = domain->ipcMemory;
    EXPECT_EQ(0u, trelDestroyShmDomainHandle(&domain));
    EXPECT_EQ(0u, segment->destroy());
    delete segment;
  }
  EXPECT_FALSE(key.exists());
  return met;
}

TEST(StorageFaults, EachFailureIsHarmless) {
  const Key key;
  uint32_t n = 1;
  while (!HasFailure() && liveWithFault(key, n)) ++n;
  EXPECT_EQ(n, faultyCount() + 1);
  EXPECT_GT(n, 150u);
}

}  // namespace
