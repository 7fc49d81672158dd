// A process dies between any two instructions of the ways to a latch and away from it. A debugger
// steps it, since what the kernel is told counts here as much as what is stored.
#include <sys/ptrace.h>

#include "deaths.h"
#include "segment_fixture.h"

namespace {

constexpr PLATLatchWait kSoon = {nullptr, 0, 300};
constexpr uint64_t kUrgent = uint64_t{1} << 63;

struct Page {
  uint8_t cell[64];
  uint32_t told;  // how often the process beside the victim was told of a death
};

struct LatchDeaths : testing::Test {
  const Shared<Page> page;

  void SetUp() override {
    const auto isRefused = [] { EXPECT_EQ(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr), 0); };
    if (inOtherProcess(isRefused) != 0) GTEST_SKIP() << "no right to step processes here";
  }
  uint64_t word() const {
    return __atomic_load_n(&plat::latchAt(page->cell)->word, __ATOMIC_ACQUIRE);
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
    while (!(word() & kUrgent)) usleep(10);
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
  // the latch soon, and one of them is told if a dead process had it.
  template <class Prepare, class Work, class Other>
  void dieEverywhere(const char* what, Prepare&& prepare, Work&& work, Other&& other) {
    SCOPED_TRACE(what);
    platVLatchInit(page->cell, 1);
    get(), release();  // finds the functions, once for all children
    const uint64_t stride = isFullRun() ? 1 : 37;
    uint64_t n = 0, points = 0;
    for (bool died = true; died && !HasFailure(); n += stride, points += died) {
      SCOPED_TRACE("killed after instruction " + std::to_string(n));
      platVLatchInit(page->cell, 1);
      page->told = 0;
      Child beside(other);
      died = dies(n, prepare, work);
      uint32_t told = 0;
      EXPECT_EQ(platVLatchGetWithin(page->cell, &kSoon, &told), 0u);
      release();
      EXPECT_EQ(beside.wait(), 0);
      EXPECT_EQ(told + page->told, died && leavesOwner_ ? 1u : 0u);
    }
    EXPECT_GT(points, 10u);
    printf("%s: %u points\n", what, static_cast<uint32_t>(points));
  }

 private:
  mutable bool leavesOwner_ = false;
};

const auto nothing = [] {};

TEST_F(LatchDeaths, FirstGetAndRelease) {
  dieEverywhere(
      "first get", nothing, [&] { get(), release(); }, nothing);
}

TEST_F(LatchDeaths, HandsItOver) {
  dieEverywhere(
      "hand over", [&] { get(), awaitUrgent(); }, [&] { release(), get(), release(); },
      [&] { awaitOwner(), getTold(), release(); });
}

TEST_F(LatchDeaths, WaitsAndIsHandedIt) {
  dieEverywhere(
      "wait", [&] { awaitOwner(); }, [&] { get(), release(); },
      [&] { get(), awaitUrgent(), release(); });
}

TEST_F(LatchDeaths, TakesOver) {
  dieEverywhere(
      "take over", [&] { awaitOwner(PLAT_LATCH_DEAD); }, [&] { get(), release(); },
      [&] { get(), _exit(0); });
}

}  // namespace
