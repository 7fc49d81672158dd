// Failures of the system below the platform library: nothing is lost, and the next try succeeds.
#include "faulty.h"
#include "segment_fixture.h"

namespace {

TEST(PlatformFaults, SegmentsAreNeitherLostNorLeftBehind) {
  const Key key;
  const PLATIPCMemoryCreateParam param = {PLAT_STRUCTURE_TAG, key.id(), 4096, 0, 0600, 0};
  uint32_t n = 0;
  for (bool failed = true; failed;) {
    SCOPED_TRACE(++n);
    PLATHIPCMemory creator, reader;
    faultyArm(kFaultyAllocation | kFaultySegment, n);
    const uint32_t created = creator.create(&param);
    ASSERT_EQ(created == 0, creator.isAttached());
    // Removing is itself one of the calls: when it fails, nothing else has.
    ASSERT_EQ(created == 0, key.exists());
    uint32_t attached = 0, detached = 0, destroyed = 0;
    if (created == 0) {
      attached = reader.attach(key, nullptr);
      ASSERT_EQ(attached == 0, reader.isAttached());
      if (attached == 0) detached = reader.detach();
      ASSERT_EQ(detached != 0, reader.isAttached());
      destroyed = creator.destroy();
      ASSERT_EQ(destroyed != 0, creator.isAttached());
    }
    failed = faultyDisarm();
    // One failure of one call is seen in one place.
    EXPECT_EQ((created != 0) + (attached != 0) + (detached != 0) + (destroyed != 0), failed);
    for (PLATHIPCMemory* object : {&reader, &creator}) {
      const bool held = object->isAttached();
      EXPECT_EQ(object->destroy(), held ? PLAT_RC_OK : PLAT_RC_NOT_ATTACHED);
    }
    ASSERT_FALSE(key.exists());
  }
  EXPECT_GT(n, 8u);
}

TEST(PlatformFaults, MemoryAndLatches) {
  void* block = nullptr;
  faultyArm(kFaultyAll, 2);
  EXPECT_EQ(_platMemAlloc(&block, 0, 8, 1, "", 0), 0u);
  EXPECT_EQ(_platMemFree(&block, 0, 0, "", 0), 0u);
  EXPECT_EQ(_platMemAlloc(&block, 0, 8, 1, "", 0), PLAT_RC_NO_MEMORY);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(faultyDisarm(), 1u);

  alignas(8) uint8_t cell[64];
  platVLatchInit(cell, 1);
  uint32_t died = 0;
  faultyArm(kFaultyGet | kFaultyRelease, 1);
  EXPECT_NE(plat::latchGet(cell, &died), 0u);
  EXPECT_NE(plat::latchRelease(cell), 0u) << "it was never taken";
  faultyArm(kFaultyRelease, 2);
  for (uint32_t failed : {0u, 1u, 0u}) {
    EXPECT_EQ(plat::latchGet(cell, &died), 0u);
    EXPECT_EQ(plat::latchRelease(cell) != 0, failed != 0);
  }
  EXPECT_EQ(faultyCount(), 3u);
  EXPECT_EQ(faultyDisarm(), 1u);
}

}  // namespace
