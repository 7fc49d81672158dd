// One latch between a 32-bit and a 64-bit process.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "peer/width_page.h"
#include "platsvc/ipc.h"

namespace {

TEST(Widths, ShareOneLatch) {
#ifndef TREL_PEER
  GTEST_SKIP() << "no compiler for the other width";
#else
  constexpr uint32_t kRounds = 400000;
  const PLATIPCResID id = {PLAT_STRUCTURE_TAG, 0x53000000u | static_cast<uint32_t>(getpid())};
  const PLATIPCMemoryCreateParam param = {PLAT_STRUCTURE_TAG, id, 4096, 0, 0600, 0};
  PLATHIPCMemory memory;
  void* page = nullptr;
  ASSERT_EQ(memory.create(&param), 0u);
  EXPECT_EQ(memory.getAddress(&page), 0u);
  platVLatchInit(latchOf(page), 1);
  const std::string key = std::to_string(id.key), rounds = std::to_string(kRounds);

  const pid_t peer = fork();
  if (peer == 0) {
    execl(TREL_PEER, TREL_PEER, key.c_str(), rounds.c_str(), nullptr);
    _exit(127);
  }
  while (*counterOf(page) == 0 && waitpid(peer, nullptr, WNOHANG) == 0) usleep(50);
  uint32_t died = 0;
  EXPECT_EQ(addUnderLatch(page, kRounds, &died), 0u);
  int status = -1;
  waitpid(peer, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(*counterOf(page), 2 * kRounds);

  EXPECT_EQ(plat::latchGet(latchOf(page), &died), 0u);
  EXPECT_EQ(died, 1u) << "the peer has ended as owner, during these rounds or after them";
  EXPECT_EQ(platVLatchRelease(latchOf(page)), 0u);
  EXPECT_EQ(memory.destroy(), 0u);
#endif
}

}  // namespace
