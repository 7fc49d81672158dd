// Threads that end while their process lives, or while its memory still stands.
#pragma once

#include <sys/types.h>

namespace plat {

// Whether a thread has surely ended, or is on its way out in the kernel, which can take long: it
// runs no more code. `process` is its process as the caller sees it, `thread` its id as it sees
// itself. False where that cannot be seen.
bool threadHasEnded(pid_t process, pid_t thread);

}  // namespace plat
