// Status segments for tests. Whatever way a test ends, its segments are removed.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>
#include <tuple>
#include <vector>

#include "platsvc/platsvc.h"
#include "trel/trel.h"

// A finding of a sanitizer ends the process by a signal that can be caught.
extern "C" {
__attribute__((used)) inline const char* __asan_default_options() { return "abort_on_error=1"; }
__attribute__((used)) inline const char* __ubsan_default_options() { return "abort_on_error=1"; }
}

// The rows of a table, for a loop over [a, b, ...].
template <class... Columns>
using Rows = std::vector<std::tuple<Columns...>>;

// A key that no other running test has. The segment of that key is removed at the end, and also
// when the process dies of a signal that can be caught.
class Key {
 public:
  Key() : id_{PLAT_STRUCTURE_TAG, 0x40000000u | static_cast<uint32_t>(getpid()) << 6 | next()} {
    static const bool catching = catchSignals();
    (void)catching;
    remove(id_.key);
  }
  ~Key() {
    if (getpid() == owner()) remove(id_.key);
  }
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;

  operator const PLATIPCResID*() const { return &id_; }
  const PLATIPCResID& id() const { return id_; }
  bool exists() const { return shmget(static_cast<key_t>(id_.key), 0, 0) >= 0; }
  void remove() const { remove(id_.key); }

 private:
  static constexpr uint32_t kKeys = 64;

  static pid_t owner() {
    static const pid_t pid = getpid();
    return pid;
  }
  static uint32_t next() {
    owner();
    static uint32_t count = 0;
    return count++ % kKeys;
  }
  static void remove(uint32_t key) {
    const int id = shmget(static_cast<key_t>(key), 0, 0);
    if (id >= 0) shmctl(id, IPC_RMID, nullptr);
  }
  static bool catchSignals() {
    for (int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGTERM, SIGINT, SIGALRM})
      ::signal(signal, [](int received) {
        const uint32_t keys = 0x40000000u | static_cast<uint32_t>(getpid()) << 6;
        for (uint32_t i = 0; i < kKeys; ++i) remove(keys | i);
        ::signal(received, SIG_DFL);
        raise(received);
      });
    return true;
  }

  PLATIPCResID id_;
};

// One use of the library.
struct Life {
  Life() {
    EXPECT_EQ(0u, TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION));
  }
  ~Life() { EXPECT_EQ(0u, TRELCleanup(2)); }
};

class Library : public testing::Test {
  const Life life_;
};

// The start of the library's life in a forked child. The parent's attachments are none of this
// life, but their records and mappings stay good for the test's own use.
inline void beginAnew() {
  trelAPIInitRefCount = 0;
  trelGARefCount = 0;
  TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION);
}

// Another process, that runs work, in a life of its own or in its parent's. It is gone when this
// object is, or its parent.
class Child {
 public:
  template <class Work>
  explicit Child(Work&& work, bool anew = true) : pid_(fork()) {
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (anew) beginAnew();
    work();
    fflush(nullptr);
    _exit(testing::Test::HasFailure());
  }
  Child(const Child&) = delete;
  ~Child() { end(); }

  pid_t id() const { return pid_; }
  void signal(int number) const { kill(pid_, number); }
  bool isRunning() {
    ended_ = ended_ || waitpid(pid_, &status_, WNOHANG) != 0;
    return !ended_;
  }
  // 0, or how it failed.
  int wait() {
    while (isRunning()) usleep(100);
    return status_;
  }
  void end() {
    if (!isRunning()) return;
    signal(SIGKILL);
    wait();
  }

 private:
  pid_t pid_;
  int status_ = 0;
  bool ended_ = false;
};

template <class Work>
int inOtherProcess(Work&& work) {
  return Child(work).wait();
}

// What this process shares with its children; zero at first.
template <class T>
class Shared {
 public:
  Shared()
      : value_(new (mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1,
                         0)) T{}) {}
  ~Shared() { munmap(value_, sizeof(T)); }
  Shared(const Shared&) = delete;

  T& operator*() const { return *value_; }
  T* operator->() const { return value_; }

 private:
  T* const value_;
};

// What work() writes to the standard output.
template <class Work>
std::string printed(Work&& work) {
  testing::internal::CaptureStdout();
  work();
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

// The tree under a key, as a reader finds it.
struct Tree {
  ShmSegInfo_t* info = nullptr;
  SNodeCB_t* node = nullptr;
  TopNodeInfo_t top{};

  uint32_t connect(const PLATIPCResID* key) {
    return trelConnectToATree(&info, &node, &top, key, 0, nullptr, nullptr);
  }
  uint32_t attach(const PLATIPCResID* key, const ShmDomainParam_t* param = nullptr,
                  uintptr_t address = 0) {
    return trelAttachToTopNode(&info, &node, &top, key, address, param, nullptr);
  }
};

// A status segment of this process, deleted at the end.
struct Segment {
  Key key;
  ShmSegInfo_t* info = nullptr;

  explicit Segment(uint32_t size = 0x100000, const ShmDomainParam_t* param = nullptr,
                   uintptr_t address = 0) {
    EXPECT_EQ(0u, trelGetProtectedStatusSegment(&info, size, key, address, 0, param, nullptr));
  }
  ~Segment() {
    if (info) {
      EXPECT_EQ(0u, trelDeleteStatusSegment(&info, 4, 2, 2));
    }
  }

  ShmDomainHandle_t* domain() const { return info->shmDomainHandle; }
  ShmPoolHandle_t* pool() const { return info->shmPoolHandle; }
  HeapHeader_t* heap() const {
    return reinterpret_cast<HeapHeader_t*>(static_cast<uint8_t*>(domain()->base) +
                                           domain()->heapOffset);
  }
  uint64_t offsetOf(const void* address) const {
    return static_cast<uint64_t>(static_cast<const uint8_t*>(address) -
                                 static_cast<const uint8_t*>(domain()->base));
  }
  ShmPoolInfo_t poolInfo() const {
    ShmPoolInfo_t found{};
    EXPECT_EQ(0u, trelGetShmPoolInfo(pool(), &found));
    return found;
  }
  uint32_t attachCount() const {
    uint32_t count = 0;
    EXPECT_EQ(0u, trelGetShmAttachRefCount(info, &count));
    return count;
  }

  // An active node with sections of these sizes, that of the identifier first.
  SNodeCB_t* makeActive(uint64_t exports, std::array<uint64_t, 64> sizes, uint64_t tag,
                        const std::string& id, const uint8_t* record24 = nullptr,
                        const HdmModuleRecord_t* module = nullptr,
                        const NodeOptions_t* options = nullptr) const {
    SNodeCB_t* node = nullptr;
    uint64_t size = 0, offset = 0;
    SNodeInfo_t none{}, *parent = nullptr;
    EXPECT_EQ(0u, trelCreateNode(info, &node, exports, sizes.data(), &size, &offset));
    EXPECT_EQ(offsetOf(node), offset);
    EXPECT_EQ(0u,
              trelInitNode(&node, offset, id.size(), reinterpret_cast<const uint8_t*>(id.data()),
                           &none, nullptr, sizes[0] - 16, record24, module, options));
    if (exports & TREL_EXPORT_PARENT) {
      EXPECT_EQ(0u, trelGetParentNodeLocation(node, &parent));
      EXPECT_EQ(offsetOf(parent), +parent->selfOffset);
    }
    EXPECT_EQ(0u, trelSetNodeTag(node, tag, 0));
    EXPECT_EQ(0u, trelActivateNode(&node));
    return node;
  }
  SNodeCB_t* makeNode(uint64_t tag) const {
    return makeActive(TREL_EXPORT_ID, {16 + 64}, tag, "node");
  }
  void publish(const SNodeCB_t* node) const {
    EXPECT_EQ(0u, trelPutTopNodeInfoIntoDomainHeader(domain(), node->tag, node->nodeOffset,
                                                     static_cast<uint32_t>(pool()->poolOffset)));
  }
  // A record in process memory that names a node of the segment `of` in terms of this one.
  SNodeInfo_t recordOf(const SNodeCB_t* node, const Segment& of) const {
    SegIdentity_t* entry = nullptr;
    EXPECT_EQ(0u, trelFindAttachSegInfoNodeInLList(pool(), &of.info->identity, &entry));
    if (!entry) {
      EXPECT_EQ(0u, trelInsertAttachSegInfoNodeIntoLList(pool(), &of.info->identity, &entry));
    }
    const uint64_t base = reinterpret_cast<uintptr_t>(domain()->base);
    return {node->nodeOffset, node->tag, 0, 0, offsetOf(entry), 0, base};
  }
};
