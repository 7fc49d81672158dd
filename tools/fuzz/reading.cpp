#include "reading.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>

#include "operations.h"
#include "platsvc/report.h"

namespace fuzz {
namespace {

constexpr uint64_t kSeeds = 4;  // so that each kind of node is met
constexpr size_t kAtOnce = 32;  // they mostly wait
constexpr int kAttempts = 3;    // of what took too long: the machine may be busy
// Milliseconds that a call may take, by whether it may wait for a writer.
constexpr long kLongest = 300, kAtOnceMs = 100;

enum class State { sound, busy, dead };
const char* const kStates[] = {"sound", "a writer inside", "a writer died inside"};

// What takes a latch whoever calls it: what follows it in a row falls away.
const std::set<std::string> kLatching = {"trelLatchShmDomain", "trelLatchShmPool",
                                         "trelEnterCriticalSectionBeforeRead"};

// What connects for writing by itself.
const std::set<std::string> kConnecting = {"trelFreeShmDomain", "trelDisconnectFromShmDomain"};

// What changes the process, a segment of its own, or what the kernel keeps.
const std::set<std::string> kElsewhere = {
    "trelCreateShmDomain",         "trelGetProtectedStatusSegment", "trelAuthorizeStatusSegment",
    "trelDetachFromNode",          "trelDetachFromTopNode",         "trelDetachStatusSegment",
    "trelUpdateShmAttachRefCount", "trelConnectToStorageHeap",      "trelDisconnectFromStorageHeap",
    "trelDisconnectFromShmPool"};

// What hands out places in process memory, or the time.
const std::set<std::string> kOwnOuts = {"trelCopyNode", "trelIsStillBeingUpdated"};

struct Call {
  char name[56];
  uint32_t code;
  int32_t ms;

  bool isRefused() const { return code == TREL_RC_READING_ONLY; }
};
using Calls = std::vector<Call>;

// The calls of a row, as the flow trace tells of them.
Calls calls;
int depth;
std::chrono::steady_clock::time_point begun;

void note(const char* line) {
  Call call{};
  char event[16];
  if (sscanf(line, "%*u %55s %15s %x", call.name, event, &call.code) < 2) return;
  const auto now = std::chrono::steady_clock::now();
  if (event == std::string("entry") && depth++ == 0) begun = now;
  if (event != std::string("exit") || --depth != 0) return;
  call.ms = static_cast<int32_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(now - begun).count());
  calls.push_back(call);
}

class Sweep {
 public:
  explicit Sweep(uint32_t firstKey)
      : firstKey_(firstKey), world_(std::make_unique<World>(firstKey)) {
    const size_t size = world_->victim.image.size();
    void* const room =
        mmap(nullptr, 2 * size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (room == MAP_FAILED) throw std::runtime_error("no room for the victim");
    munmap(room, 2 * size);
    place_ = (reinterpret_cast<uintptr_t>(room) + size) & -uintptr_t{0x8000};
  }

  bool run() {
    for (const State state : {State::sound, State::busy, State::dead}) {
      state_ = state;
      const pid_t writer = state == State::sound ? 0 : enterAsWriter();
      image_.assign(world_->victim.bytes, world_->victim.bytes + world_->victim.image.size());
      for (size_t row = 0; row < operations_.size(); ++row)
        for (uint64_t seed = 1; seed <= kSeeds && isSwept(operations_[row]); ++seed)
          start(row, seed);
      while (running_) awaitOne();
      if (writer && state == State::busy) kill(writer, SIGKILL), waitpid(writer, nullptr, 0);
    }
    printf("%zu rows, %zu runs for reading only, %zu findings\n", operations_.size(), runs_,
           findings_);
    return findings_ == 0;
  }

 private:
  static bool isSwept(const Operation& row) {
    return row.phase != Phase::door && kConnecting.count(row.name) == 0;
  }

  // Somebody is inside each node of the victim, and changes its heaps.
  pid_t enterAsWriter() {
    world_->victim.restore();
    if (!seg_) attach(true);
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("pipe");
    const pid_t writer = fork();
    if (writer == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      trelDetachStatusSegment(&seg_, 2);
      TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION);
      attach(false);
      Stage s(*world_, 1, false);
      s.useSegment(seg_);
      bool isIn = trelLatchShmDomain(s.domain) == 0 && trelLatchShmPool(s.pool) == 0;
      for (const uint64_t offset : world_->nodes) {
        auto* node = reinterpret_cast<SNodeCB_t*>(s.base + offset);
        isIn &= trelEnterCriticalSectionBeforeWrite(node, &node->nodeLatchArea) == 0;
      }
      for (const uint64_t offset : {uint64_t{0}, world_->map.poolOffset})
        asideOf(s.base + offset)->version |= 1;
      if (isIn && write(ends[1], "", 1) == 1 && state_ == State::busy) pause();
      _exit(0);
    }
    char ready;
    close(ends[1]);
    if (read(ends[0], &ready, 1) != 1) throw std::runtime_error("no writer");
    close(ends[0]);
    if (state_ == State::dead) waitpid(writer, nullptr, 0);
    return writer;
  }

  // Who may write may have removed it.
  void makeWorldAnew() {
    awaitOne();
    world_->removeFreeKeys();
    for (const RawSegment* segment : {&world_->victim, &world_->other}) {
      segment->restore();
      if (shmget(static_cast<key_t>(segment->key.key), 0, 0) >= 0) continue;
      world_.reset();
      world_ = std::make_unique<World>(firstKey_);
      image_ = world_->victim.image;
      return;
    }
  }

  static HeapAside_t* asideOf(uint8_t* heap) {
    uint64_t userArea = 0, header = 0;
    trelGetUserAppAreaSize(heap, 0, &userArea);
    trelGetHHeaderSize(userArea, &header);
    return reinterpret_cast<HeapAside_t*>(heap + header - sizeof(ExclusiveLatch_t) +
                                          offsetof(ExclusiveLatch_t, latch) + PLAT_LATCH_BYTES);
  }

  void attach(bool forReading) {
    const auto connect = forReading ? trelConnectToATreeForReading : trelConnectToATree;
    SNodeCB_t* node = nullptr;
    TopNodeInfo_t top;
    TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION);
    seg_ = nullptr;
    if (const uint32_t rc =
            connect(&seg_, &node, &top, &world_->victim.key, place_, nullptr, nullptr))
      throw std::runtime_error(trelPrintrc(rc));
    if (trelFindNodeSoft(&found_, node, 2, 4, asBytes("flat"), 0)) throw std::runtime_error("find");
  }

  void leave() {
    trelDetachStatusSegment(&seg_, 2);
    TRELCleanup(2);
    world_->other.restore();
  }

  // A process of its own: a fault ends no more than this run.
  void start(size_t row, uint64_t seed) {
    while (running_ >= (state_ == State::sound ? 1 : kAtOnce)) awaitOne();
    fflush(stdout);
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("pipe");
    ++running_, ++runs_;
    const pid_t child = fork();
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      alarm(30);
      const int report = dup(STDOUT_FILENO), nowhere = open("/dev/null", O_WRONLY);
      dup2(nowhere, STDOUT_FILENO);
      dup2(nowhere, STDERR_FILENO);
      close(ends[0]);
      std::string finding;
      world_->takeOwnFreeKeys();
      try {
        finding = findingOf(row, seed, ends[1]);
      } catch (const std::exception& error) {
        finding = error.what();
      }
      world_->removeFreeKeys();
      if (finding.empty()) _exit(0);
      tell(report, operations_[row], seed, finding);
      _exit(1);
    }
    under_[child] = {row, seed};
    close(ends[1]);
    if (state_ == State::sound) {
      Call call;
      while (read(ends[0], &call, sizeof call) == sizeof call)
        answers_[{row, seed}].push_back(call);
    }
    close(ends[0]);
    if (state_ == State::sound) makeWorldAnew();
  }

  void awaitOne() {
    int status = 0;
    const auto run = under_.find(wait(&status));
    if (run == under_.end()) return;
    --running_;
    findings_ += status != 0;
    if (WIFSIGNALED(status))
      tell(STDOUT_FILENO, operations_[run->second.first], run->second.second,
           "signal " + std::to_string(WTERMSIG(status)));
    under_.erase(run);
  }

  void tell(int to, const Operation& row, uint64_t seed, const std::string& finding) const {
    dprintf(to, "%s, %s, seed %u: %s\n", row.name, kStates[static_cast<int>(state_)],
            static_cast<unsigned>(seed), finding.c_str());
  }

  struct Run {
    Calls calls;
    std::vector<std::string> outs;
  };

  Run run(const Operation& row, uint64_t seed) {
    Stage s(*world_, seed, false);
    s.useSegment(seg_);
    s.record = *found_;
    s.record.segBase = reinterpret_cast<uintptr_t>(s.base);
    s.record.selfOffset = 0;
    s.drawArguments();
    calls.clear();
    depth = 0;
    flowlogAttach(note);
    flowlogEnable(1);
    row.run(s);
    flowlogEnable(0);
    return {calls, s.outs.contents()};
  }

  std::string findingOf(size_t index, uint64_t seed, int answers) {
    const Operation& row = operations_[index];
    Run before;
    if (state_ == State::sound) {
      attach(false);
      // The same bytes for both, connection counts too.
      image_.assign(world_->victim.bytes, world_->victim.bytes + image_.size());
      leave();
      memcpy(world_->victim.bytes, image_.data(), image_.size());
      attach(true);
    }
    Run now;
    for (int attempt = 0; attempt < kAttempts && (attempt == 0 || isSlow(now.calls)); ++attempt)
      now = run(row, seed);
    if (memcmp(world_->victim.bytes, image_.data(), image_.size()) != 0) return "it wrote";
    if (isSlow(now.calls)) return "it waits" + textOf(now.calls);
    if (state_ != State::sound) return compare(answers_[{index, seed}], now.calls);
    leave();
    world_->victim.restore();
    attach(false);
    before = run(row, seed);
    for (const Call& call : now.calls)
      if (write(answers, &call, sizeof call) < 0) return "no pipe";
    return row.phase == Phase::read ? compareReads(row, before, now)
                                    : checkRefusal(row, before, now);
  }

  static bool isSlow(const Calls& made) {
    for (const Call& call : made)
      if (call.ms > (call.isRefused() ? kAtOnceMs : kLongest)) return true;
    return false;
  }

  static std::string textOf(const Calls& made) {
    std::string text;
    for (const Call& call : made)
      text += std::string(" ") + call.name + "=" + trelPrintrc(call.code) + " (" +
              std::to_string(call.ms) + " ms)";
    return text;
  }

  // As for a writer, until a latch would be taken.
  static std::string compareReads(const Operation& row, const Run& before, const Run& now) {
    for (size_t i = 0; i < now.calls.size(); ++i) {
      const Call& call = now.calls[i];
      if (call.isRefused() && kLatching.count(call.name)) return {};
      if (i >= before.calls.size() || call.code != before.calls[i].code)
        return textOf(before.calls) + " became" + textOf(now.calls);
    }
    return before.outs == now.outs || kOwnOuts.count(row.name) ? "" : "another answer";
  }

  static std::string checkRefusal(const Operation& row, const Run& before, const Run& now) {
    bool isRefused = kElsewhere.count(row.name) != 0, hasWorked = false;
    for (const Call& call : now.calls) isRefused |= call.isRefused();
    for (const Call& call : before.calls)
      hasWorked |= call.code == 0 && call.name == std::string(row.name);
    return isRefused || !hasWorked ? "" : textOf(before.calls) + " became" + textOf(now.calls);
  }

  // As on a sound tree, but where a writer is in the way.
  static std::string compare(const Calls& sound, const Calls& now) {
    for (size_t i = 0; i < now.size(); ++i) {
      if (now[i].code == TREL_RC_WRITER_INSIDE) return {};
      if (i >= sound.size() || now[i].code != sound[i].code)
        return textOf(sound) + " became" + textOf(now);
    }
    return {};
  }

  const uint32_t firstKey_;
  std::unique_ptr<World> world_;
  uintptr_t place_ = 0;  // of the victim, so that answers with addresses are the same
  const Operations operations_ = allOperations();
  State state_ = State::sound;
  Image image_;
  ShmSegInfo_t* seg_ = nullptr;
  SNodeInfo_t* found_ = nullptr;
  std::map<pid_t, std::pair<size_t, uint64_t>> under_;
  std::map<std::pair<size_t, uint64_t>, Calls> answers_;
  size_t running_ = 0, runs_ = 0, findings_ = 0;
};

}  // namespace

bool sweepForReading(uint32_t firstKey) { return Sweep(firstKey).run(); }

}  // namespace fuzz
