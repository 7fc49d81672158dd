// Where a process came to its end: noted by the one that ends, told by another.
#pragma once

#include <string>

#include "board.h"

namespace fuzz {

// From now on a signal that would end this process notes its stack on the board, and ends it by
// _exit(kFound).
constexpr int kFound = 77;
void noteSignals(Board* board);
// Ends this process with a finding of the fuzzer's own.
[[noreturn]] void endWith(Board* board, const char* text);

// One line a frame: function and place in the source.
std::string stackOf(const Finding& finding);
// What findings of one cause have in common: the signal and the innermost functions of the library.
std::string causeOf(const Finding& finding, const char* operation);

}  // namespace fuzz
