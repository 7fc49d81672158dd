// Allocations, system calls and latches that fail in turn below the storage manager: each failure
// leaves the heaps sound and loses nothing, and the same call again succeeds.
#include <gtest/gtest.h>

#include <cstdlib>

#include "faulty.h"
#include "heap_walker.h"
#include "platsvc/platsvc.h"
#include "segment_guard.h"
#include "trel/trel.h"

namespace {

TEST(StorageFaults, EachFailureIsHarmless) {
  const SegmentGuard guard;
  ShmPoolParam_t param{};
  param.nodeCount = 12;  // soon full, so that rebuilds and changes of space are in it
  uint32_t n = 1, calls = 0;
  for (;; ++n) {
    SCOPED_TRACE(n);
    ShmDomainHandle_t *domain = nullptr, *theirs = nullptr;
    ShmPoolHandle_t *pool = nullptr, *theirPool = nullptr;
    uint32_t failures = 0;
    // The second try has no failure left to meet.
    const auto twice = [&](auto&& call, auto&& failed) {
      if (call() == 0) return;
      ++failures;
      failed();
      EXPECT_EQ(0u, call());
    };
    const auto sound = [&] {
      EXPECT_EQ("", heapFault(domain->base, TREL_HEAP_DOMAIN, 0));
      if (pool) {
        EXPECT_EQ("", heapFault(pool->base, TREL_HEAP_POOL, pool->poolOffset));
      }
    };
    platSetReportSink([](const char*) {});
    srand(1);  // the same levels, and so the same calls, each time
    faultyArm(kFaultyAllocation | kFaultySegment | kFaultyGet, n);
    twice([&] { return trelCreateShmDomain(&guard.id, 0, 0x20000, nullptr, &domain); },
          [&] {
            EXPECT_EQ(nullptr, domain);
            guard.remove();  // only where removing itself was the call that failed
          });
    ASSERT_NE(nullptr, domain);
    twice([&] { return _trelCreateShmPool(&pool, domain, 0x4000, &param, 1, 1, ""); },
          [&] {
            sound();
            EXPECT_EQ(0u, HeapWalk(domain->base, TREL_HEAP_DOMAIN, 0).allocated.size());
          });
    twice([&] { return trelConnectToShmDomain(&guard.id, 0, nullptr, &theirs); },
          [&] {
            sound();
            EXPECT_EQ(1u, static_cast<HeapHeader_t*>(domain->base)->connectionCount);
          });
    twice(
        [&] {
          return trelConnectToShmPool(&theirPool, theirs, static_cast<uint32_t>(pool->poolOffset),
                                      nullptr);
        },
        sound);
    std::vector<void*> blocks(60);
    for (void*& block : blocks)
      twice([&] { return _trelAllocateShmBlock(&block, theirPool, 24, 0, 1, 1, ""); },
            [&] {
              EXPECT_EQ(nullptr, block);
              sound();
            });
    for (size_t i = 0; i < blocks.size(); ++i) {
      void*& block = blocks[i * 7 % blocks.size()];
      twice([&] { return _trelFreeShmBlock(&block, theirPool, 1, 1, ""); },
            [&] {
              EXPECT_NE(nullptr, block);
              sound();
            });
    }
    sound();
    EXPECT_EQ(1u, HeapWalk(pool->base, TREL_HEAP_POOL, pool->poolOffset).free.size());
    twice([&] { return trelDisconnectFromShmPool(&theirPool); },
          [&] { EXPECT_NE(nullptr, theirPool); });
    twice([&] { return trelDisconnectFromShmDomain(&theirs); },
          [&] { EXPECT_NE(nullptr, theirs); });
    twice([&] { return _trelFreeShmPool(&pool, 3, 1, 1, ""); }, sound);
    const uint32_t freed = trelFreeShmDomain(&domain, 1);
    const bool met = faultyDisarm();
    calls = faultyCount();
    EXPECT_EQ(met && !failures && freed, freed != 0);
    if (domain) {
      EXPECT_EQ(TREL_RC_SEGMENT_DESTROY, freed);
      PLATHIPCMemory* const segment = domain->ipcMemory;
      EXPECT_EQ(0u, trelDestroyShmDomainHandle(&domain));
      EXPECT_EQ(0u, segment->destroy());
      delete segment;
    }
    EXPECT_FALSE(guard.exists());
    if (!met) break;
    if (testing::Test::HasFailure()) break;
  }
  platSetReportSink(nullptr);
  EXPECT_EQ(n, calls + 1);
  EXPECT_GT(n, 150u);
}

}  // namespace
