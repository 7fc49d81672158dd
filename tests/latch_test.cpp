// Latches between processes and threads: exclusion, and what becomes of a latch whose owner dies.
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <thread>

#include "segment_fixture.h"

namespace {

using namespace std::chrono_literals;

// Adds 1 to a counter so that two adders at once would lose something.
void addSlowly(volatile uint32_t* counter) {
  const uint32_t before = *counter;
  *counter = before + 1;
}

// A page that children share, with a latch cell at an odd place.
struct LatchTest : testing::Test {
  LatchTest() { platVLatchInit(cell(), 1); }

  void* cell() const { return page + 20; }
  PLATLatch* latch() const { return plat::latchAt(cell()); }
  bool isFree() const { return word() == 0; }
  uint64_t word() const { return __atomic_load_n(&latch()->word, __ATOMIC_ACQUIRE); }
  void setWord(uint64_t value) { __atomic_store_n(&latch()->word, value, __ATOMIC_RELEASE); }
  // Words of the page for the tests' own use.
  volatile uint32_t* shared() const { return reinterpret_cast<uint32_t*>(page + 1024); }
  uint32_t& died() const { return *reinterpret_cast<uint32_t*>(page + 2048); }

  const Shared<std::array<uint8_t, 4096>> memory;
  uint8_t* const page = memory->data();
};

// A process that has taken the latch and holds it.
struct Holder : Child {
  explicit Holder(void* cell)
      : Child([cell] {
          platVLatchGet(cell);
          for (;;) pause();
        }) {
    const uint64_t* word = &plat::latchAt(cell)->word;
    const uint64_t owner = static_cast<uint64_t>(id());
    while ((__atomic_load_n(word, __ATOMIC_ACQUIRE) & 0x3fffff) != owner) usleep(10);
  }
};

// Within it all waiters learn of a death.
constexpr PLATLatchWait kSoon = {nullptr, 0, 300};

// Runs work as the first process of a pid namespace, or, where that is not allowed, of none.
template <class Work>
void inContainer(Work&& work) {
  if (unshare(CLONE_NEWPID) != 0) fprintf(stderr, "SKIPPED: no right to a pid namespace here\n");
  EXPECT_EQ(inOtherProcess(work), 0);
}

// A thread that gets the latch and leaves it, and what it was told of the death of an owner.
std::future<uint32_t> getAside(void* cell) {
  return std::async(std::launch::async, [cell] {
    uint32_t died = 99;
    EXPECT_EQ(platVLatchGetNoticing(cell, &died), 0u);
    EXPECT_EQ(platVLatchRelease(cell), 0u);
    return died;
  });
}

TEST_F(LatchTest, IsNotRecursiveAndLeftByItsOwnerAlone) {
  EXPECT_EQ(platVLatchRelease(cell()), PLAT_RC_NOT_OWNER) << "free";
  EXPECT_EQ(platVLatchGet(cell()), 0u);
  EXPECT_EQ(platVLatchGet(cell()), PLAT_RC_ALREADY_OWNER);
  const uint64_t held = word();
  std::thread([&] { EXPECT_EQ(platVLatchRelease(cell()), PLAT_RC_NOT_OWNER); }).join();
  Child child([&] {
    EXPECT_EQ(platVLatchRelease(cell()), PLAT_RC_NOT_OWNER);
    EXPECT_EQ(platThreadID(), static_cast<uint32_t>(getpid()));
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(word(), held);
  EXPECT_EQ(platVLatchRelease(cell()), 0u);
  EXPECT_TRUE(isFree());
}

TEST_F(LatchTest, WaitsAsLongAsItIsTold) {
  uint64_t stamp = 7;
  uint32_t died = 5;
  const auto get = [&](int32_t longest) {
    const PLATLatchWait wait = {&stamp, 7, longest};
    return platVLatchGetWithin(cell(), &wait, &died);
  };
  const auto stateOf = [&] {
    PLATLatchOwner owner;
    EXPECT_EQ(platVLatchOwner(cell(), &owner), 0u);
    return owner.state;
  };
  EXPECT_EQ(stateOf(), PLAT_LATCH_FREE);
  Holder holder(cell());
  const uint64_t held = word();
  EXPECT_EQ(get(0), PLAT_RC_TIMEOUT);
  EXPECT_EQ(word(), held) << "a look leaves nothing behind";
  EXPECT_EQ(get(20), PLAT_RC_TIMEOUT);
  EXPECT_EQ(stateOf(), PLAT_LATCH_ALIVE);
  holder.end();
  EXPECT_EQ(stateOf(), PLAT_LATCH_DEAD);
  stamp = 8;
  EXPECT_EQ(get(0), PLAT_RC_NO_LATCH);
  EXPECT_EQ(stateOf(), PLAT_LATCH_DEAD) << "what is a stranger's now is not repaired";
  stamp = 7;
  EXPECT_EQ(get(0), 0u);
  EXPECT_EQ(died, 1u);
  EXPECT_EQ(stateOf(), PLAT_LATCH_SELF);
  EXPECT_EQ(platVLatchRelease(cell()), 0u);
  const PLATLatchWait other = {&stamp, 9, 0};
  EXPECT_EQ(plat::latchGet(cell(), &died, other), PLAT_RC_NO_LATCH);
  EXPECT_TRUE(isFree());
}

TEST_F(LatchTest, OneMakesWhatSeveralWouldMake) {
  memset(cell(), 0, PLAT_LATCH_BYTES);
  const PLATLatchWait atOnce = {nullptr, 0, 0};
  uint32_t died = 5;
  EXPECT_EQ(platVLatchGetWithin(cell(), &atOnce, &died), PLAT_RC_NO_LATCH);
  Child maker([&] {
    EXPECT_EQ(platVLatchGetUnmade(cell(), &atOnce, &died), 0u);
    for (;;) pause();
  });
  while (word() == 0) usleep(10);
  EXPECT_EQ(platVLatchGetUnmade(cell(), &atOnce, &died), PLAT_RC_TIMEOUT);
  maker.end();
  EXPECT_EQ(platVLatchGetUnmade(cell(), &atOnce, &died), 0u);
  EXPECT_EQ(died, 1u);
  EXPECT_EQ(platVLatchMark(cell()), 0u);
  EXPECT_EQ(platVLatchRelease(cell()), 0u);
  EXPECT_EQ(platVLatchMark(cell()), PLAT_RC_NOT_OWNER);
  EXPECT_EQ(getAside(cell()).get(), 0u);
}

TEST_F(LatchTest, UsesItsOwnBytesAtEveryAlignment) {
  for (size_t start = 0; start < 8; ++start) {
    uint8_t* bytes = page + 512;
    memset(bytes, 0xa5, 64);
    uint8_t* place = bytes + 8 + start;
    uint32_t died = 5;
    EXPECT_EQ(platVLatchInit(place, 1), 0u);
    EXPECT_EQ(plat::latchGet(place, &died), 0u);
    EXPECT_EQ(plat::latchRelease(place), 0u);
    EXPECT_EQ(died, 5u) << "written only when an owner had died";
    const auto untouched = [](uint8_t byte) { return byte == 0xa5; };
    EXPECT_TRUE(std::all_of(bytes, place, untouched));
    EXPECT_TRUE(std::all_of(place + PLAT_LATCH_BYTES, bytes + 64, untouched));
  }
}

TEST_F(LatchTest, TakenOverFromDeadOwnersOfEveryKind) {
  const auto runOtherProgram = [] { execl("/bin/sleep", "sleep", "100", nullptr); };
  const auto take = [&] { platVLatchGet(cell()); };
  const Rows<const char*, bool, std::function<void()>> ways = {
      {"killed", false, [&] { take(), raise(SIGKILL); }},
      {"killed in a container", false, [&] { inContainer([&] { take(), raise(SIGKILL); }); }},
      {"runs another program", false, [&] { take(), runOtherProgram(); }},
      {"has a thread that does", false, [&] { take(), std::thread(runOtherProgram).join(); }},
      {"a thread that ended", true, [&] { std::thread(take).join(), pause(); }},
      {"a main thread that ended", true,
       [&] { std::thread([] { pause(); }).detach(), take(), syscall(SYS_exit, 0); }}};
  for (const auto& [way, isAThread, work] : ways)
    for (const bool byAStranger : {false, true}) {
      if (isAThread && byAStranger) continue;  // it waits for the process to end
      SCOPED_TRACE(way);
      Child owner(work);
      while (isFree()) usleep(10);
      Child waiter([&] {
        const rlimit none = {3, 3};
        const auto get = [&] { EXPECT_EQ(platVLatchGetWithin(cell(), &kSoon, &died()), 0u); };
        if (!byAStranger) return get();
        setrlimit(RLIMIT_NOFILE, &none);
        EXPECT_EQ(setuid(getuid() ? getuid() : 65534), 0);
        get();
      });
      EXPECT_EQ(waiter.wait(), 0);
      EXPECT_EQ(died(), 1u);
      EXPECT_EQ(getAside(cell()).get(), 1u) << "of the waiter, which died as the owner";
      EXPECT_EQ(getAside(cell()).get(), 0u) << "told once";
    }
}

TEST_F(LatchTest, ASuspendedOwnerAndOneInAnotherContainerLive) {
  Holder stopped(cell());
  stopped.signal(SIGSTOP);
  EXPECT_EQ(platVLatchGetWithin(cell(), &kSoon, &died()), PLAT_RC_TIMEOUT);
  stopped.end();
  EXPECT_EQ(platVLatchGetWithin(cell(), &kSoon, &died()), 0u);
  EXPECT_EQ(platVLatchRelease(cell()), 0u);

  // Both are number 1 of their containers.
  Child owner([&] {
    inContainer([&] {
      platVLatchGet(cell());
      pause();
    });
  });
  while (isFree()) usleep(10);
  const auto getThere = [&](uint32_t expected) {
    EXPECT_EQ(inOtherProcess([&] {
                inContainer([&] {
                  EXPECT_EQ(platVLatchGetWithin(cell(), &kSoon, &died()), expected);
                  if (expected == 0) platVLatchRelease(cell());
                });
              }),
              0);
  };
  getThere(PLAT_RC_TIMEOUT);
  EXPECT_EQ(platVLatchGetWithin(cell(), &kSoon, &died()), PLAT_RC_TIMEOUT);
  owner.end();
  getThere(0);
  EXPECT_EQ(died(), 1u);
}

TEST_F(LatchTest, AThreadIdThatCameBackIsNotTheOwner) {
  EXPECT_EQ(platVLatchGet(cell()), 0u);
  setWord(word() ^ 1u << 22);  // of another thread, which had this one's id
  EXPECT_EQ(platVLatchRelease(cell()), PLAT_RC_NOT_OWNER);
  EXPECT_EQ(platVLatchGetWithin(cell(), &kSoon, &died()), 0u);
  EXPECT_EQ(died(), 1u);
  setWord(uint64_t{0x7fffffff} << 32 | 5);  // of nobody
  EXPECT_EQ(getAside(cell()).get(), 1u);
}

// A child that libc knows nothing of has its own identity all the same.
TEST_F(LatchTest, ABareCloneIsAnotherOwner) {
  EXPECT_EQ(platVLatchGet(cell()), 0u);
  const uint64_t parents = word();
  const pid_t child = static_cast<pid_t>(syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0));
  if (child == 0) {
    void* own = page + 512;
    const bool isRight = platVLatchRelease(cell()) == PLAT_RC_NOT_OWNER &&
                         platVLatchInit(own, 1) == 0 && platVLatchGet(own) == 0 &&
                         plat::latchAt(own)->word >> 32 != parents >> 32;
    _exit(isRight ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(word(), parents);
}

TEST_F(LatchTest, NamespacesAndSystemsWithoutTokensAreTold) {
  Child child([&] {
    if (unshare(CLONE_NEWIPC) != 0) _exit(77);
    FILE* limit = fopen("/proc/sys/kernel/shmmni", "w");
    if (!limit || fputs("0", limit) < 0 || fclose(limit) != 0) _exit(77);
    EXPECT_EQ(platVLatchGet(cell()), PLAT_RC_NO_TOKEN);
    limit = fopen("/proc/sys/kernel/shmmni", "w");
    fputs("10", limit);
    fclose(limit);
    EXPECT_EQ(platVLatchGet(cell()), PLAT_RC_FOREIGN_LATCH);
    EXPECT_EQ(platVLatchInit(cell(), 1), 0u);
    Holder holder(cell());
    EXPECT_EQ(platVLatchGetWithin(cell(), &kSoon, &died()), PLAT_RC_TIMEOUT);
    EXPECT_EQ(unshare(CLONE_NEWIPC), 0);
    EXPECT_EQ(platVLatchGetWithin(cell(), &kSoon, &died()), PLAT_RC_FOREIGN_LATCH);
  });
  const int status = child.wait();
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no right to IPC namespaces here";
  EXPECT_EQ(status, 0);
}

// Counted in holds of 0.1 ms by the other, which takes it again at once.
TEST_F(LatchTest, WhoHasWaitedGoesBeforeWhoComesAgain) {
  Child hog([&] {
    for (;; ++shared()[1]) {
      plat::latchGet(cell(), nullptr);
      usleep(100);
      plat::latchRelease(cell());
    }
  });
  const auto work = [&] {
    for (int turn = 0; turn < 20; ++turn) {
      const uint32_t before = shared()[1];
      plat::latchGet(cell(), nullptr);
      EXPECT_LE(shared()[1] - before, 600u);
      plat::latchRelease(cell());
    }
  };
  while (shared()[1] == 0) usleep(10);
  std::thread first(work), second(work);
  first.join();
  second.join();
}

TEST_F(LatchTest, WaitersAreLetGoWhenTheCellIsPutToOtherUse) {
  for (const int fill : {0xff, 0}) {
    platVLatchInit(cell(), 1);
    Holder holder(cell());
    Child waiter([&] { EXPECT_EQ(platVLatchGet(cell()), PLAT_RC_NO_LATCH); });
    std::this_thread::sleep_for(20ms);
    memset(cell(), fill, PLAT_LATCH_BYTES);
    EXPECT_EQ(waiter.wait(), 0);
    EXPECT_EQ(platVLatchGet(cell()), PLAT_RC_NO_LATCH);
  }
  platVLatchInit(cell(), 1);
  latch()->mark ^= 1;
  EXPECT_EQ(platVLatchGet(cell()), PLAT_RC_NO_LATCH) << "all but the mark is left of it";
}

TEST_F(LatchTest, ExcludesThreadsAndProcesses) {
  constexpr uint32_t kRounds = 300000;
  const auto work = [&] {
    for (uint32_t i = 0; i < kRounds; ++i) {
      plat::latchGet(cell(), nullptr);
      addSlowly(shared());
      plat::latchRelease(cell());
    }
  };
  Child first(work), second(work);
  std::thread third(work), fourth(work);
  third.join();
  fourth.join();
  EXPECT_EQ(first.wait() | second.wait(), 0);
  EXPECT_EQ(shared()[0], 4 * kRounds);
  EXPECT_TRUE(isFree());
}

TEST(ByteLatch, ExcludesThreads) {
  uint8_t latch = 0;
  volatile uint32_t counter = 0;
  const auto work = [&] {
    for (int round = 0; round < 20000; ++round) {
      if (platLinuxIA32AtomicTryLock8Internal(&latch)) platLockGetConflict(&latch);
      addSlowly(&counter);
      platLinuxIA32AtomicReleaseLock8Internal(&latch);
    }
  };
  std::thread threads[] = {std::thread(work), std::thread(work), std::thread(work)};
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter, 60000u);
  EXPECT_EQ(platByteLatchGetWithin(&latch, 0), 0u);
  EXPECT_NE(platByteLatchGetWithin(&latch, 2), 0u);
}

// Whatever the other threads of its parent are inside of, a forked child can use the library.
TEST(Fork, ChildrenHaveTheLatchesFreeOrStartAnew) {
  const Life life;
  std::atomic<bool> stop{false};
  std::thread busy([&] {
    while (!stop) {
      TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION);
      TRELCleanup(1);
    }
  });
  const auto use = [] { const Life child; };
  for (int round = 0; round < 100; ++round) EXPECT_EQ(Child(use, false).wait(), 0);
  stop = true;
  busy.join();

  ASSERT_EQ(platLinuxIA32AtomicTryLock8Internal(&trelSegAttachLatch), 0u);
  Child late(
      [] {
        EXPECT_EQ(TRELCleanup(2), TREL_RC_NOT_INITIALISED);
        const Life anew;
      },
      false);
  EXPECT_EQ(late.wait(), 0);
  platLinuxIA32AtomicReleaseLock8Internal(&trelSegAttachLatch);
}

}  // namespace
