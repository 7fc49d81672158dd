// Nodes in process memory.
#pragma once

#include <gtest/gtest.h>

#include <array>

#include "platsvc/platsvc.h"
#include "section_walker.h"

// A created node, with section sizes by export bit. What the sections hold at first is no zero.
struct Node {
  SNodeCB_t* cb = nullptr;
  uint64_t size = 0, offset = 0;

  explicit Node(uint64_t exports = 0, const std::map<uint64_t, uint64_t>& sections = {}) {
    std::array<uint64_t, 64> sizes{};
    for (auto [bit, bytes] : sections) sizes[walker::slotOf(bit)] = bytes;
    EXPECT_EQ(0u, trelCreateNodeInPM(&cb, exports, sizes.data(), &size, &offset,
                                     TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION));
    memset(cb + 1, 0xa5, size - sizeof *cb);
  }
  ~Node() {
    void* block = cb;
    _platMemFree(&block, 0, 0, __FILE__, __LINE__);
  }
  Node(const Node&) = delete;

  uint32_t init(const NodeOptions_t* options = nullptr) {
    static const uint8_t id[8] = {};
    return trelInitNode(&cb, offset, 0, id, nullptr, nullptr, 0, nullptr, nullptr, options);
  }
  ExportSlot_t& slot(uint64_t bit) { return cb->exportTable[walker::slotOf(bit)]; }
  uint8_t* at(uint64_t position) { return reinterpret_cast<uint8_t*>(cb) + position; }
  uint64_t changes() {
    uint64_t counter = 0;
    EXPECT_EQ(0u, trelGetNodeReconfigCounter(cb, &counter));
    return counter;
  }
};
