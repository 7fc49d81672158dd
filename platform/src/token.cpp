// The life token: a private segment of one page, attached and marked for removal at once. The
// kernel ends it when the last attachment goes, and it has but one, which children do not inherit.
// So its id stands for one image of one process, and shmctl() tells everybody in the IPC namespace
// whether that is still there.
#define _FILE_OFFSET_BITS 64  // inode numbers in 32-bit builds

#include "token.h"

#include <errno.h>
#include <limits.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platsvc/fork.h"
#include "platsvc/report.h"
#include "thread.h"

namespace plat {
namespace {

const uint32_t kNoKey = 0;

// No latch word: an owner without a token.
constexpr PLATThreadIdentity kNobody = {1, &kNoKey};

}  // namespace
}  // namespace plat

__thread __attribute__((tls_model("initial-exec"))) PLATThreadIdentity platThreadIdentity =
    plat::kNobody;

namespace plat {
namespace {

constexpr size_t kPage = 4096;

// What holds for all threads of this process, in a page that the kernel wipes in a forked child. A
// wiped page is not filled again: threads that know it would take it for their own process's.
struct Process {
  uint32_t key;  // of PLATThreadIdentity; 0: wiped
  uint32_t space;
  uint32_t token;
  time_t made;
};

Process* process = nullptr;
uint8_t processLatch = 0;  // held while `process` changes, and by whoever forks

// The number of a thread, counted in each process modulo what a latch word has room for; 0: none
// yet.
__thread __attribute__((tls_model("initial-exec"))) uint32_t threadNumber;
uint32_t lastThreadNumber = 0;

// What the system tells of a token; all 0 if that it stands is all. False: it has ended.
bool find(uint32_t token, shmid_ds* found) {
  const int id = static_cast<int>(token - 1);
  if (shmctl(id, IPC_STAT, found) != 0) {
    if (errno == EINVAL || errno == EIDRM) return false;
    // Another user's.
    if (shmctl(id, SHM_STAT_ANY, found) != id) *found = {};
    return true;
  }
  return true;
}

// Makes a token. 0 if the system has none left.
uint32_t makeToken(time_t* made) {
  const int id = shmget(IPC_PRIVATE, kPage, IPC_CREAT | 0600);
  if (id < 0) return 0;
  void* page = shmat(id, nullptr, 0);
  shmctl(id, IPC_RMID, nullptr);
  if (page == reinterpret_cast<void*>(-1)) return 0;
  shmid_ds found;
  if (madvise(page, kPage, MADV_DONTFORK) != 0 || shmctl(id, IPC_STAT, &found) != 0 ||
      id == INT_MAX) {
    shmdt(page);
    return 0;
  }
  *made = found.shm_ctime;
  return static_cast<uint32_t>(id) + 1;
}

Process* makeProcess() {
  void* page = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return nullptr;
  madvise(page, kPage, MADV_WIPEONFORK);
  Process* made = static_cast<Process*>(page);
  made->space = currentSpace();
  made->token = makeToken(&made->made);
  if (made->token == 0) {
    munmap(page, kPage);
    return nullptr;
  }
  __atomic_store_n(&made->key, ~latchMark(made->space), __ATOMIC_RELEASE);
  return made;
}

// Forks. Nobody makes a token meanwhile, lest a child inherit one before it is kept from children.
constexpr uint32_t kLongestForkMs = 1000;
__thread __attribute__((tls_model("initial-exec"))) bool tookLatch;

void prepareFork() { tookLatch = platByteLatchGetWithin(&processLatch, kLongestForkMs) == 0; }

void endFork() {
  if (tookLatch) platLinuxIA32AtomicReleaseLock8Internal(&processLatch);
}

// The one thread of the child is all that knows the page.
void beginChild() {
  processLatch = 0;
  platThreadIdentity = kNobody;
  if (process) munmap(process, kPage);
  process = nullptr;
}

__attribute__((constructor)) void watchForks() { platAtFork(prepareFork, endFork, beginChild); }

}  // namespace

uint32_t currentSpace() {
  struct stat found;
  if (stat("/proc/thread-self/ns/ipc", &found) != 0) return kUnknownSpace;
  return static_cast<uint32_t>(found.st_ino);
}

uint32_t enrol() {
  if (isEnrolled()) return 0;
  if (platLinuxIA32AtomicTryLock8Internal(&processLatch)) platLockGetConflict(&processLatch);
  if (!process || process->key == 0) process = makeProcess();
  if (process) {
    if (threadNumber == 0)
      threadNumber = lastThreadNumber = lastThreadNumber % (kCountMask + 1) + 1;
    platThreadIdentity.owner =
        uint64_t{process->token} << 32 | uint64_t{threadNumber - 1} << kCountShift | platThreadID();
    platThreadIdentity.key = &process->key;
  }
  const int error = errno;
  platLinuxIA32AtomicReleaseLock8Internal(&processLatch);
  if (isEnrolled()) return 0;
  // Latches tell their callers by codes that cannot say why.
  static uint8_t isReported = 0;
  if (!__atomic_exchange_n(&isReported, 1, __ATOMIC_RELAXED))
    platAssertFailed(rcdErrorGetDescription(PLAT_RC_NO_TOKEN), "errno",
                     static_cast<uint32_t>(error));
  return PLAT_RC_NO_TOKEN;
}

uint32_t tokenSpace() { return process->space; }

bool seesItsToken() {
  shmid_ds found;
  return find(process->token, &found) && (found.shm_perm.mode & SHM_DEST) &&
         found.shm_cpid == getpid() && found.shm_ctime == process->made;
}

bool ownerHasEnded(uint64_t owner, bool thorough, uint32_t* processId) {
  shmid_ds found;
  if (processId) *processId = 0;
  if (!find(tokenOf(owner), &found)) return true;
  // An id that came back to a segment of another kind.
  if (found.shm_perm.mode != 0 && !(found.shm_perm.mode & SHM_DEST)) return true;
  const pid_t id = found.shm_cpid;
  if (processId) *processId = static_cast<uint32_t>(id);
  if (id == getpid() && isEnrolled() && tokenOf(owner) == process->token &&
      syscall(SYS_tgkill, id, threadOf(owner), 0) != 0 && errno == ESRCH)
    return true;
  return thorough && id != 0 && threadHasEnded(id, static_cast<pid_t>(threadOf(owner)));
}

}  // namespace plat

uint32_t platThreadID() { return static_cast<uint32_t>(syscall(SYS_gettid)); }
