// One case: when the damage is done, and which words become what. A case is drawn from a seed, and
// can be written and read as text:
//
//   after 4711 node.nodeSize#2=huge slot.R.offset#0=0x1234
//
// that is the mode, the seed (of the operations' order and arguments), and the changes. #2 counts
// the words of a class; without it it is the first. What a word becomes is a number or one of the
// names in case.cpp. The word "truncated" stands for the size of the whole segment.
#pragma once

#include <string>
#include <vector>

#include "words.h"

namespace fuzz {

// Repeatable, and quick to start anew for each case.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed * 0x9e3779b97f4a7c15 + 1) {}
  uint64_t next();
  uint64_t below(uint64_t bound) { return next() % bound; }

 private:
  uint64_t state_;
};

enum class Mode { before, after, race };

struct Change {
  std::string word;  // class
  uint64_t index = 0;
  std::string value;  // a number, or a name
};

struct Case {
  Mode mode = Mode::after;
  uint64_t seed = 0;
  std::vector<Change> changes;
};

// A change worked out for an image.
struct Patch {
  Word word;
  uint64_t value;
};

const char* nameOf(Mode mode);
Case drawCase(const Words& words, Mode mode, uint64_t seed);
std::string textOf(const Case& drawn);
// Throws std::runtime_error for a text that is none, or names no word.
Case parseCase(const std::string& text);
std::vector<Patch> patchesOf(const Case& drawn, const Words& words, const Image& image);
// Bytes of the segment that are to be left, or all of them.
uint64_t sizeLeft(const Case& drawn, uint64_t size);

}  // namespace fuzz
