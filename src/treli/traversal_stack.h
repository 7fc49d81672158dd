// The path from the top of a walk down to where it stands, in place of a call stack: a tree may be
// as deep as it likes without using up the caller's thread.
//
// What is no tree, for it has been damaged, is refused: too deep, in a circle, or with more ways
// through it than a walk could come to the end of.
#pragma once

#include <string.h>

#include "trel/codes.h"
#include "treli/reach.h"
#include "trelshm/process_memory.h"

namespace trel {

// Nodes on a path, the top among them. Also the largest limit that a caller may give.
constexpr uint32_t kMaxDepth = 32768;

// How many nodes with dependents a walk may enter. A tree's are entered once each, and again where
// lists change meanwhile, but not without end.
class WalkBudget {
 public:
  bool spend() {
    if (spent_ == most_) {
      const uint64_t byMemory = 64 * nodesThatFit();
      if (byMemory > most_) most_ = byMemory;
    }
    if (spent_ == most_) return false;
    ++spent_;
    return true;
  }
  // For a tree that was made by this process for itself alone.
  void lift() { most_ = UINT64_MAX; }

 private:
  uint64_t spent_ = 0, most_ = 4096;
};

// Level is trivially copyable and has a `node`.
template <class Level>
class TraversalStack {
 public:
  TraversalStack() = default;
  ~TraversalStack() {
    if (levels_ != first()) release(&levels_);
  }
  TraversalStack(const TraversalStack&) = delete;
  TraversalStack& operator=(const TraversalStack&) = delete;

  bool empty() const { return count_ == 0; }
  // Whether no node may be entered below the last one.
  bool isFull() const { return count_ == kMaxDepth; }
  uint32_t count() const { return count_; }
  Level& operator[](uint32_t i) { return levels_[i]; }
  Level& top() { return levels_[count_ - 1]; }
  void pop() { --count_; }
  WalkBudget& budget() { return budget_; }

  // Room for one more level, to be filled. May move the levels.
  uint32_t prepare(Level** next) {
    if (isFull()) return TREL_RC_DEPTH_LIMIT;
    if (count_ == capacity_) {
      if (const uint32_t rc = grow()) return rc;
    }
    *next = levels_ + count_;
    return 0;
  }
  // Takes what prepare() gave onto the path.
  uint32_t push() {
    if (closesCycle(levels_[count_].node) || !budget_.spend()) return TREL_RC_DEPTH_LIMIT;
    ++count_;
    return 0;
  }
  uint32_t push(const Level& level) {
    Level* next = nullptr;
    if (const uint32_t rc = prepare(&next)) return rc;
    *next = level;
    return push();
  }

 private:
  static constexpr uint32_t kNear = 64;

  // Looks at the last levels, and on a long path at one more, which moves on at powers of 2
  // (Brent's cycle detection), so that any cycle comes back to it. Without this a cycle that forks
  // would end, but not in time.
  bool closesCycle(const void* node) const {
    for (uint32_t i = count_ > kNear ? count_ - kNear : 0; i < count_; ++i)
      if (levels_[i].node == node) return true;
    return count_ > kNear && levels_[1u << (31 - __builtin_clz(count_ - 1))].node == node;
  }

  __attribute__((noinline)) uint32_t grow() {
    Level* larger = nullptr;
    if (obtain(&larger, 2 * capacity_) != 0) return TREL_RC_DEPTH_LIMIT;
    memcpy(static_cast<void*>(larger), levels_, count_ * sizeof(Level));
    if (levels_ != first()) release(&levels_);
    levels_ = larger;
    capacity_ *= 2;
    return 0;
  }

  Level* first() { return reinterpret_cast<Level*>(first_); }

  static constexpr uint32_t kFirst = 16;
  uint32_t count_ = 0, capacity_ = kFirst;  // a power of 2, up to kMaxDepth
  WalkBudget budget_;
  const Look look_;  // what the walk resolves stays mapped until it ends
  alignas(Level) unsigned char first_[kFirst * sizeof(Level)];
  Level* levels_ = first();
};

}  // namespace trel
