// Failures of the platform in turn, during creation, attach and detach: whatever fails, nothing
// stays locked, mapped, allocated or listed, and the next try succeeds.
#include <malloc.h>

#include "faulty.h"
#include "segment_fixture.h"

namespace {

int attachments(const Key& key) {
  shmid_ds state;
  const int id = shmget(static_cast<key_t>(key.id().key), 0, 0);
  return id >= 0 && shmctl(id, IPC_STAT, &state) == 0 ? static_cast<int>(state.shm_nattch) : -1;
}

// Bytes that the process has allocated.
size_t allocated() { return mallinfo2().uordblks; }

void expectUnlatched(HeapHeader_t* heap) {
  uint32_t died = 1;
  EXPECT_EQ(0u, platVLatchGetNoticing(heap->heapLatch.latch, &died));
  EXPECT_EQ(0u, platVLatchRelease(heap->heapLatch.latch));
}

class Faults : public Library {
 protected:
  void SetUp() override { alarm(60); }
  void TearDown() override { alarm(0); }

  // Runs attempt() with the n-th call failing, for all n; prepare() before and check(code) after
  // each, which between them leave nothing allocated.
  template <class Prepare, class Attempt, class Check>
  void failInTurn(Prepare&& prepare, Attempt&& attempt, Check&& check) {
    uint32_t n = 1;
    for (bool failed = true; failed; ++n) {
      SCOPED_TRACE("call " + std::to_string(n));
      size_t bytes[4];
      for (size_t& after : bytes) {
        prepare();
        faultyArm(kFaultyAll, n);
        const uint32_t rc = attempt();
        failed = faultyDisarm();
        EXPECT_EQ(0, trelAPIInitLatch | trelSegAttachLatch);
        check(rc);
        after = allocated();
        if (HasFailure()) return;
      }
      EXPECT_EQ(bytes[2], bytes[3]) << "the caches of the allocator are full by now";
    }
    EXPECT_GT(n, 5u);
  }
};

TEST_F(Faults, Creation) {
  Key key;
  ShmSegInfo_t* info = nullptr;
  failInTurn(
      [] {},
      [&] { return trelGetProtectedStatusSegment(&info, 0x20000, key, 0, 0, nullptr, nullptr); },
      [&](uint32_t rc) {
        EXPECT_EQ(rc == 0, key.exists());
        EXPECT_EQ(rc == 0, *pSegAttachList != nullptr);
        if (info) {
          EXPECT_EQ(0u, trelDeleteStatusSegment(&info, 4, 2, 2));
        }
      });
}

// The same process attaches as if it were another: its own hold is hidden from the list.
class FaultsOfReader : public Faults {
 protected:
  FaultsOfReader() {
    segment.publish(segment.makeNode(5));
    *pSegAttachList = nullptr;
  }
  ~FaultsOfReader() override { *pSegAttachList = owner; }

  Segment segment;
  SegAttachNode_t* const owner = *pSegAttachList;
  ShmSegInfo_t* info = nullptr;
  SNodeCB_t* node = nullptr;
  TopNodeInfo_t top{};

  uint32_t attach() {
    return trelAttachToTopNode(&info, &node, &top, segment.key, 0, nullptr, nullptr);
  }
};

TEST_F(FaultsOfReader, Attach) {
  failInTurn([] {}, [&] { return attach(); },
             [&](uint32_t rc) {
               expectUnlatched(segment.heap());
               EXPECT_EQ(rc == 0 ? 2 : 1, attachments(segment.key));
               EXPECT_EQ(rc == 0, *pSegAttachList != nullptr);
               EXPECT_EQ(rc == 0, info != nullptr);
               if (info) {
                 EXPECT_EQ(0u, trelDetachStatusSegment(&info, 1));
               }
             });
}

TEST_F(FaultsOfReader, Detach) {
  failInTurn([&] { EXPECT_EQ(0u, attach()); }, [&] { return trelDetachStatusSegment(&info, 1); },
             [&](uint32_t rc) {
               EXPECT_EQ(rc == 0, info == nullptr);
               expectUnlatched(segment.heap());
               if (info) {
                 EXPECT_EQ(0u, trelDetachStatusSegment(&info, 2)) << "after " << rc;
               }
               EXPECT_EQ(1, attachments(segment.key));
               EXPECT_EQ(nullptr, *pSegAttachList);
             });
}

TEST_F(Faults, Deletion) {
  Key key;
  ShmSegInfo_t* info = nullptr;
  failInTurn(
      [&] {
        EXPECT_EQ(0u, trelGetProtectedStatusSegment(&info, 0x20000, key, 0, 0, nullptr, nullptr));
      },
      [&] { return trelDeleteStatusSegment(&info, 4, 2, 2); },
      [&](uint32_t rc) {
        EXPECT_EQ(rc == 0, info == nullptr);
        if (info) {
          EXPECT_EQ(0u, trelDeleteStatusSegment(&info, 4, 2, 2)) << rc;
        }
        EXPECT_EQ(nullptr, *pSegAttachList);
        EXPECT_FALSE(key.exists());
      });
}

}  // namespace
