// A walker of storage heaps that shares no code with the library: it reads the layout alone, and
// tells the first thing that is wrong.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "trel/layout.h"

struct HeapBlock {
  uint64_t offset, size;
  uint64_t data, requested;  // 0 in a free block
  uint64_t node, level;
};

class HeapWalk {
 public:
  std::vector<HeapBlock> allocated, free;  // by offset
  std::string fault;                       // empty: the heap is sound

  HeapWalk(const void* base, uint32_t kind, uint64_t h)
      : base_(static_cast<const uint8_t*>(base)), kind_(kind), h_(h) {
    header() && allocatedList() && freeLists() && space() && tiling() && pads();
  }

  uint64_t largestFree() const {
    uint64_t largest = 0;
    for (const HeapBlock& block : free) largest = std::max(largest, block.size);
    return largest;
  }

  // Sizes of front pad and of both pads in a mode with f and b pad words; false: no such mode.
  static bool padSizes(uint32_t mode, uint32_t f, uint32_t b, uint64_t* front, uint64_t* total) {
    switch (mode) {
      case TREL_PAD_OFF:
      case TREL_PAD_FRONT:
        return *front = 16, *total = 16, true;
      case TREL_PAD_DEFAULT:
        return *front = 16, *total = 32, true;
      case TREL_PAD_GUARD:
        return *front = 24, *total = 48, true;
      case TREL_PAD_RECORD:
        return *front = 8 * f + 32, *total = 8 * (f + b) + 48, true;
      case TREL_PAD_RECORD_GUARD:
        return *front = 8 * f + 40, *total = 8 * (f + b) + 64, true;
      case TREL_PAD_FILE:
        return *front = 8 * f + 56, *total = 8 * (f + b) + 72, true;
      case TREL_PAD_FILE_GUARD:
        return *front = 8 * f + 64, *total = 8 * (f + b) + 88, true;
      default:
        return false;
    }
  }

 private:
  uint64_t u64(uint64_t offset) const { return *reinterpret_cast<const TrelU64*>(base_ + offset); }
  uint32_t u32(uint64_t offset) const { return *reinterpret_cast<const TrelU32*>(base_ + offset); }

  bool say(const std::string& what) {
    if (fault.empty()) fault = what;
    return false;
  }
  bool same(uint64_t found, uint64_t wanted, const std::string& what) {
    return found == wanted ||
           say(what + " is " + std::to_string(found) + ", not " + std::to_string(wanted));
  }

  bool header() {
    const uint64_t user = (u64(h_ + 240) + 7) & ~uint64_t{7};
    for (int i = 0; i < 3; ++i)
      if (!same(u64(h_ + 8 * i), 0x1317d17, "a version")) return false;
    if (!same(u64(h_ + 24), kind_ == 1 ? 0xf4eef00d : 0xf00df4ee, "heapState")) return false;
    if (!same(u64(h_ + 40), h_, "heapOffset")) return false;
    s_ = h_ + 488 + user;
    m_ = u64(s_);
    if (m_ < 1 || m_ > 25) return say("maxLevel");
    slHeader_ = 216 + 72 * m_;
    slSpace_ = u64(s_ + 8);
    slNext_ = u64(s_ + 24);
    if (slNext_ < slHeader_ || slNext_ > slSpace_ || slSpace_ % 8) return say("node space");
    if (s_ + slSpace_ > h_ + u64(h_ + 56)) return say("node space above the heap");
    return same(u64(s_ + 64 + 32), m_ - 1, "level of the allocated head");
  }

  bool isNode(uint64_t node, uint64_t linkBytes, HeapBlock* block) {
    if (node < s_ + slHeader_ || node + 48 > s_ + slNext_ || node % 8)
      return say("link to " + std::to_string(node) + ", where no node can be");
    const uint64_t level = u64(node + 32), size = 48 + linkBytes * (level + 1);
    if (level >= m_ || node + size > s_ + slNext_) return say("level of a node");
    *block = {u64(node), u64(node + 8), 0, 0, node, level};
    nodes_.push_back({node, size, 0, 0, 0, 0});
    return true;
  }

  // The nodes of `all` that take part in level i, in their order, must be those that `next` visits.
  template <class Next>
  bool levels(const std::vector<HeapBlock>& all, uint64_t highest, const std::string& what,
              Next&& next) {
    for (uint64_t i = 0; i < m_; ++i) {
      uint64_t node = next(0, i);
      bool any = false;
      for (const HeapBlock& block : all) {
        if (block.level < i) continue;
        any = true;
        if (!same(node, block.node, what + " at level " + std::to_string(i))) return false;
        node = next(node, i);
      }
      if (!same(node, 0, what + " end at level " + std::to_string(i))) return false;
      if ((i == highest && i && !any) || (i > highest && any)) return say(what + ": level in use");
    }
    return true;
  }

  bool allocatedList() {
    const uint64_t head = s_ + 64, count = u64(s_ + 32);
    uint64_t slot = u64(head + 48), bytes = 0;
    for (; slot; slot = u64(slot)) {
      HeapBlock block;
      if (allocated.size() >= count) return say("more allocated nodes than allocNodeCount");
      if (!isNode(slot - 48, 8, &block)) return false;
      block.data = u64(block.node + 16);
      block.requested = u64(block.node + 24);
      bytes += block.size;
      allocated.push_back(block);
    }
    return same(allocated.size(), count, "allocNodeCount") &&
           same(u64(h_ + 72), bytes, "allocatedBytes") &&
           levels(allocated, u64(s_ + 56), "allocated list", [&](uint64_t node, uint64_t i) {
             const uint64_t next = u64((node ? node : head) + 48 + 8 * i);
             return next ? next - 48 - 8 * i : 0;
           });
  }

  // Run 0 to 3: forward and backward by offset, forward and backward by size.
  uint64_t link(uint64_t node, uint64_t run, uint64_t level) const {
    return u64(node + 48 + 8 * ((u64(node + 32) + 1) * run + level));
  }

  bool freeLists() {
    const uint64_t head = s_ + 120 + 8 * m_, tail = head + 48 + 32 * m_, count = u64(s_ + 40);
    for (uint64_t end : {head, tail})
      if (u64(end) || u64(end + 8) || u64(end + 32) != m_ - 1) return say("sentinel");
    uint64_t bytes = 0;
    for (uint64_t node = link(head, 0, 0); node != tail; node = link(node, 0, 0)) {
      HeapBlock block;
      if (free.size() >= count) return say("more free nodes than freeNodeCount");
      if (!isNode(node, 32, &block)) return false;
      bytes += block.size;
      free.push_back(block);
    }
    if (!same(free.size(), count, "freeNodeCount") || !same(u64(h_ + 64), bytes, "freeBytes"))
      return false;
    std::vector<HeapBlock> bySize;
    for (uint64_t node = link(head, 2, 0); node != tail; node = link(node, 2, 0)) {
      if (bySize.size() >= count || !isNode(node, 32, &bySize.emplace_back()))
        return say("size order");
      nodes_.pop_back();
      if (bySize.size() > 1 && bySize[bySize.size() - 2].size > bySize.back().size)
        return say("sizes out of order");
    }
    if (!same(bySize.size(), count, "nodes by size")) return false;
    const char* const names[] = {"forward (O)", "backward (O)", "forward (S)", "backward (S)"};
    for (uint64_t run = 0; run < 4; ++run) {
      std::vector<HeapBlock> order = run < 2 ? free : bySize;
      if (run % 2) std::reverse(order.begin(), order.end());
      const uint64_t from = run % 2 ? tail : head, to = run % 2 ? head : tail;
      if (!levels(order, u64(s_ + 112 + 8 * m_), names[run], [&](uint64_t node, uint64_t i) {
            const uint64_t next = link(node ? node : from, run, i);
            return next == to ? 0 : next;
          }))
        return false;
    }
    return true;
  }

  // Blocks or nodes in order of offset: none over another; with `gapless`, without gaps.
  bool disjoint(std::vector<HeapBlock> all, bool gapless, uint64_t from, uint64_t to,
                const std::string& what) {
    std::sort(all.begin(), all.end(),
              [](const HeapBlock& a, const HeapBlock& b) { return a.offset < b.offset; });
    for (const HeapBlock& one : all) {
      if (one.offset < from || (gapless && one.offset != from))
        return say(what + " before " + std::to_string(one.offset));
      from = one.offset + one.size;
    }
    return gapless ? same(from, to, "end of " + what) : from <= to || say("end of " + what);
  }

  bool space() {
    uint64_t used = slHeader_;
    for (const HeapBlock& node : nodes_) used += node.size;
    return same(u64(s_ + 16), used, "slUsedBytes") &&
           disjoint(nodes_, false, s_ + slHeader_, s_ + slNext_, "nodes");
  }

  bool tiling() {
    std::vector<HeapBlock> all = allocated;
    all.insert(all.end(), free.begin(), free.end());
    const uint64_t start = s_ + slSpace_, end = h_ + u64(h_ + 56);
    for (size_t i = 1; i < free.size(); ++i)
      if (free[i - 1].offset + free[i - 1].size == free[i].offset)
        return say("free blocks that touch at " + std::to_string(free[i].offset));
    return disjoint(all, true, start, start + ((end - start) & ~uint64_t{7}), "managed memory");
  }

  bool guards(uint64_t at, uint64_t count, const std::string& what) {
    for (uint64_t i = 0; i < count; ++i)
      if (u64(at + 8 * i) != TREL_PAD_GUARD_WORD) return say("guard word " + what);
    return true;
  }

  bool pads() {
    for (const HeapBlock& block : allocated)
      if (!padsOf(block)) return say("pads of block " + std::to_string(block.offset));
    return true;
  }

  bool padsOf(const HeapBlock& block) {
    const uint64_t d = block.data, e = block.offset + block.size;
    if (d < block.offset + 16 || d > e) return say("dataOffset");
    const uint32_t mode = u32(d - 4);
    const bool guard =
        mode == TREL_PAD_GUARD || mode == TREL_PAD_RECORD_GUARD || mode == TREL_PAD_FILE_GUARD;
    const bool file = mode == TREL_PAD_FILE || mode == TREL_PAD_FILE_GUARD;
    const bool record = mode == TREL_PAD_RECORD || mode == TREL_PAD_RECORD_GUARD || file;
    const uint64_t inner = guard ? 24 : 16, recordAt = d - inner - 16;
    const uint64_t f = record ? u32(recordAt + 8) : 0, b = record ? u32(recordAt + 12) : 0;
    uint64_t front = 0, total = 0;
    if (!padSizes(mode, f, b, &front, &total)) return say("pad mode");
    if (!same(d - block.offset, front, "front pad") || !same(u64(d - 16), block.node, "frontTail"))
      return false;
    if (u32(d - 8) != TREL_PAD_FRONT_MAGIC) return say("front word");
    if (record &&
        (u32(recordAt) != u32(block.node + 44) || u32(recordAt + 4) != u32(block.node + 40)))
      return say("caller in blockRecord");
    if (guard && !guards(d - 24, 1, "in front")) return false;
    if (!guards(block.offset, f, "at the block's start")) return false;
    if (total == front) return true;  // no back pad
    if (d + block.requested + total - front > e) return say("requestedSize");
    if (!same(u64(e - 16), block.node, "backTail")) return false;
    if (u32(e - 8) != TREL_PAD_BACK_MAGIC || u32(e - 4) != mode) return say("back words");
    if (!guards(e - inner, guard, "behind") || !guards(e - inner - 8 * b, b, "of the back run"))
      return false;
    for (uint64_t i = d + block.requested; kind_ == 2 && i < e - (total - front); ++i)
      if (base_[i] != 0xcc) return say("slack");
    return true;
  }

  const uint8_t* base_;
  const uint32_t kind_;
  const uint64_t h_;
  uint64_t s_ = 0, m_ = 0, slHeader_ = 0, slSpace_ = 0, slNext_ = 0;
  std::vector<HeapBlock> nodes_;  // offset and size of each node
};

inline std::string heapFault(const void* base, uint32_t kind, uint64_t h) {
  return HeapWalk(base, kind, h).fault;
}
