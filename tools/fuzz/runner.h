// Runs cases in this process, one after the other, each from the same bytes.
#pragma once

#include "board.h"
#include "operations.h"

namespace fuzz {

class Runner {
 public:
  Runner(const World& world, Board* board);
  ~Runner();
  Runner(const Runner&) = delete;

  // Does not come back from a finding: it stands on the board then.
  void run(const Case& drawn);

 private:
  void attach(Stage& s, Mode mode);
  void detach(Stage& s);
  void operate(Stage& s, Phase phase);
  void startRace(const std::vector<Patch>& patches);
  void makeFlipper();

  const World& world_;
  Board* const board_;
  const Operations operations_ = allOperations();
  uint8_t* hole_ = nullptr;  // where the victim is mapped, amid pages without access
  size_t holeSize_ = 0;
  int flipper_ = 0;
  unsigned slow_ = 0;  // operations of this case that waited long
};

}  // namespace fuzz
