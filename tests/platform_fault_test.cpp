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

TEST(PlatformFaults, MemoryRunsOut) {
  void* block = nullptr;
  for (const uint32_t code : {PLAT_RC_OK, PLAT_RC_NO_MEMORY, PLAT_RC_OK}) {
    faultyArm(kFaultyAll, code ? 1 : 2);
    EXPECT_EQ(_platMemAlloc(&block, 0, 8, 1, "", 0), code);
    EXPECT_EQ(faultyDisarm(), code ? 1u : 0u);
    EXPECT_EQ(block == nullptr, code != 0);
    if (block) _platMemFree(&block, 0, 0, "", 0);
  }
}

}  // namespace
