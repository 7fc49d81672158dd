// The segments that the cases are about: a tree with every kind of section, in the victim and in a
// second segment that it leads to, and a sound neighbour beside them. Made once by a process of its
// own; each case starts from the same bytes.
#pragma once

#include <unistd.h>

#include <array>

#include "case.h"
#include "trel/trel.h"

namespace fuzz {

constexpr uint64_t kIdRoom = 16, kValueRoom = 24, kPropertyIdRoom = 8;
constexpr uint64_t kTags = 4;  // properties of a kind have the tags 1 to 4

// Nodes of the victim, by their place in World::nodes.
enum : size_t { kHashed, kFlat, kMiddle, kLeaf, kNodes };

// Where records of tag 1 lie in a node, from the segment's base: what others found before the
// damage.
struct Held {
  uint64_t r, v, ir, iv, baseR, baseV;
};

// A System V segment, mapped by the fuzzer itself, apart from the library.
struct RawSegment {
  PLATIPCResID key = {};
  uint8_t* bytes = nullptr;
  Image image;  // as it is when sound

  void adopt(uint32_t keyWord);  // of a segment that is there
  void restore() const;
  void remove() const;
};

struct World {
  explicit World(uint32_t firstKey);  // it owns sixteen keys from there on
  ~World();
  World(const World&) = delete;

  RawSegment victim, other, neighbour;
  ImageMap map;
  std::array<uint64_t, kNodes> nodes{};  // offsets
  std::array<Held, 2> held{};            // of kHashed and kFlat
  Words words;

  PLATIPCResID freeKey(uint32_t n) const { return {PLAT_STRUCTURE_TAG, firstFreeKey_ + n}; }
  void removeFreeKeys() const;
  // For a process beside others that work on the same world: free keys of its own.
  void takeOwnFreeKeys() { firstFreeKey_ = 0x60000000u + static_cast<uint32_t>(getpid()) * 16; }

 private:
  const uint32_t firstKey_;
  uint32_t firstFreeKey_ = firstKey_ + 4;
};

inline const uint8_t* asBytes(const char* text) { return reinterpret_cast<const uint8_t*>(text); }
inline const uint8_t* idOf(const uint64_t& tag) { return reinterpret_cast<const uint8_t*>(&tag); }

}  // namespace fuzz
