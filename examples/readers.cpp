// Readers that nobody feels: one process writes a value of 64 bytes as fast as it can, while 0, 1,
// 4 and 8 others read it over mappings that they have no right to write to. Each value carries a
// checksum, so that a torn one would show.
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

#include "trel/trel.h"

namespace {

constexpr PLATIPCResID kKey = {PLAT_STRUCTURE_TAG, 0x5402};
constexpr uint64_t kTag = 7;
constexpr double kSeconds = 2;

struct Sample {
  uint64_t words[7], sum;

  static Sample of(uint64_t seed) {
    Sample sample{};
    for (uint64_t& word : sample.words)
      word = seed = seed * 6364136223846793005u + 1442695040888963407u;
    sample.sum = sample.sumOf();
    return sample;
  }
  uint64_t sumOf() const {
    uint64_t total = 1;
    for (const uint64_t word : words) total = total * 31 + word;
    return total;
  }
};

// What the processes share.
struct Counts {
  std::atomic<uint64_t> reads, torn, failures;
  std::atomic<bool> isOver;
};

void check(uint32_t code) {
  if (code == 0) return;
  fprintf(stderr, "%s\n", trelPrintrc(code));
  exit(1);
}

double seconds(clockid_t clock) {
  timespec now;
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

int readUntilOver(Counts* counts) {
  ShmSegInfo_t* segment = nullptr;
  SNodeCB_t* node = nullptr;
  TopNodeInfo_t top;
  check(trelConnectToATreeForReading(&segment, &node, &top, &kKey, 0, nullptr, nullptr));
  VProperty_t* record = nullptr;
  check(trelGetAddressForVProperty(node, kTag, &record));
  uint64_t reads = 0;
  while (!counts->isOver) {
    Sample sample;
    uint64_t size = sizeof sample, rc = 0;
    uint8_t* address = nullptr;
    if (trelGetValueAndRCForVProperty(node, record, &size, &address,
                                      reinterpret_cast<uint8_t*>(&sample), &rc, 0) != 0) {
      ++counts->failures;
    } else if (sample.sum != sample.sumOf()) {
      ++counts->torn;
    }
    ++reads;
  }
  counts->reads += reads;
  check(trelDetachStatusSegment(&segment, 1));
  return 0;
}

void run(SNodeCB_t* node, int readers, Counts* counts) {
  new (counts) Counts{};
  std::vector<pid_t> children;
  for (int i = 0; i < readers; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      _exit(readUntilOver(counts));
    }
    children.push_back(child);
  }
  uint64_t writes = 0;
  const double start = seconds(CLOCK_MONOTONIC), cpu = seconds(CLOCK_PROCESS_CPUTIME_ID);
  while (seconds(CLOCK_MONOTONIC) - start < kSeconds) {
    for (int i = 0; i < 100; ++i, ++writes) {
      const Sample sample = Sample::of(writes);
      check(trelSetValueForVProperty(node, kTag, sizeof sample,
                                     reinterpret_cast<const uint8_t*>(&sample), 0));
    }
  }
  const double used = seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu;
  const double lasted = seconds(CLOCK_MONOTONIC) - start;
  counts->isOver = true;
  for (const pid_t child : children) waitpid(child, nullptr, 0);
  printf("%7d %12.1f %18.1f %12.1f %6llu %9llu\n", readers,
         static_cast<double>(writes) / lasted / 1e6, used * 1e9 / static_cast<double>(writes),
         static_cast<double>(counts->reads) / lasted / 1e6,
         static_cast<unsigned long long>(counts->torn),
         static_cast<unsigned long long>(counts->failures));
  fflush(stdout);
}

}  // namespace

int main() {
  check(TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION));
  trelRemoveStatusSegment(&kKey, 2);
  ShmSegInfo_t* segment = nullptr;
  SNodeCB_t* node = nullptr;
  uint64_t sizes[TREL_SLOTS] = {}, size = 0, offset = 0;
  sizes[7] = 16 + 420 + sizeof(Sample);
  const Sample first = Sample::of(0);
  check(trelGetProtectedStatusSegment(&segment, 1 << 20, &kKey, 0, 0, nullptr, nullptr));
  check(trelCreateNode(segment, &node, TREL_EXPORT_V, sizes, &size, &offset));
  check(trelInitNode(&node, offset, 0, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr));
  check(trelCreateVPropertyList(node, nullptr, nullptr, nullptr, sizeof first, 0, 1, 0, 0));
  check(trelActivateNode(&node));
  check(trelAddVProperty(node, kTag, sizeof first, reinterpret_cast<const uint8_t*>(&first), 0));
  check(trelPutTopNodeInfoIntoDomainHeader(
      segment->shmDomainHandle, 0, offset,
      static_cast<uint32_t>(segment->shmPoolHandle->poolOffset)));
  void* shared =
      mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  printf("readers  M writes/s  ns of CPU a write    M reads/s   torn  failures\n");
  for (const int readers : {0, 1, 4, 8}) run(node, readers, static_cast<Counts*>(shared));
  check(trelDeleteStatusSegment(&segment, 4, 2, 2));
  check(TRELCleanup(1));
}
