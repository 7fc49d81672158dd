// What both programs share: the key, the options, a clean end on Ctrl-C.
#pragma once

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

inline volatile std::sig_atomic_t stopped = 0;

inline void stopOnSignals() {
  struct sigaction action = {};
  action.sa_handler = [](int) { stopped = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

struct Options {
  uint32_t key = 0;
  double seconds = 0;    // 0: until stopped
  bool plain = false;    // no colours, no refresh in place
  bool remove = false;   // remove the segment in the end
  bool network = false;  // publish the network's part

  bool parse(int argc, char** argv, const char* usage) {
    for (int i = 1; i < argc; ++i) {
      if (!std::strcmp(argv[i], "--plain"))
        plain = true;
      else if (!std::strcmp(argv[i], "--remove"))
        remove = true;
      else if (!std::strcmp(argv[i], "--network"))
        network = true;
      else if (!std::strcmp(argv[i], "--seconds") && i + 1 < argc)
        seconds = std::atof(argv[++i]);
      else if (key == 0)
        key = static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 0));
      else
        key = 0, i = argc;
    }
    if (key == 0) std::fputs(usage, stderr);
    return key != 0;
  }
};
