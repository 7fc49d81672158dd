// A process dies between any two instructions of the ways to a latch and away from it. A debugger
// steps it, since what the kernel is told counts here as much as what is stored.
#include <sys/ptrace.h>

#include "deaths.h"
#include "segment_fixture.h"

namespace {

struct Page {
  uint8_t cell[64];
  uint32_t told;  // how often somebody but the victim was told of a death
};

struct LatchDeaths : testing::Test {
  const Shared<Page> page;

  void SetUp() override {
    const auto isRefused = [] { EXPECT_EQ(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr), 0); };
    if (inOtherProcess(isRefused) != 0) GTEST_SKIP() << "no right to step processes here";
  }
  void get() const { EXPECT_EQ(platVLatchGet(page->cell), 0u); }
  void getTold() const {
    uint32_t died = 0;
    EXPECT_EQ(platVLatchGetNoticing(page->cell, &died), 0u);
    page->told += died;
  }
  PLATLatchOwner owner() const {
    PLATLatchOwner found{};
    EXPECT_EQ(platVLatchOwner(page->cell, &found), 0u);
    return found;
  }
  void release() const { EXPECT_EQ(platVLatchRelease(page->cell), 0u); }
  void awaitOwner(uint32_t state = PLAT_LATCH_ALIVE) const {
    while (owner().state != state) usleep(10);
  }
  void awaitUrgent() const {
    const uint64_t* word = &plat::latchAt(page->cell)->word;
    while (!(__atomic_load_n(word, __ATOMIC_ACQUIRE) >> 63)) usleep(10);
  }

  // Lets prepare() and then work() run in a process that is killed after n instructions of work();
  // false if that took fewer.
  template <class Prepare, class Work>
  bool dies(uint64_t n, Prepare&& prepare, Work&& work) const {
    int status = 0;
    const Child victim([&] {
      prepare();
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      raise(SIGSTOP);
      work();
      _exit(HasFailure());
    });
    EXPECT_EQ(waitpid(victim.id(), &status, 0), victim.id());
    for (uint64_t i = 0; i < n && WIFSTOPPED(status); ++i) {
      ptrace(PTRACE_SINGLESTEP, victim.id(), nullptr, nullptr);
      waitpid(victim.id(), &status, 0);
    }
    if (!WIFSTOPPED(status)) {
      EXPECT_EQ(status, 0);
      return false;
    }
    const PLATLatchOwner left = owner();
    leavesOwner_ =
        left.thread == static_cast<uint32_t>(victim.id()) || left.state == PLAT_LATCH_DEAD;
    return true;  // the end of the Child kills it
  }

  // The same for all n, beside another process that does what `other` says. Whoever comes then gets
  // the latch, and one of them is told if a dead process had it.
  template <class Prepare, class Work, class Other>
  void dieEverywhere(const char* what, Prepare&& prepare, Work&& work, Other&& other) {
    SCOPED_TRACE(what);
    platVLatchInit(page->cell, 1);
    get(), release();  // finds the functions, once for all children
    const uint64_t stride = isFullRun() ? 1 : 53;
    uint64_t n = 0;
    for (bool died = true; died && !HasFailure(); n += stride) {
      SCOPED_TRACE("killed after instruction " + std::to_string(n));
      platVLatchInit(page->cell, 1);
      page->told = 0;
      Child beside(other);
      died = dies(n, prepare, work);
      getTold(), release();
      EXPECT_EQ(beside.wait(), 0);
      EXPECT_EQ(page->told, died && leavesOwner_ ? 1u : 0u);
    }
    EXPECT_GT(n, 10 * stride);
    printf("%s: %u points\n", what, static_cast<uint32_t>(n / stride - 1));
  }

 private:
  mutable bool leavesOwner_ = false;
};

TEST_F(LatchDeaths, BetweenAnyTwoInstructions) {
  const auto nothing = [] {};
  dieEverywhere(
      "first get", nothing, [&] { get(), release(); }, nothing);
  dieEverywhere(
      "hand over", [&] { get(), awaitUrgent(); }, [&] { release(), get(), release(); },
      [&] { awaitOwner(), getTold(), release(); });
  dieEverywhere(
      "wait", [&] { awaitOwner(); }, [&] { get(), release(); },
      [&] { get(), awaitUrgent(), release(); });
  dieEverywhere(
      "take over", [&] { awaitOwner(PLAT_LATCH_DEAD); }, [&] { get(), release(); },
      [&] { get(), _exit(0); });
}

}  // namespace
