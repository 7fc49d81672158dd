// Where in an image of a segment the words lie that decide something, by class: "node.nodeSize",
// "section.IV.record.idOffset", "heap.alloc.level0". Found by walking a sound image.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "trel/layout.h"

namespace fuzz {

using Image = std::vector<uint8_t>;

struct Word {
  uint64_t offset;  // in the image
  uint32_t width;   // 4 or 8
  uint64_t origin;  // what offsets stored here count from: the node's start, or 0
  uint64_t bound;   // the size that sizes and offsets here are held against
};

using Words = std::map<std::string, std::vector<Word>>;

// What the walk cannot see from the image alone.
struct ImageMap {
  uint64_t poolOffset = 0;
  std::vector<uint64_t> nodes;  // offsets of the nodes that somebody made
};

Words findWords(const Image& image, const ImageMap& map);

uint64_t load(const void* place, uint32_t width);
void store(void* place, uint32_t width, uint64_t value);

}  // namespace fuzz
