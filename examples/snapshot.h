// Everything that a status node holds, read by enumeration alone.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "trel/trel.h"

struct Snapshot {
  struct Value {
    std::string label, unit, id;
    int32_t value;
  };

  std::string title;
  int32_t updates = 0;
  std::vector<Value> registers;
  std::vector<Value> instances;
  std::vector<std::pair<std::string, std::string>> texts;
  std::vector<std::pair<std::string, std::string>> mounts;

  // 0 or a return code; a failure leaves what was read so far.
  uint32_t read(SNodeCB_t* node);

 private:
  uint32_t readOnce(SNodeCB_t* node);
};
