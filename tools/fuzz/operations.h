// Every exported operation that reaches a segment, with arguments that a careful caller would give.
#pragma once

#include <string>
#include <vector>

#include "stage.h"

namespace fuzz {

// Reads leave the segment as it is, writes leave a tree to go on with, ends may take it apart.
// Doors are ways to attach: they need no attachment.
enum class Phase { door, read, write, end };

struct Operation {
  const char* name;
  Phase phase;
  void (*run)(Stage& s);
};

using Operations = std::vector<Operation>;

Operations nodeOperations();
Operations propertyOperations();
Operations storageOperations();
Operations treeOperations();
Operations segmentOperations();
Operations allOperations();

// Operations of functions.def that neither have a row nor are known to touch no segment.
std::vector<std::string> missingOperations();

// A row: one call, or the work around it.
#define CALL(phase, name, ...)                                         \
  {                                                                    \
#name, Phase::phase, [](Stage & s) { (void)s, name(__VA_ARGS__); } \
  }
#define WORK(phase, name, ...) \
  { #name, Phase::phase, [](Stage & s) __VA_ARGS__ }

}  // namespace fuzz
