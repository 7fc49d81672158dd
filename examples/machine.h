// Figures of this machine, read from /proc.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// A number with a name: "load average, 1 min", 42, "/100".
struct Register {
  std::string label;
  std::string unit;
  int32_t value;
};

// A number of one of several alike things: of "eth0", "received".
struct Instance {
  std::string label;
  std::string unit;
  std::string id;
  int32_t value;
};

// A text: "kernel" is "6.1.0", or "/home" is "ext4 on /dev/sda1".
struct Text {
  std::string label;
  std::string value;
};

// What belongs together: cpu, memory, disks, network, processes.
struct Group {
  std::string name;
  std::vector<Register> registers;
  std::vector<Instance> instances;
  std::vector<Text> texts;
  std::vector<Text> mounts;
};

Group readHost();
Group readCpu();
Group readMemory();
Group readDisks();
Group readNetwork();

// A process that is busy: its share of one CPU in permille since the last call, and its memory.
struct Busy {
  int pid;
  std::string name;
  int32_t permille;
  int32_t residentKiB;
};
std::vector<Busy> readBusiest(size_t count);
