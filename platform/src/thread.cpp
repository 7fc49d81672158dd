// Looks at a thread by /proc/PID/status. Its line NSpid tells the ids of the process in all pid
// namespaces from that of the mounted procfs to its own. Only where it is one number do the ids
// that a thread has of itself mean the same to procfs; so it must be for the owner and for the
// caller.
#include "thread.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

namespace plat {
namespace {

class Status {
 public:
  explicit Status(const char* path) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    isThere_ = file >= 0 || errno != ENOENT;
    if (file < 0) return;
    const ssize_t length = read(file, text_, sizeof text_ - 1);
    isThere_ = length >= 0 || errno != ESRCH;
    if (length > 0) text_[length] = 0;
    close(file);
  }

  // False if the system has no such task, or hides it; true also if it could not be asked.
  bool isThere() const { return isThere_; }

  // The only id of the process; 0 if it has several, or they are not told.
  pid_t onlyId() const {
    const char* ids = field("NSpid:");
    if (!ids) return 0;
    char* end;
    const long id = strtol(ids, &end, 10);
    return *end == '\n' ? static_cast<pid_t>(id) : 0;
  }

  // A zombie, or without memory, or dumping core.
  bool hasEnded() const {
    const char* state = field("State:");
    if (!state) return false;
    const char* dumping = field("CoreDumping:");
    return *state == 'Z' || *state == 'X' || !field("VmSize:") || (dumping && *dumping == '1');
  }

 private:
  // What stands behind a name at the start of a line.
  const char* field(const char* name) const {
    const size_t length = strlen(name);
    for (const char* line = text_; line; line = strchr(line, '\n')) {
      if (*line == '\n') ++line;
      if (strncmp(line, name, length) == 0) return line + length + strspn(line + length, "\t ");
    }
    return nullptr;
  }

  bool isThere_ = true;
  char text_[4096] = {};
};

}  // namespace

bool threadHasEnded(pid_t process, pid_t thread) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/task/%d/status", process, thread);
  const Status task(path);
  if (task.isThere() && !task.hasEnded()) return false;
  // It looks so; but is it that thread that was looked at?
  snprintf(path, sizeof path, "/proc/%d/status", process);
  return Status(path).onlyId() == process && Status("/proc/self/status").onlyId() == getpid();
}

}  // namespace plat
