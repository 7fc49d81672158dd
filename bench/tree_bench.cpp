// Searches, sums and lists of dependents: beside a get and release of a latch, the bare reading of
// an entry's tag, and a map from paths to records, which is what one would use instead.
#include <sys/shm.h>
#include <unistd.h>

#include <boost/interprocess/allocators/allocator.hpp>
#include <boost/interprocess/containers/map.hpp>
#include <boost/interprocess/containers/string.hpp>
#include <boost/interprocess/managed_external_buffer.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <string>

#include "bench.h"

namespace {

constexpr uint64_t kFanOut = 16, kId = 8;

// A status segment, removed at once from the system's list, so that it goes with the process.
struct Segment {
  explicit Segment(uint32_t size) {
    TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION);
    const PLATIPCResID key = {PLAT_STRUCTURE_TAG, 0x50000000u | static_cast<uint32_t>(getpid())};
    if (trelGetProtectedStatusSegment(&info, size, &key, 0, 0, nullptr, nullptr)) abort();
    shmctl(shmget(static_cast<key_t>(key.key), 0, 0), IPC_RMID, nullptr);
  }
  ~Segment() {
    trelDetachStatusSegment(&info, 2);
    TRELCleanup(1);
  }

  SNodeCB_t* make(uint64_t tag, uint64_t places) const {
    uint64_t sizes[64] = {}, size = 0, offset = 0;
    sizes[0] = 16 + kId;
    sizes[10] = 8 + places * (56 + kId);
    SNodeCB_t* node = nullptr;
    uint32_t rc = trelCreateNode(info, &node, TREL_EXPORT_ID, sizes, &size, &offset);
    if (rc == 0)
      rc = trelInitNode(&node, offset, kId, id(tag), nullptr, nullptr, kId, nullptr, nullptr,
                        nullptr);
    if (rc == 0) rc = trelSetNodeTag(node, tag, 0);
    if (rc == 0) rc = trelActivateNode(&node);
    if (rc == 0 && places)
      rc = trelCreateDependentNodeList(node, nullptr, nullptr, nullptr, kId, 0, 0);
    if (rc) abort();
    return node;
  }
  SNodeInfo_t recordOf(const SNodeCB_t* node) const {
    SNodeInfo_t record;
    trelAddStatusNodeInfo(&record, info, info, node->nodeOffset, node->tag, kId, nullptr, nullptr);
    return record;
  }
  void adopt(SNodeCB_t* parent, const SNodeCB_t* child) const {
    SNodeInfo_t record = recordOf(child);
    const uint64_t tag = child->tag;
    if (trelAddDependentNode(parent, &record, id(tag), kId, 0, 0)) abort();
  }
  static const uint8_t* id(const uint64_t& tag) { return reinterpret_cast<const uint8_t*>(&tag); }

  ShmSegInfo_t* info = nullptr;
};

// n nodes below a top node, in breadth-first order, 16 dependents each.
struct Tree : Segment {
  explicit Tree(uint64_t n) : Segment(static_cast<uint32_t>((n + 64) * 5200 + (1 << 20))) {
    nodes.push_back(make(1, kFanOut));
    for (uint64_t i = 1; i <= n; ++i) {
      nodes.push_back(make(1 + i, kFanOut));
      adopt(nodes[(i - 1) / kFanOut], nodes[i]);
    }
  }
  std::vector<SNodeCB_t*> nodes;
};

void SoftSearchPerNode(benchmark::State& state) {
  const Tree tree(static_cast<uint64_t>(state.range(0)));
  SNodeInfo_t* found = nullptr;
  const uint64_t absent = 0xfffff;
  while (state.KeepRunningBatch(state.range(0)))
    if (trelFindNodeSoft(&found, tree.nodes[0], absent, kId, Segment::id(absent), 0) !=
        TREL_RC_NOT_FOUND)
      return state.SkipWithError("search failed");
}

void TreeInfoPerNode(benchmark::State& state) {
  const Tree tree(static_cast<uint64_t>(state.range(0)));
  TreeInfo_t sum;
  while (state.KeepRunningBatch(state.range(0) + 1))
    if (trelGetTreeInfo(tree.nodes[0], tree.info, 0, 1, 0, &sum))
      return state.SkipWithError("walk failed");
}

// A path that takes the last of 16 dependents on each level.
void HardSearch(benchmark::State& state) {
  const uint64_t depth = static_cast<uint64_t>(state.range(0));
  Segment segment(2 << 20);
  SNodeCB_t* const top = segment.make(1, kFanOut);
  std::vector<uint64_t> tags;
  uint64_t tag = 1;
  SNodeCB_t* parent = top;
  for (uint64_t level = 0; level < depth; ++level) {
    SNodeCB_t* child = nullptr;
    for (uint64_t i = 0; i < kFanOut; ++i) {
      child = segment.make(++tag, kFanOut);
      segment.adopt(parent, child);
    }
    tags.push_back(tag);
    parent = child;
  }
  std::vector<TraverseInfo_t> path;
  for (uint64_t& t : tags)
    path.push_back({static_cast<uint32_t>(t), kId, reinterpret_cast<uint8_t*>(&t)});
  SNodeInfo_t* found = nullptr;
  for (auto _ : state)
    if (trelFindNodeHard(&found, top, depth, path.data(), depth))
      return state.SkipWithError("search failed");
}

// The same road in a map from paths to records, under a mutex.
void BoostMapOfPaths(benchmark::State& state) {
  namespace ipc = boost::interprocess;
  using Manager = ipc::managed_external_buffer::segment_manager;
  using String = ipc::basic_string<char, std::char_traits<char>, ipc::allocator<char, Manager>>;
  using Entry = std::pair<const String, SNodeInfo_t>;
  using Map = ipc::map<String, SNodeInfo_t, std::less<String>, ipc::allocator<Entry, Manager>>;
  std::vector<char> memory(4 << 20);
  ipc::managed_external_buffer buffer(ipc::create_only, memory.data(), memory.size());
  Map& map = *buffer.construct<Map>("map")(buffer.get_segment_manager());
  ipc::interprocess_mutex& mutex = *buffer.construct<ipc::interprocess_mutex>("mutex")();
  const auto name = [](uint64_t tag) {
    return std::to_string(tag) + '.' +
           std::string(reinterpret_cast<const char*>(Segment::id(tag)), kId) + '/';
  };
  std::string path;
  uint64_t tag = 1;
  for (int64_t level = 0; level < state.range(0); ++level) {
    for (uint64_t i = 0; i < kFanOut; ++i)
      map.emplace(String((path + name(++tag)).c_str(), buffer.get_segment_manager()),
                  SNodeInfo_t{tag, tag, kId, 0, 0, 0, 0});
    path += name(tag);
  }
  const String key(path.c_str(), buffer.get_segment_manager());
  for (auto _ : state) {
    const ipc::scoped_lock<ipc::interprocess_mutex> lock(mutex);
    benchmark::DoNotOptimize(map.find(key)->second.nodeOffset);
  }
}

// A dependent is added to a list of n and deleted again: two walks.
void AddDeletePerEntry(benchmark::State& state) {
  const uint64_t n = static_cast<uint64_t>(state.range(0));
  Segment segment(16 << 20);
  SNodeCB_t* parent = segment.make(1, n + 1);
  SNodeInfo_t record = segment.recordOf(segment.make(2, 0));
  const auto add = [&](uint64_t tag) {
    record.nodeTag = tag;
    return trelAddDependentNode(parent, &record, Segment::id(tag), kId, 0, 0);
  };
  for (uint64_t tag = 1; tag <= n; ++tag)
    if (add(tag)) abort();
  const uint64_t last = n + 1;
  while (state.KeepRunningBatch(static_cast<int64_t>(2 * n)))
    if (add(last) || trelDeleteDependentNode(parent, &record, Segment::id(last), 0))
      return state.SkipWithError("list failed");
}

void ReadTagPerEntry(benchmark::State& state) {
  const uint64_t n = static_cast<uint64_t>(state.range(0));
  std::vector<uint8_t> list(n * (56 + kId), 1);
  while (state.KeepRunningBatch(static_cast<int64_t>(n)))
    for (uint64_t i = 0; i < n; ++i) {
      const auto* entry = reinterpret_cast<const SNodeInfo_t*>(&list[i * (56 + kId)]);
      benchmark::DoNotOptimize(entry->nodeTag == n);
    }
}

BENCHMARK(SoftSearchPerNode)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK(TreeInfoPerNode)->Arg(1000)->Arg(100000);
BENCHMARK(HardSearch)->Arg(1)->Arg(8);
BENCHMARK(BoostMapOfPaths)->Arg(8);
BENCHMARK(AddDeletePerEntry)->Arg(1000)->Arg(10000);
BENCHMARK(ReadTagPerEntry)->Arg(1000)->Arg(10000);

}  // namespace
