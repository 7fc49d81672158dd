// Latches between processes and threads: exclusion, and what becomes of a latch whose owner dies.

#include "platsvc/latch.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "platsvc/codes.h"
#include "platsvc/report.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A page that forked children share, with a latch cell at an odd place.
class LatchTest : public testing::Test {
 protected:
  LatchTest()
      : page_(static_cast<uint8_t*>(
            mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    platVLatchInit(cell(), 1);
  }
  ~LatchTest() override { munmap(page_, 4096); }

  void* cell() const { return page_ + 20; }
  PLATLatch* latch() const { return plat::latchAt(cell()); }
  bool isFree() const { return word() == 0; }
  uint64_t word() const { return __atomic_load_n(&latch()->word, __ATOMIC_ACQUIRE); }
  void setWord(uint64_t value) { __atomic_store_n(&latch()->word, value, __ATOMIC_RELEASE); }
  // Words of the page for the tests' own use.
  volatile uint32_t* shared() const { return reinterpret_cast<uint32_t*>(page_ + 1024); }

  uint8_t* page_;
};

// A forked process that runs `work` and ends. It is gone when this object is, or its parent.
class Child {
 public:
  explicit Child(const std::function<void()>& work) : id_(fork()) {
    if (id_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      work();
      _exit(0);
    }
  }
  ~Child() { reap(SIGKILL); }

  pid_t id() const { return id_; }
  void signal(int number) const { kill(id_, number); }
  // The wait status. A signal of 0 lets it end by itself.
  int reap(int number = 0) {
    int status = -1;
    if (id_ > 0) {
      if (number) kill(id_, number);
      waitpid(id_, &status, 0);
    }
    id_ = -1;
    return status;
  }

 private:
  pid_t id_;
};

// A process that has taken the latch and holds it.
class Holder : public Child {
 public:
  explicit Holder(void* cell)
      : Child([cell] {
          platVLatchGet(cell);
          for (;;) pause();
        }) {
    const PLATLatch* latch = plat::latchAt(cell);
    while ((__atomic_load_n(&latch->word, __ATOMIC_ACQUIRE) & 0x7fffffff) !=
           static_cast<uint64_t>(id())) {
      std::this_thread::yield();
    }
  }
};

// A thread that gets the latch, and frees it when it has been asked what came of it.
class Waiter {
 public:
  explicit Waiter(void* cell)
      : thread_([this, cell] {
          code_ = platVLatchGetNoticing(cell, &died_);
          done_ = true;
          if (code_ == 0) platVLatchRelease(cell);
        }) {}
  ~Waiter() { thread_.join(); }

  bool doneWithin(std::chrono::milliseconds time) const {
    for (const auto end = Clock::now() + time; !done_ && Clock::now() < end;) {
      std::this_thread::sleep_for(1ms);
    }
    return done_;
  }
  uint32_t code() const { return code_; }
  uint32_t died() const { return died_; }

 private:
  uint32_t code_ = 99, died_ = 99;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

TEST_F(LatchTest, IsNotRecursiveAndLeftByItsOwnerAlone) {
  EXPECT_EQ(platVLatchRelease(cell()), PLAT_RC_NOT_OWNER) << "free";
  EXPECT_EQ(platVLatchGet(cell()), 0u);
  EXPECT_EQ(platVLatchGet(cell()), PLAT_RC_ALREADY_OWNER);
  const uint64_t held = word();
  std::thread([&] { EXPECT_EQ(platVLatchRelease(cell()), PLAT_RC_NOT_OWNER); }).join();
  Child child([&] {
    if (platVLatchRelease(cell()) != PLAT_RC_NOT_OWNER) _exit(1);
    if (platThreadID() != static_cast<uint32_t>(getpid())) _exit(2);
    if (platVLatchGet(cell()) != 0) _exit(3);  // waits for the parent
    shared()[0] = shared()[1];
    platVLatchRelease(cell());
  });
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(word() & ~0x80000000ull, held);
  shared()[1] = 7;
  EXPECT_EQ(platVLatchRelease(cell()), 0u);
  EXPECT_EQ(child.reap(), 0);
  EXPECT_EQ(shared()[0], 7u);
  EXPECT_TRUE(isFree());
  EXPECT_EQ(platVLatchGet(nullptr), PLAT_RC_ARGUMENT);
}

TEST_F(LatchTest, UsesItsOwnBytesAtEveryAlignment) {
  for (size_t start = 0; start < 8; ++start) {
    uint8_t* bytes = page_ + 512;
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

TEST_F(LatchTest, TakenOverFromADeadProcess) {
  for (const bool reaped : {false, true}) {
    // The best of a few tries: a busy machine may delay any one of them.
    auto best = Clock::duration::max();
    for (int i = 0; i < 3; ++i) {
      Holder holder(cell());
      Waiter waiter(cell());
      EXPECT_FALSE(waiter.doneWithin(130ms)) << "by now it sleeps for 50 ms at a time";
      const auto killed = Clock::now();
      holder.signal(SIGKILL);
      if (reaped) holder.reap();
      EXPECT_TRUE(waiter.doneWithin(10s));
      best = std::min(best, Clock::now() - killed);
      EXPECT_EQ(waiter.code(), 0u);
      EXPECT_EQ(waiter.died(), 1u);
    }
    EXPECT_LT(best, 100ms);
    EXPECT_TRUE(isFree());
  }
  uint32_t died = 9;
  EXPECT_EQ(platVLatchGetNoticing(cell(), &died), 0u);
  EXPECT_EQ(died, 0u) << "told once";
  EXPECT_EQ(platVLatchRelease(cell()), 0u);
}

TEST_F(LatchTest, TakenOverFromAnEndedThreadAndAReusedThreadId) {
  std::thread([&] { platVLatchGet(cell()); }).join();
  uint32_t died = 0;
  EXPECT_EQ(platVLatchGetNoticing(cell(), &died), 0u);
  EXPECT_EQ(died, 1u);

  // The id of a living process, under the start time of another one.
  const uint64_t own = word() & ~0x80000000ull;
  platVLatchRelease(cell());
  Child other([] {
    for (;;) pause();
  });
  const uint64_t startOfAnother = ((own >> 32) - 1) << 32;
  setWord(startOfAnother | static_cast<uint64_t>(other.id()));
  died = 0;
  EXPECT_EQ(platVLatchGetNoticing(cell(), &died), 0u);
  EXPECT_EQ(died, 1u);
  platVLatchRelease(cell());

  // A thread that did not know its start time is alive as long as the id is.
  setWord(static_cast<uint64_t>(other.id()));
  Waiter waiter(cell());
  EXPECT_FALSE(waiter.doneWithin(200ms));
  other.reap(SIGKILL);
  EXPECT_TRUE(waiter.doneWithin(10s));
  EXPECT_EQ(waiter.died(), 1u);
}

TEST_F(LatchTest, StoppedOwnerIsWaitedFor) {
  Child owner([&] {
    platVLatchGet(cell());
    shared()[0] = 1;
    raise(SIGSTOP);
    shared()[1] = 1;
    platVLatchRelease(cell());
  });
  int status = 0;
  waitpid(owner.id(), &status, WUNTRACED);
  ASSERT_TRUE(WIFSTOPPED(status));
  Waiter waiter(cell());
  EXPECT_FALSE(waiter.doneWithin(300ms));
  owner.signal(SIGCONT);
  EXPECT_TRUE(waiter.doneWithin(10s));
  EXPECT_EQ(waiter.died(), 0u);
  EXPECT_EQ(shared()[1], 1u);
}

TEST_F(LatchTest, NobodyTakesOverAfterAVisitFromOtherNamespaces) {
  // A visitor in a pid namespace of its own, if the system grants one; else the mark of another
  // namespace as the maker of the latch, so that every process is a visitor.
  Child visitor([&] {
    if (unshare(CLONE_NEWPID) != 0) _exit(1);
    Child inner([&] {
      platVLatchGet(cell());
      platVLatchRelease(cell());
    });
    _exit(inner.reap() == 0 ? 0 : 2);
  });
  const int status = visitor.reap();
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 2);
  if (WEXITSTATUS(status) == 1) latch()->space ^= 4;

  Holder holder(cell());
  EXPECT_EQ(latch()->mark, kForeignLatchMark);
  holder.reap(SIGKILL);
  Waiter waiter(cell());
  EXPECT_FALSE(waiter.doneWithin(300ms));
  setWord(0);
  EXPECT_TRUE(waiter.doneWithin(10s));
  EXPECT_EQ(waiter.died(), 0u);
}

TEST_F(LatchTest, WaitersAreLetGoWhenTheCellIsPutToOtherUse) {
  for (const int fill : {0xff, 0}) {
    platVLatchInit(cell(), 1);
    Holder holder(cell());
    Child waiter([&] { _exit(platVLatchGet(cell()) == PLAT_RC_NO_LATCH ? 0 : 1); });
    std::this_thread::sleep_for(20ms);
    memset(cell(), fill, PLAT_LATCH_BYTES);
    EXPECT_EQ(waiter.reap(), 0);
    EXPECT_EQ(platVLatchGet(cell()), PLAT_RC_NO_LATCH);
  }
}

TEST_F(LatchTest, ReleaseWakesOneWaiterAfterTheOther) {
  // Sleepers look again after 50 ms anyway; the best of a few tries shows that they were woken.
  auto best = Clock::duration::max();
  for (int i = 0; i < 5; ++i) {
    platVLatchGet(cell());
    Waiter first(cell()), second(cell()), third(cell());
    EXPECT_FALSE(third.doneWithin(130ms));
    const auto released = Clock::now();
    platVLatchRelease(cell());
    for (const Waiter* waiter : {&first, &second, &third}) {
      EXPECT_TRUE(waiter->doneWithin(10s));
      EXPECT_EQ(waiter->died(), 0u);
    }
    best = std::min(best, Clock::now() - released);
  }
  EXPECT_LT(best, 8ms);
}

// Adds 1 to a counter so that two adders at once would lose something.
void addSlowly(volatile uint32_t* counter) {
  const uint32_t before = *counter;
  *counter = before + 1;
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
  EXPECT_EQ(first.reap(), 0);
  EXPECT_EQ(second.reap(), 0);
  EXPECT_EQ(shared()[0], 4 * kRounds);
  EXPECT_TRUE(isFree());
}

// Two counters are equal whenever the latch is free. Whoever takes over is told, and repairs them.
TEST_F(LatchTest, KilledAtAnyMoment) {
  const auto work = [&] {
    for (;;) {
      uint32_t died = 0;
      plat::latchGet(cell(), &died);
      if (died) {
        ++shared()[3];
        shared()[1] = shared()[0];
      }
      if (shared()[0] != shared()[1]) ++shared()[2];
      addSlowly(&shared()[0]);
      addSlowly(&shared()[1]);
      plat::latchRelease(cell());
    }
  };
  Child survivor(work);
  for (int i = 0; i < 60; ++i) {
    Child victim(work);
    std::this_thread::sleep_for(std::chrono::microseconds(2000 + 37 * i));
    victim.reap(SIGKILL);
    const uint32_t before = shared()[0];
    for (const auto end = Clock::now() + 10s; shared()[0] == before && Clock::now() < end;) {
      std::this_thread::sleep_for(1ms);
    }
    ASSERT_NE(shared()[0], before) << "the survivor is stuck";
  }
  EXPECT_EQ(shared()[2], 0u) << "a broken pair, and nobody was told";
  EXPECT_GT(shared()[3], 0u) << "no kill has hit an owner";
}

TEST(ByteLatch, ExcludesThreads) {
  uint8_t latch = 0;
  EXPECT_EQ(platLinuxIA32AtomicTryLock8Internal(&latch), 0u);
  EXPECT_NE(platLinuxIA32AtomicTryLock8Internal(&latch), 0u);
  platLinuxIA32AtomicReleaseLock8Internal(&latch);
  uint32_t counter = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 20000; ++round) {
        if (platLinuxIA32AtomicTryLock8Internal(&latch)) platLockGetConflict(&latch);
        ++counter;
        platLinuxIA32AtomicReleaseLock8Internal(&latch);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counter, 80000u);
}

}  // namespace
