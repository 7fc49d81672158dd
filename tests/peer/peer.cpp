// The 32-bit process that latch_test shares a page with: `peer FD ROUNDS` adds 1 to the counter of
// that page ROUNDS times, then takes the latch once more and ends holding it.
#include <stdlib.h>
#include <sys/mman.h>

#include "platsvc/latch.h"

static_assert(sizeof(void*) == 4, "built for the other width");

int main(int count, char** arguments) {
  if (count != 3) return 1;
  void* const page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, atoi(arguments[1]), 0);
  if (page == MAP_FAILED) return 2;
  void* const cell = static_cast<uint8_t*>(page) + 20;
  volatile uint32_t* const counter = static_cast<uint32_t*>(page) + 256;
  for (int rounds = atoi(arguments[2]); rounds > 0; --rounds) {
    if (plat::latchGet(cell, nullptr) != 0) return 3;
    const uint32_t before = *counter;
    *counter = before + 1;
    if (plat::latchRelease(cell) != 0) return 4;
  }
  return platVLatchGet(cell) == 0 ? 0 : 5;
}
