// Processes that die at every store of an operation, one after the other.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "killpoints.h"
#include "platsvc/platsvc.h"
#include "trel/trel.h"

// Whether a longer run was asked for, by TREL_KILL_POINTS_FULL.
inline bool isFullRun() {
  static const bool full = getenv("TREL_KILL_POINTS_FULL") != nullptr;
  return full;
}

// Runs work in a process that arms a kill point first. True if it was killed there; false if it
// ended before it got so far.
inline bool diesAt(const std::function<void()>& arm, const std::function<void()>& work) {
  const pid_t pid = fork();
  if (pid == 0) {
    srand(1);
    arm();
    work();
    killpoints::disarm();
    _exit(testing::Test::HasFailure());
  }
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) return true;
  EXPECT_EQ(0, status) << "an operation that was not killed has failed";
  return false;
}

// Bytes of a segment at some time.
using Image = std::vector<uint8_t>;

class Memory {
 public:
  Memory(void* base, size_t size) : base_(static_cast<uint8_t*>(base)), size_(size) {}
  uint8_t* base() const { return base_; }
  Image save() const { return Image(base_, base_ + size_); }
  void restore(const Image& image) const { memcpy(base_, image.data(), size_); }

  // Runs work in a process that is killed in front of its store number n. True if it was.
  bool dies(uint64_t n, const std::function<void()>& work) const {
    return diesAt([&] { killpoints::arm(base_, size_, n); }, work);
  }

  // Lets work die at every one of its stores, on the same bytes each time; survive(n) looks at what
  // is left. Gives the number of stores.
  uint64_t dieEverywhere(const Image& start, const std::function<void()>& work,
                         const std::function<void(uint64_t)>& survive) const {
    for (uint64_t n = 0;; ++n) {
      restore(start);
      if (!dies(n, work) || testing::Test::HasFailure()) return n;
      survive(n);
    }
  }

  // Lets work die at every store, or at every step-th, and after each death repair at every one of
  // its own.
  void dieTwice(const Image& start, const std::function<void()>& work, uint64_t step,
                const std::function<void()>& repair,
                const std::function<void(uint64_t)>& survive) const {
    dieEverywhere(start, work, [&](uint64_t n) {
      if (n % step != step / 2) return;
      SCOPED_TRACE("killed in front of store " + std::to_string(n) + ", and in the repair");
      dieEverywhere(save(), repair, survive);
    });
  }

 private:
  uint8_t* base_;
  size_t size_;
};
