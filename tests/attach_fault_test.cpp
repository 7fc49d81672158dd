// Failures of the platform in turn, during creation, attach and detach: whatever fails, nothing
// stays locked, mapped, allocated or listed, and the next try succeeds.
#include <malloc.h>

#include "faulty.h"
#include "segment_fixture.h"

namespace {

struct Faults : Library {
  ShmSegInfo_t* info = nullptr;

  void SetUp() override { alarm(60); }
  void TearDown() override { alarm(0); }

  // Runs attempt() with the n-th call failing, once, for all n; it has to leave nothing allocated.
  template <class Attempt>
  void failInTurn(Attempt&& attempt) {
    uint32_t n = 1;
    for (bool failed = true; failed; ++n) {
      SCOPED_TRACE("call " + std::to_string(n));
      size_t bytes[8];
      for (size_t& after : bytes) {
        faultyArm(kFaultyAll, n);
        attempt();
        failed = faultyDisarm();
        EXPECT_EQ(0, trelAPIInitLatch | trelSegAttachLatch);
        after = mallinfo2().uordblks;
        if (HasFailure()) return;
      }
      EXPECT_EQ(bytes[6], bytes[7]) << "the caches of the allocator are full by now";
    }
    EXPECT_GT(n, 10u);
  }
};

TEST_F(Faults, CreationAndDeletion) {
  const Key key;
  failInTurn([&] {
    const uint32_t rc = trelGetProtectedStatusSegment(&info, 0x20000, key, 0, 0, nullptr, nullptr);
    EXPECT_EQ(rc == 0, info != nullptr);
    EXPECT_EQ(rc == 0, key.exists());
    EXPECT_EQ(rc == 0, *pSegAttachList != nullptr);
    if (!info) return;
    const uint32_t deleted = trelDeleteStatusSegment(&info, 4, 2, 2);
    EXPECT_EQ(deleted == 0, info == nullptr);
    if (info) {
      EXPECT_EQ(0u, trelDeleteStatusSegment(&info, 4, 2, 2)) << deleted;
    }
    EXPECT_EQ(nullptr, *pSegAttachList);
    EXPECT_FALSE(key.exists());
  });
}

TEST_F(Faults, AttachAndDetach) {
  const Segment segment;
  segment.publish(segment.makeNode(5));
  const auto mappings = [&] {
    shmid_ds state;
    EXPECT_EQ(0u, segment.domain()->ipcMemory->getInfo(&state));
    return state.shm_nattch;
  };
  const auto expectUnlatched = [&] {
    uint32_t died = 1;
    void* const cell = segment.heap()->heapLatch.latch;
    EXPECT_EQ(platVLatchGetNoticing(cell, &died) | platVLatchRelease(cell), 0u);
  };
  // The same process attaches as if it were another: its own hold is hidden from the list.
  SegAttachNode_t* const owner = *pSegAttachList;
  *pSegAttachList = nullptr;
  failInTurn([&] {
    SNodeCB_t* node = nullptr;
    TopNodeInfo_t top{};
    const uint32_t rc = trelAttachToTopNode(&info, &node, &top, segment.key, 0, nullptr, nullptr);
    EXPECT_EQ(rc == 0, info != nullptr);
    EXPECT_EQ(rc == 0, *pSegAttachList != nullptr);
    const uint32_t detached = info ? trelDetachStatusSegment(&info, 1) : 0;
    EXPECT_EQ(detached == 0, info == nullptr);
    faultyDisarm();
    if (info) {
      EXPECT_EQ(0u, trelDetachStatusSegment(&info, 2)) << "after " << detached;
    }
    EXPECT_EQ(1u, mappings());
    EXPECT_EQ(nullptr, *pSegAttachList);
    expectUnlatched();
  });
  *pSegAttachList = owner;
}

}  // namespace
