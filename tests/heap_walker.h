// A walker of storage heaps that shares no code with the library: it reads the layout alone, and
// tells the first thing that is wrong.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "trel/layout.h"

struct HeapBlock {
  uint64_t offset, size;
  uint64_t data, requested;  // 0 in a free block
  uint64_t node, level;

  uint64_t end() const { return offset + size; }
};

// What a pad mode puts around the data: fixed bytes in front and behind, and the pad words.
struct PadShape {
  uint32_t mode;
  uint64_t front, back;
  bool hasWords;  // and a record of the caller
  bool hasGuard, hasFile;

  uint64_t frontSize(uint64_t words) const { return front + (hasWords ? 8 * words : 0); }
  uint64_t backSize(uint64_t words) const { return back + (hasWords ? 8 * words : 0); }

  static const PadShape* of(uint32_t mode);
};
constexpr PadShape kPadShapes[] = {{TREL_PAD_OFF, 16, 0, false, false, false},
                                   {TREL_PAD_FRONT, 16, 0, false, false, false},
                                   {TREL_PAD_DEFAULT, 16, 16, false, false, false},
                                   {TREL_PAD_GUARD, 24, 24, false, true, false},
                                   {TREL_PAD_RECORD, 32, 16, true, false, false},
                                   {TREL_PAD_RECORD_GUARD, 40, 24, true, true, false},
                                   {TREL_PAD_FILE, 56, 16, true, false, true},
                                   {TREL_PAD_FILE_GUARD, 64, 24, true, true, true}};
inline const PadShape* PadShape::of(uint32_t mode) {
  for (const PadShape& shape : kPadShapes)
    if (shape.mode == mode) return &shape;
  return nullptr;
}

class HeapWalk {
 public:
  std::vector<HeapBlock> allocated, free;  // by offset
  std::vector<HeapBlock> freeBySize;       // in the order in which a fit is looked for
  std::string fault;                       // empty: the heap is sound

  HeapWalk(const void* base, uint32_t kind, uint64_t h)
      : base_(static_cast<const uint8_t*>(base)), kind_(kind), h_(h) {
    header() && allocatedList() && freeLists() && space() && tiling() && pads();
  }

 private:
  using Extents = std::vector<std::pair<uint64_t, uint64_t>>;  // offset and size

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

  static uint64_t nodeSize(uint64_t level, uint64_t linkBytes) {
    return 48 + linkBytes * (level + 1);
  }
  // Appends the block of a node to a list that may have `count` of them.
  bool add(uint64_t node, uint64_t linkBytes, uint64_t count, std::vector<HeapBlock>* list) {
    if (list->size() >= count) return say("more nodes than are counted");
    if (node < s_ + slHeader_ || node + 48 > s_ + slNext_ || node % 8)
      return say("link to " + std::to_string(node) + ", where no node can be");
    const uint64_t level = u64(node + 32);
    if (level >= m_ || node + nodeSize(level, linkBytes) > s_ + slNext_)
      return say("level of a node");
    list->push_back({u64(node), u64(node + 8), 0, 0, node, level});
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

  bool counted(const std::vector<HeapBlock>& list, uint64_t count, uint64_t bytes) {
    uint64_t sum = 0;
    for (const HeapBlock& block : list) sum += block.size;
    return same(list.size(), count, "count of a list") && same(bytes, sum, "bytes of a list");
  }

  bool allocatedList() {
    const uint64_t head = s_ + 64, count = u64(s_ + 32);
    for (uint64_t slot = u64(head + 48); slot; slot = u64(slot)) {
      if (!add(slot - 48, 8, count, &allocated)) return false;
      allocated.back().data = u64(slot - 48 + 16);
      allocated.back().requested = u64(slot - 48 + 24);
    }
    return counted(allocated, count, u64(h_ + 72)) &&
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
    const char* const names[] = {"forward (O)", "backward (O)", "forward (S)", "backward (S)"};
    std::vector<HeapBlock> order;
    for (uint64_t run = 0; run < 4; ++run) {
      const bool backward = run % 2;
      const uint64_t from = backward ? tail : head, to = backward ? head : tail;
      if (backward) {
        std::reverse(order.begin(), order.end());
      } else {
        order.clear();
        for (uint64_t node = link(head, run, 0); node != tail; node = link(node, run, 0))
          if (!add(node, 32, count, &order)) return false;
        if (!counted(order, count, u64(h_ + 64))) return false;
        (run == 0 ? free : freeBySize) = order;
      }
      if (!levels(order, u64(s_ + 112 + 8 * m_), names[run], [&](uint64_t node, uint64_t i) {
            const uint64_t next = link(node ? node : from, run, i);
            return next == to ? 0 : next;
          }))
        return false;
    }
    const auto smaller = [](const HeapBlock& a, const HeapBlock& b) { return a.size < b.size; };
    return std::is_sorted(freeBySize.begin(), freeBySize.end(), smaller) ||
           say("sizes out of order");
  }

  // None may lie over another; with `gapless`, there may be nothing between them either.
  bool disjoint(Extents all, bool gapless, uint64_t from, uint64_t to, const std::string& what) {
    std::sort(all.begin(), all.end());
    for (const auto& [offset, size] : all) {
      if (offset < from || (gapless && offset != from))
        return say(what + " before " + std::to_string(offset));
      from = offset + size;
    }
    return gapless ? same(from, to, "end of " + what) : from <= to || say("end of " + what);
  }

  bool space() {
    Extents nodes;
    for (const HeapBlock& a : allocated) nodes.push_back({a.node, nodeSize(a.level, 8)});
    for (const HeapBlock& f : free) nodes.push_back({f.node, nodeSize(f.level, 32)});
    uint64_t used = slHeader_;
    for (const auto& node : nodes) used += node.second;
    return same(u64(s_ + 16), used, "slUsedBytes") &&
           disjoint(nodes, false, s_ + slHeader_, s_ + slNext_, "nodes");
  }

  bool tiling() {
    Extents all;
    for (const auto* list : {&allocated, &free})
      for (const HeapBlock& block : *list) all.push_back({block.offset, block.size});
    const uint64_t start = s_ + slSpace_, end = h_ + u64(h_ + 56);
    for (size_t i = 1; i < free.size(); ++i)
      if (free[i - 1].end() == free[i].offset)
        return say("free blocks that touch at " + std::to_string(free[i].offset));
    return disjoint(all, true, start, start + ((end - start) & ~uint64_t{7}), "managed memory");
  }

  bool guards(uint64_t at, uint64_t count, const std::string& what) {
    for (uint64_t i = 0; i < count; ++i)
      if (u64(at + 8 * i) != TREL_PAD_GUARD_WORD) return say("guard word " + what);
    return true;
  }

  bool pads() {
    return std::all_of(allocated.begin(), allocated.end(), [&](const HeapBlock& block) {
      return padsOf(block) || say("pads of block " + std::to_string(block.offset));
    });
  }

  bool padsOf(const HeapBlock& block) {
    const uint64_t d = block.data, e = block.end();
    if (d < block.offset + 16 || d > e) return say("dataOffset");
    const PadShape* shape = PadShape::of(u32(d - 4));
    if (!shape) return say("pad mode");
    const uint64_t inner = shape->hasGuard ? 24 : 16, record = d - inner - 16;
    const uint64_t f = shape->hasWords ? u32(record + 8) : 0;
    const uint64_t b = shape->hasWords ? u32(record + 12) : 0;
    if (!same(d - block.offset, shape->frontSize(f), "front pad")) return false;
    if (!same(u64(d - 16), block.node, "frontTail")) return false;
    if (u32(d - 8) != TREL_PAD_FRONT_MAGIC) return say("front word");
    if (shape->hasWords &&
        (u32(record) != u32(block.node + 44) || u32(record + 4) != u32(block.node + 40)))
      return say("caller in blockRecord");
    if (!guards(d - 24, shape->hasGuard, "in front")) return false;
    if (!guards(block.offset, f, "at the block's start")) return false;
    if (!shape->back) return true;
    const uint64_t slack = d + block.requested, back = e - shape->backSize(b);
    if (slack > back) return say("requestedSize");
    if (!same(u64(e - 16), block.node, "backTail")) return false;
    if (u32(e - 8) != TREL_PAD_BACK_MAGIC || u32(e - 4) != shape->mode) return say("back words");
    if (!guards(e - inner, shape->hasGuard, "behind")) return false;
    if (!guards(e - inner - 8 * b, b, "of the back run")) return false;
    const auto isFilled = [](uint8_t byte) { return byte == 0xcc; };
    return kind_ == 1 || std::all_of(base_ + slack, base_ + back, isFilled) || say("slack");
  }

  const uint8_t* base_;
  const uint32_t kind_;
  const uint64_t h_;
  uint64_t s_ = 0, m_ = 0, slHeader_ = 0, slSpace_ = 0, slNext_ = 0;
};

inline std::string heapFault(const void* base, uint32_t kind, uint64_t h) {
  return HeapWalk(base, kind, h).fault;
}
