// What a process that runs cases shows to the one that watches it, in memory that both share.
#pragma once

#include <atomic>
#include <cstdint>

namespace fuzz {

struct Finding {
  int signal;  // 0: none, or one told by text alone
  char text[160];
  void* frames[32];
  int frameCount;
};

// Words that another process flips between two values.
struct Race {
  struct Flip {
    uint64_t offset, sound, damaged;
    uint32_t width;
  };
  std::atomic<uint32_t> count;
  Flip flips[16];
};

struct Board {
  std::atomic<uint64_t> cases, operations;
  std::atomic<uint64_t> seed;          // of the case under way
  std::atomic<const char*> operation;  // and what it is doing
  std::atomic<uint32_t> isWorldGone;   // the segments have to be made anew
  Finding finding;
  Race race;
};

}  // namespace fuzz
