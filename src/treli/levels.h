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

constexpr uint32_t kMaxDepth = 32768;

template <class Level>
class Levels {
 public:
  Levels() = default;
  ~Levels() {
    if (levels_ != first_) release(&levels_);
  }
  Levels(const Levels&) = delete;
  Levels& operator=(const Levels&) = delete;

  bool empty() const { return count_ == 0; }
  uint32_t count() const { return count_; }
  Level& operator[](uint32_t i) { return levels_[i]; }
  Level& top() { return levels_[count_ - 1]; }
  void pop() { --count_; }

  // Makes sure of room for one more level. May move the levels.
  uint32_t reserve() {
    if (!isCredible()) return TREL_RC_DEPTH_LIMIT;
    return count_ < capacity_ ? 0 : grow();
  }

  // May move the levels. Fails only for a cycle where there is room.
  uint32_t push(const Level& level) {
    if (closesCycle(level.node)) return TREL_RC_DEPTH_LIMIT;
    if (const uint32_t rc = reserve()) return rc;
    ++pushes_;
    levels_[count_++] = level;
    return 0;
  }

 private:
  static constexpr uint32_t kNear = 64;

  // Looks at the last levels, and on a long path at one more, which moves on at powers of 2, so
  // that any cycle comes back to it. Without this a cycle that forks would end, but not in time.
  bool closesCycle(const void* node) const {
    for (uint32_t i = count_ > kNear ? count_ - kNear : 0; i < count_; ++i)
      if (levels_[i].node == node) return true;
    return count_ > kNear && levels_[1u << (31 - __builtin_clz(count_ - 1))].node == node;
  }

  // A list is read several times where it changes meanwhile, but not without end.
  bool isCredible() {
    if (pushes_ >= mostPushes_) mostPushes_ = 64 * nodesThatFit();
    return pushes_ < mostPushes_;
  }

  __attribute__((noinline)) uint32_t grow() {
    Level* larger = nullptr;
    if (count_ == kMaxDepth || obtain(&larger, 2 * capacity_) != 0) return TREL_RC_DEPTH_LIMIT;
    memcpy(static_cast<void*>(larger), levels_, count_ * sizeof(Level));
    if (levels_ != first_) release(&levels_);
    levels_ = larger;
    capacity_ *= 2;
    return 0;
  }

  uint32_t count_ = 0, capacity_ = 16;  // a power of 2, up to kMaxDepth
  uint64_t pushes_ = 0, mostPushes_ = 4096;
  Level first_[16];
  Level* levels_ = first_;
};

}  // namespace trel
