// The 32-bit process that width_test shares a latch with: `peer KEY ROUNDS` adds 1 to the counter
// of that segment ROUNDS times, then takes the latch once more and ends holding it.

#include <stdlib.h>

#include "platsvc/ipc.h"
#include "platsvc/latch.h"
#include "width_page.h"

static_assert(sizeof(void*) == 4, "built for the other width");

int main(int count, char** arguments) {
  if (count != 3) return 1;
  const PLATIPCResID id = {PLAT_STRUCTURE_TAG,
                           static_cast<uint32_t>(strtoul(arguments[1], nullptr, 0))};
  PLATHIPCMemory memory;
  void* page = nullptr;
  if (memory.attach(&id, nullptr) != 0 || memory.getAddress(&page) != 0) return 2;
  return addUnderLatch(page, static_cast<uint32_t>(atoi(arguments[2])), nullptr) == 0 &&
                 platVLatchGet(latchOf(page)) == 0
             ? 0
             : 3;
}
