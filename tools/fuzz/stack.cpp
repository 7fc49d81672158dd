#include "stack.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <vector>

namespace fuzz {
namespace {

Board* noted;

void note(int signal) {
  noted->finding.frameCount = backtrace(noted->finding.frames, 32);
  noted->finding.signal = signal;
  _exit(kFound);
}

struct Frame {
  std::string function, place;
  bool isOfLibrary = false;
};

Frame resolve(void* address) {
  Dl_info info = {};
  link_map* map = nullptr;
  if (!dladdr1(address, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) || !map) return {};
  char command[512], function[256] = "", place[256] = "";
  // The call lies before the address to which it returns.
  const auto offset = reinterpret_cast<uintptr_t>(address) - map->l_addr - 1;
  snprintf(command, sizeof command, "addr2line -Cfe '%s' 0x%zx 2>/dev/null", info.dli_fname,
           static_cast<size_t>(offset));
  if (FILE* pipe = popen(command, "r")) {
    if (!fgets(function, sizeof function, pipe) || !fgets(place, sizeof place, pipe))
      function[0] = place[0] = 0;
    pclose(pipe);
  }
  const auto line = [](const char* text) { return std::string(text, strcspn(text, "\n")); };
  Frame frame{line(function), line(place), false};
  frame.isOfLibrary = strstr(info.dli_fname, "libtrel") || strstr(info.dli_fname, "libplatsvc");
  if (frame.function == "??" && info.dli_sname) frame.function = info.dli_sname;
  static const std::string kUnnamed = "(anonymous namespace)::";
  for (size_t at; (at = frame.function.find(kUnnamed)) != std::string::npos;)
    frame.function.erase(at, kUnnamed.size());
  const size_t arguments = frame.function.find('(');
  if (arguments != std::string::npos && arguments > 0) frame.function.resize(arguments);
  const size_t folder = frame.place.rfind("/src/");
  if (folder != std::string::npos) frame.place.erase(0, folder + 1);
  return frame;
}

const Frame& frameOf(void* address) {
  static std::map<void*, Frame> known;
  const auto found = known.find(address);
  return found != known.end() ? found->second : known[address] = resolve(address);
}

std::string nameOf(int signal) {
  if (signal == SIGALRM) return "hang";
  return sigabbrev_np(signal) ? "SIG" + std::string(sigabbrev_np(signal)) : "signal";
}

}  // namespace

void noteSignals(Board* board) {
  noted = board;
  void* warm[2];
  backtrace(warm, 2);  // its first call allocates
  static char stack[1 << 16];
  const stack_t other = {stack, 0, sizeof stack};
  sigaltstack(&other, nullptr);
  struct sigaction action = {};
  action.sa_handler = note;
  action.sa_flags = SA_ONSTACK | SA_NODEFER;
  for (int signal : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGALRM, SIGTRAP})
    sigaction(signal, &action, nullptr);
}

void endWith(Board* board, const char* text) {
  snprintf(board->finding.text, sizeof board->finding.text, "%s", text);
  board->finding.signal = 0;
  _exit(kFound);
}

std::string stackOf(const Finding& finding) {
  std::string text;
  for (int i = 0; i < finding.frameCount; ++i) {
    const Frame& frame = frameOf(finding.frames[i]);
    if (frame.isOfLibrary) text += "    " + frame.function + "  " + frame.place + "\n";
  }
  return text;
}

std::string causeOf(const Finding& finding, const char* operation) {
  if (!finding.signal) return std::string(finding.text) + ": " + operation;
  std::string cause = nameOf(finding.signal);
  int shown = 0;
  for (int i = 0; i < finding.frameCount && shown < 3; ++i) {
    const Frame& frame = frameOf(finding.frames[i]);
    if (!frame.isOfLibrary) continue;
    cause += (shown++ ? " < " : " in ") + frame.function;
  }
  return shown ? cause : cause + " in the fuzzer, at what " + operation + " gave";
}

}  // namespace fuzz
