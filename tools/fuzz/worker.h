// Runs cases in processes that may die, and tells of each death what it was and how to see it
// again.
#pragma once

#include <functional>
#include <memory>

#include "board.h"
#include "world.h"

namespace fuzz {

struct Death {
  std::string cause;  // the same for all deaths of one cause
  std::string stack;
  Case drawn;
  uint64_t batchStart = 0;  // first seed of its batch; the case's own if that case alone does it
};

class Worker {
 public:
  Worker(uint32_t firstKey, Board* board) : firstKey_(firstKey), board_(board) {}

  const World& world();
  // Runs the cases of `count` seeds from `first` on, in one process where none dies. `step` apart.
  void runBatch(Mode mode, uint64_t first, uint64_t count, uint64_t step,
                const std::function<void(const Death&)>& tell);
  // Runs one case in a process of its own. With isLoud it shows what the library and a sanitizer
  // print. True if the process died, and then of what.
  bool runAlone(const Case& drawn, bool isLoud, Death* death);

 private:
  bool runInChild(const std::function<void(class Runner&)>& work, bool isLoud, Death* death);

  const uint32_t firstKey_;
  Board* const board_;
  std::unique_ptr<World> world_;
};

}  // namespace fuzz
