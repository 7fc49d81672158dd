// A thread id is used again some day, so a thread is known by its id together with its start time,
// which procfs tells to every process alike.
#define _FILE_OFFSET_BITS 64  // inode numbers in 32-bit builds

#include "thread.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platsvc/report.h"

__thread __attribute__((tls_model("initial-exec"))) PLATThreadIdentity platThreadIdentity =
    plat::kNoIdentity;

namespace plat {
namespace {

struct TaskState {
  char letter;     // R, S, D, T, Z, ...
  uint32_t start;  // low 32 bits of the start time in clock ticks since boot, 0 if not known
  bool isExiting;  // on its way out in the kernel, which can take long: it runs no more code
};

// Of a task's flags in procfs: exiting, and killed by a signal, which may dump core first.
constexpr unsigned long kExiting = 0x4 | 0x400;

// Reads a stat file of procfs: "id (name) letter ..." with flags as the 9th field, the start time
// as the 22nd. The name may hold anything. False with errno if the file cannot be opened.
bool readTaskState(const char* path, TaskState* state) {
  *state = {0, 0, false};
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  if (file < 0) return false;
  char text[1024];
  const ssize_t length = read(file, text, sizeof text - 1);
  close(file);
  if (length <= 0) return true;
  text[length] = 0;
  const char* field = strrchr(text, ')');
  if (!field || field[1] != ' ') return true;
  field += 2;
  state->letter = *field;
  for (int number = 3; field && number < 22; ++number) {
    if (number == 9) state->isExiting = (strtoul(field, nullptr, 10) & kExiting) != 0;
    field = strchr(field, ' ');
    if (field) ++field;
  }
  if (field) state->start = static_cast<uint32_t>(strtoull(field, nullptr, 10));
  return true;
}

// Start times and thread ids mean the same to all processes of one pid and one time namespace.
// Neither 0, which marks no latch, nor the unknown space, nor that of kNoIdentity.
uint32_t namespaces() {
  struct stat pids, times;
  if (stat("/proc/self/ns/pid", &pids) != 0) return kUnknownSpace;
  if (stat("/proc/self/ns/time", &times) != 0) times.st_ino = 0;
  const uint32_t mixed =
      static_cast<uint32_t>(pids.st_ino) * 31 + static_cast<uint32_t>(times.st_ino);
  return (mixed & ~1u) | 2u;
}

// Whether procfs is mounted, and shows the process ids of the caller's own namespace.
bool procfsIsOurs() {
  char name[16] = {};
  return readlink("/proc/self", name, sizeof name - 1) > 0 && atoi(name) == getpid();
}

void forgetIdentity() { platThreadIdentity = kNoIdentity; }

__attribute__((constructor)) void watchForks() { pthread_atfork(nullptr, nullptr, forgetIdentity); }

}  // namespace

const PLATThreadIdentity& threadIdentity() {
  if (platThreadIdentity.owner == kNoIdentity.owner) {
    TaskState state;
    readTaskState("/proc/thread-self/stat", &state);
    platThreadIdentity.space = namespaces();
    platThreadIdentity.owner =
        uint64_t{state.start} << 32 | static_cast<uint32_t>(syscall(SYS_gettid));
  }
  return platThreadIdentity;
}

bool threadHasEnded(uint64_t owner) {
  const long thread = static_cast<long>(owner & kThreadMask);
  const uint32_t start = static_cast<uint32_t>(owner >> 32);
  if (thread == 0) return true;  // never written by an owner
  if (!procfsIsOurs()) return false;
  char path[32];
  snprintf(path, sizeof path, "/proc/%ld/stat", thread);
  TaskState state;
  // A mount option can hide the tasks of other users, but not their existence from a signal.
  if (!readTaskState(path, &state)) return syscall(SYS_tkill, thread, 0) != 0 && errno == ESRCH;
  if (state.isExiting || state.letter == 'Z' || state.letter == 'X' || state.letter == 'x')
    return true;
  return start != 0 && state.start != 0 && state.start != start;
}

}  // namespace plat

uint32_t platThreadID() { return static_cast<uint32_t>(plat::threadIdentity().owner); }
