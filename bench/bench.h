// What the benchmarks share.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <vector>

#include "platsvc/platsvc.h"
#include "trel/trel.h"

namespace bench {

// An active node in process memory with these sections.
class Node {
 public:
  Node(uint64_t exports, const std::map<uint32_t, uint64_t>& sections) {
    uint64_t sizes[64] = {}, size = 0, offset = 0;
    for (auto [bit, bytes] : sections) sizes[__builtin_ctz(bit) - 1] = bytes;
    trelCreateNodeInPM(&cb, exports, sizes, &size, &offset, TREL_STRUCTURE_VERSION,
                       TREL_STRUCTURE_VERSION);
    trelInitNode(&cb, offset, 0, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr);
    trelActivateNode(&cb);
  }
  ~Node() {
    void* block = cb;
    _platMemFree(&block, 0, 0, "", 0);
  }
  SNodeCB_t* cb = nullptr;
};

// n different tags, in an order without a pattern. The same n gives the same tags.
inline std::vector<uint64_t> tagsFor(uint64_t n, unsigned seed = 1) {
  std::vector<uint64_t> tags(n);
  for (uint64_t i = 0; i < n; ++i) tags[i] = 1 + i * 29;
  std::shuffle(tags.begin(), tags.end(), std::mt19937(seed));
  return tags;
}

// Goes round and round through a list of keys.
class Round {
 public:
  explicit Round(std::vector<uint64_t> keys) : keys_(std::move(keys)) {}
  uint64_t next() {
    if (++i_ == keys_.size()) i_ = 0;
    return keys_[i_];
  }

 private:
  const std::vector<uint64_t> keys_;
  size_t i_ = 0;
};

}  // namespace bench
