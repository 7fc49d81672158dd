// A damaged list may loop: no walk is longer than there can be nodes.
#pragma once

#include "trelshm/heap_view.h"

namespace trel {

class WalkBudget {
 public:
  // A node has more than 32 bytes, by which dividing costs nothing.
  explicit WalkBudget(const Heap& heap) : left_(heap.space() / 32) {}
  bool exhausted() { return left_-- == 0; }

 private:
  uint64_t left_;
};

}  // namespace trel
