// Copies of a tree of 10,000 nodes with 10 properties each, by each method, beside building the
// same tree through the public operations by a caller who knows all sizes.
//
// By hand, for it takes 8 GiB and minutes: `TREL_BENCH_LARGE=1 copy_bench --benchmark_filter=Large`
// builds, searches and copies trees up to the end of a segment, and over several.
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "trel/trel.h"

namespace {

constexpr uint32_t kSegmentBytes = 160u << 20, kLargestSegment = 0xfffff000u;
constexpr uint64_t kChildren = 10, kIdRoom = 16;
constexpr uint64_t kExports = TREL_EXPORT_ID | TREL_EXPORT_PARENT | TREL_EXPORT_DEPENDENT |
                              TREL_EXPORT_R | TREL_EXPORT_V | TREL_EXPORT_IR;

// A segment that goes with the object, whoever holds it then.
struct Key {
  PLATIPCResID id;
  explicit Key(uint32_t n)
      : id{PLAT_STRUCTURE_TAG, 0x60000000u | static_cast<uint32_t>(getpid()) << 4 | n} {}
  ~Key() {
    const int segment = shmget(static_cast<key_t>(id.key), 0, 0);
    if (segment >= 0) shmctl(segment, IPC_RMID, nullptr);
  }
};

using Clock = std::chrono::steady_clock;

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

struct Builder {
  ShmSegInfo_t* segment = nullptr;
  uint64_t exports, before, sizes[64], total = 0;
  std::vector<SNodeCB_t*> nodes;

  explicit Builder(const Key& key, uint32_t size = kSegmentBytes, uint64_t sections = kExports,
                   uint64_t nodesBefore = 0)
      : exports(sections), before(nodesBefore) {
    trelGetProtectedStatusSegment(&segment, size, &key.id, 0, 0, nullptr, nullptr);
    trelCreateMaxSpaceArray(exports, 4, 1, 3, 64, 1, 3, 3, 3, 16, 1, 0, 0, 0, 0, 1, 0, kIdRoom,
                            kChildren, sizes, &total);
  }
  ~Builder() { end(); }
  void end() {
    if (segment) trelDeleteStatusSegment(&segment, 4, 2, 2);
  }

  uint64_t tagOf(uint64_t n) const { return 1 + (before + n) % 0x100000; }

  void addNode(uint64_t n) {
    const std::string id = "node" + std::to_string(n);
    SNodeCB_t* node = nullptr;
    uint64_t size = 0, offset = 0;
    trelCreateNode(segment, &node, exports, sizes, &size, &offset);
    SNodeInfo_t up = {}, down = {};
    SNodeCB_t* parent = n ? nodes[(n - 1) / kChildren] : nullptr;
    const std::string parentId = n ? "node" + std::to_string((n - 1) / kChildren) : "";
    if (parent)
      trelAddStatusNodeInfo(&up, segment, segment, parent->nodeOffset, parent->tag, parentId.size(),
                            nullptr, nullptr);
    trelInitNode(&node, offset, id.size(), bytes(id), &up, bytes(parentId), kIdRoom, nullptr,
                 nullptr, nullptr);
    trelSetNodeTag(node, tagOf(n), 0);
    trelActivateNode(&node);
    trelCreateDependentNodeList(node, nullptr, nullptr, nullptr, kIdRoom, 0, 0);
    trelCreateRPropertyList(node, nullptr, nullptr, 0, 4, 1, 0);
    trelCreateVPropertyList(node, nullptr, nullptr, nullptr, 64, 0, 3, 1, 0);
    trelCreateIRPropertyList(node, nullptr, nullptr, nullptr, nullptr, 16, 0, 3, 3, 3, 1, 0);
    const std::string value(48, 'v');
    for (uint64_t tag = 1; tag <= 4; ++tag) trelAddRProperty(node, tag, 7, 0);
    for (uint64_t tag = 1; tag <= 3; ++tag) trelAddVProperty(node, tag, 48, bytes(value), 0);
    for (uint64_t tag = 1; tag <= 3; ++tag) trelAddIRProperty(node, tag, 8, bytes(value), 7, 0);
    if (parent) {
      trelAddStatusNodeInfo(&down, segment, segment, offset, tagOf(n), id.size(), nullptr, nullptr);
      trelAddDependentNode(parent, &down, bytes(id), id.size(), 0, 0);
    }
    nodes.push_back(node);
  }
  void build(uint64_t count) {
    for (uint64_t n = 0; n < count; ++n) addNode(n);
    trelPutTopNodeInfoIntoDomainHeader(segment->shmDomainHandle, nodes[0]->tag,
                                       nodes[0]->nodeOffset,
                                       static_cast<uint32_t>(segment->shmPoolHandle->poolOffset));
  }
};

void initialise() { TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION); }

// Looks now and then at what the process has allocated for itself, and keeps the most.
class Peak {
 public:
  uint64_t stop() {
    done_ = true;
    watcher_.join();
    return most_;
  }

 private:
  static uint64_t allocated() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
  }
  std::atomic<bool> done_{false};
  uint64_t most_ = 0;
  std::thread watcher_{[this] {
    for (const uint64_t before = allocated(); !done_;) {
      most_ = std::max(most_, allocated() - std::min(before, allocated()));
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }};
};

// CSV takes a counter only if all rows have it.
void show(benchmark::State& state, uint64_t peak) {
  state.counters["process_KiB"] = static_cast<double>(peak) / 1024;
}

void BuildTree(benchmark::State& state) {
  initialise();
  uint64_t peak = 0;
  for (auto _ : state) {
    const Key key(0);
    Peak memory;
    Builder builder(key);
    builder.build(static_cast<uint64_t>(state.range(0)));
    state.PauseTiming();
    peak = std::max(peak, memory.stop());
    trelDeleteStatusSegment(&builder.segment, 4, 2, 2);
    state.ResumeTiming();
  }
  show(state, peak);
}
BENCHMARK(BuildTree)->Arg(10000)->Unit(benchmark::kMillisecond);

void CopyTree(benchmark::State& state, uint32_t method) {
  initialise();
  uint64_t peak = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const Key from(0), to(1);
    Builder builder(from);
    builder.build(static_cast<uint64_t>(state.range(0)));
    SNodeCB_t* top = nullptr;
    ShmSegInfo_t* dst = nullptr;
    uint64_t total = 0;
    Peak memory;
    state.ResumeTiming();
    const uint32_t rc = trelCopyTreeIntoSingleShmSegment(
        builder.nodes[0], &top, &builder.segment, &dst, kSegmentBytes, &to.id, 0, 0, nullptr,
        nullptr, TREL_TREE_COPY_ALL, method, TREL_COPY_LIMITS_KEEP, 0, &total);
    state.PauseTiming();
    peak = std::max(peak, memory.stop());
    if (rc) return state.SkipWithError(("code " + std::to_string(rc)).c_str());
    trelDeleteStatusSegment(&dst, 4, 2, 2);
    state.ResumeTiming();
  }
  show(state, peak);
}
BENCHMARK_CAPTURE(CopyTree, direct, TREL_TREE_COPY_DIRECT)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CopyTree, via segment, TREL_TREE_COPY_VIA_SEGMENT)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CopyTree, via memory, TREL_TREE_COPY_VIA_PM)
    ->Arg(1000)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond);

// One tree over several segments, each with an equal part of the nodes. Further segments hang below
// the last node of the first one, and these are what is copied, one by one, if there are any.
void LargeTree(benchmark::State& state) {
  initialise();
  const auto nodes = static_cast<uint64_t>(state.range(0)),
             segments = static_cast<uint64_t>(state.range(1)), each = nodes / segments;
  const bool lean = segments > 1;
  const uint64_t exports = lean ? kExports & ~uint64_t{TREL_EXPORT_V | TREL_EXPORT_IR} : kExports;
  const double perNode = lean ? 4612 : 8116, room = static_cast<double>(each) * (perNode + 400);
  const auto size = static_cast<uint32_t>(std::min(room + 1e6, double{kLargestSegment}));
  for (auto _ : state) {
    std::vector<std::unique_ptr<Key>> keys;
    std::vector<std::unique_ptr<Builder>> parts;
    auto timed = [&, last = Clock::now()](const char* name, uint64_t count) mutable {
      const std::chrono::duration<double, std::nano> took = Clock::now() - last;
      state.counters[name] = took.count() / static_cast<double>(count);
      last = Clock::now();
    };
    timed("", 1);
    for (uint32_t i = 0; i < segments; ++i) {
      keys.push_back(std::make_unique<Key>(i));
      parts.push_back(std::make_unique<Builder>(*keys[i], size, exports, i * each));
      parts[i]->build(each);
      if (!parts[i]->nodes[each - 1]) return state.SkipWithError("the nodes do not fit");
      if (i) {
        SNodeInfo_t down = {};
        trelAddStatusNodeInfo(&down, parts[0]->segment, parts[i]->segment,
                              parts[i]->nodes[0]->nodeOffset, parts[i]->nodes[0]->tag, 5, nullptr,
                              nullptr);
        trelAddDependentNode(parts[0]->nodes[each - 1], &down, bytes("node0"), 5, 0, 0);
      }
    }
    timed("build_ns", nodes);
    SNodeInfo_t* found = nullptr;
    if (const uint32_t rc =
            trelFindNodeSoft(&found, parts[0]->nodes[0], 0x100000, 4, bytes("none"), 0);
        rc != TREL_RC_NOT_FOUND)
      state.SkipWithError(("search: " + std::to_string(rc)).c_str());
    timed("search_ns", nodes);
    for (size_t i = segments - 1; i > 0 || segments == 1; --i) {
      const Key to(15);
      SNodeCB_t* top = nullptr;
      ShmSegInfo_t* dst = nullptr;
      uint64_t total = 0;
      const uint32_t rc = trelCopyTreeIntoSingleShmSegment(
          parts[i]->nodes[0], &top, &parts[i]->segment, &dst, size, &to.id, 0, 0, nullptr, nullptr,
          TREL_TREE_COPY_ALL, TREL_TREE_COPY_DIRECT, TREL_COPY_LIMITS_KEEP, 0, &total);
      if (rc) state.SkipWithError(("copy: " + std::to_string(rc)).c_str());
      if (dst) trelDeleteStatusSegment(&dst, 4, 2, 2);
      if (rc || segments == 1) break;
    }
    timed("copy_ns", lean ? nodes - each : nodes);
  }
  state.counters.erase("");
}
[[maybe_unused]] const auto* const large =
    getenv("TREL_BENCH_LARGE") == nullptr
        ? nullptr
        : benchmark::RegisterBenchmark("LargeTree", LargeTree) -> ArgNames({"nodes", "segments"})
              -> Args({10000, 1}) -> Args({500000, 1}) -> Args({10000, 2}) -> Args({2000000, 8})
                  -> Iterations(1) -> Unit(benchmark::kMillisecond);

}  // namespace
