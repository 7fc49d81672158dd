// Access to properties, beside the least that such an access can cost: the same latch around an
// open-addressing lookup and a load or store. Boost.Interprocess and LMDB are what one would use
// instead.
#include <boost/functional/hash.hpp>
#include <boost/interprocess/managed_external_buffer.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <boost/unordered_map.hpp>
#include <cstring>
#include <string>

#include "bench.h"

#ifdef BENCH_LMDB
#include <lmdb.h>
#include <stdlib.h>
#include <unistd.h>
#endif

namespace {

using bench::Node;
using bench::Round;
using bench::tagsFor;

constexpr uint64_t kId = 8, kValue = 64;

uint64_t tableSize(uint64_t n) {
  uint64_t prime = 0;
  trelGetPrimeNumber(n, &prime);
  return prime;
}

// One node with n properties of each kind. Identifier: the tag's eight bytes.
struct Publisher {
  explicit Publisher(uint64_t n)
      : h(tableSize(n)),
        node(TREL_EXPORT_R | TREL_EXPORT_V | TREL_EXPORT_IR,
             {{TREL_EXPORT_R, 24 + 168 * h + 4096},
              {TREL_EXPORT_V, 32 + (436 + kValue) * h + 4096},
              {TREL_EXPORT_IR, 48 + (8 * 3 + 588 + kId) * h + 4096}}),
        tags(tagsFor(n)) {
    SNodeCB_t* cb = node.cb;
    const uint8_t value[kValue] = {1};
    trelCreateRPropertyList(cb, nullptr, nullptr, 0, n, 1, 0);
    trelCreateVPropertyList(cb, nullptr, nullptr, nullptr, kValue, 0, n, 1, 0);
    trelCreateIRPropertyList(cb, nullptr, nullptr, nullptr, nullptr, kId, 0, n, n, n, 1, 0);
    uint32_t failures = 0;
    for (uint64_t tag : tags) {
      failures += trelAddRProperty(cb, tag, 1, 0) != 0;
      failures += trelAddVProperty(cb, tag, kValue, value, 0) != 0;
      failures += trelAddIRProperty(cb, tag, kId, id(tag), 1, 0) != 0;
    }
    if (failures) abort();
  }
  static const uint8_t* id(const uint64_t& tag) { return reinterpret_cast<const uint8_t*>(&tag); }

  const uint64_t h;
  Node node;
  const std::vector<uint64_t> tags;
};

// Built once for each n.
Publisher& publisher(const benchmark::State& state) {
  static std::map<int64_t, Publisher*> all;
  Publisher*& p = all[state.range(0)];
  if (!p) p = new Publisher(static_cast<uint64_t>(state.range(0)));
  return *p;
}

// The limit: keys and values of 128 bytes apart in one array, one probe as a rule.
struct BareTable {
  struct Slot {
    uint64_t tag;
    int32_t value;
    uint8_t rest[116];
  };
  explicit BareTable(const std::vector<uint64_t>& tags) : mask(1) {
    while (mask < 2 * tags.size()) mask *= 2;
    slots.resize(mask--);
    for (uint64_t tag : tags) find(tag, 0)->tag = tag;
  }
  Slot* find(uint64_t tag, uint64_t end) {
    uint64_t i = (tag * 0x9e3779b97f4a7c15) >> 20 & mask;
    while (slots[i].tag != tag && slots[i].tag != end) i = (i + 1) & mask;
    return &slots[i];
  }
  uint64_t mask;
  std::vector<Slot> slots;
};

struct Latch {
  Latch() { platVLatchInit(cell, 1); }
  uint8_t cell[TREL_LATCH_CELL];
  template <class Work>
  void hold(Work&& work) {
    uint32_t died = 0;
    plat::latchGet(cell, &died);
    work();
    plat::latchRelease(cell);
  }
};

void GetBare(benchmark::State& state) {
  const auto tags = tagsFor(static_cast<uint64_t>(state.range(0)));
  BareTable table(tags);
  Latch latch;
  Round round(tagsFor(tags.size(), 2));
  for (auto _ : state) {
    const uint64_t tag = round.next();
    latch.hold([&] { benchmark::DoNotOptimize(table.find(tag, 0)->value); });
  }
}

void GetR(benchmark::State& state) {
  Publisher& p = publisher(state);
  Round round(tagsFor(p.tags.size(), 2));
  int32_t value = 0;
  for (auto _ : state) {
    if (trelGetValueForRProperty(p.node.cb, round.next(), &value, 0)) state.SkipWithError("get");
    benchmark::DoNotOptimize(value);
  }
}

void SetR(benchmark::State& state) {
  Publisher& p = publisher(state);
  Round round(tagsFor(p.tags.size(), 2));
  for (auto _ : state)
    if (trelSetValueForRProperty(p.node.cb, round.next(), 2, 0)) state.SkipWithError("set");
}

void GetIR(benchmark::State& state) {
  Publisher& p = publisher(state);
  Round round(tagsFor(p.tags.size(), 2));
  int32_t value = 0;
  for (auto _ : state) {
    const uint64_t tag = round.next();
    if (trelGetValueForIRProperty(p.node.cb, tag, kId, Publisher::id(tag), &value, 0))
      state.SkipWithError("get");
    benchmark::DoNotOptimize(value);
  }
}

void GetV64(benchmark::State& state) {
  Publisher& p = publisher(state);
  Round round(tagsFor(p.tags.size(), 2));
  uint8_t buffer[kValue];
  for (auto _ : state) {
    uint64_t size = 0;
    uint8_t* place = nullptr;
    if (trelGetValueForVProperty(p.node.cb, round.next(), &size, &place, buffer, 0))
      state.SkipWithError("get");
    benchmark::DoNotOptimize(buffer);
  }
}

void GetBoost(benchmark::State& state) {
  namespace ipc = boost::interprocess;
  using Entry = std::pair<const uint64_t, int32_t>;
  using Allocator = ipc::allocator<Entry, ipc::managed_external_buffer::segment_manager>;
  using Map = boost::unordered_map<uint64_t, int32_t, boost::hash<uint64_t>,
                                   std::equal_to<uint64_t>, Allocator>;
  std::vector<std::max_align_t> memory(1 << 20);
  ipc::managed_external_buffer segment(ipc::create_only, memory.data(),
                                       memory.size() * sizeof memory[0]);
  Map& map =
      *segment.construct<Map>("map")(size_t(state.range(0)), boost::hash<uint64_t>(),
                                     std::equal_to<uint64_t>(), segment.get_segment_manager());
  for (uint64_t tag : tagsFor(static_cast<uint64_t>(state.range(0)))) map.emplace(tag, 1);
  auto& mutex = *segment.construct<ipc::interprocess_mutex>("mutex")();
  Round round(tagsFor(static_cast<uint64_t>(state.range(0)), 2));
  for (auto _ : state) {
    ipc::scoped_lock<ipc::interprocess_mutex> lock(mutex);
    benchmark::DoNotOptimize(map.find(round.next())->second);
  }
}

#ifdef BENCH_LMDB
void GetLmdb(benchmark::State& state) {
  char folder[] = "/tmp/property_bench.XXXXXX";
  if (!mkdtemp(folder)) return state.SkipWithError("mkdtemp");
  MDB_env* env = nullptr;
  MDB_txn* txn = nullptr;
  MDB_dbi db = 0;
  mdb_env_create(&env);
  mdb_env_set_mapsize(env, 64 << 20);
  mdb_env_open(env, folder, MDB_NOSYNC, 0600);
  mdb_txn_begin(env, nullptr, 0, &txn);
  mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &db);
  for (uint64_t tag : tagsFor(static_cast<uint64_t>(state.range(0)))) {
    int32_t value = 1;
    MDB_val key{sizeof tag, &tag}, data{sizeof value, &value};
    mdb_put(txn, db, &key, &data, 0);
  }
  mdb_txn_commit(txn);
  mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn);
  Round round(tagsFor(static_cast<uint64_t>(state.range(0)), 2));
  for (auto _ : state) {
    uint64_t tag = round.next();
    MDB_val key{sizeof tag, &tag}, data{};
    mdb_txn_reset(txn);
    mdb_txn_renew(txn);
    if (mdb_get(txn, db, &key, &data)) state.SkipWithError("get");
    benchmark::DoNotOptimize(data.mv_data);
  }
  mdb_txn_abort(txn);
  mdb_env_close(env);
  for (const char* file : {"/data.mdb", "/lock.mdb"}) unlink((std::string(folder) + file).c_str());
  rmdir(folder);
}
BENCHMARK(GetLmdb)->Arg(1000)->Arg(32768);
#endif

// A held record. The limit is the latch around two loads or stores.
void HeldBare(benchmark::State& state) {
  Latch latch;
  BareTable table({7});
  for (auto _ : state)
    latch.hold([&] { benchmark::DoNotOptimize(__atomic_load_n(&table.slots[0].value, 2)); });
}

void HeldGetR(benchmark::State& state) {
  Publisher& p = publisher(state);
  RProperty_t* record = nullptr;
  trelGetAddressForRProperty(p.node.cb, p.tags[0], &record);
  int32_t value = 0;
  uint64_t rc = 0;
  for (auto _ : state) {
    if (trelGetValueAndRCForRProperty(p.node.cb, record, &value, &rc, 0))
      state.SkipWithError("get");
    benchmark::DoNotOptimize(value);
  }
}

void HeldSetR(benchmark::State& state) {
  Publisher& p = publisher(state);
  RProperty_t* record = nullptr;
  trelGetAddressForRProperty(p.node.cb, p.tags[0], &record);
  for (auto _ : state)
    if (trelSetValueAndRCForRProperty(p.node.cb, record, 3, 4, 0)) state.SkipWithError("set");
}

void HeldGetV64(benchmark::State& state) {
  Publisher& p = publisher(state);
  VProperty_t* record = nullptr;
  trelGetAddressForVProperty(p.node.cb, p.tags[0], &record);
  uint8_t buffer[kValue];
  for (auto _ : state) {
    uint64_t size = kValue, rc = 0;
    uint8_t* place = nullptr;
    if (trelGetValueAndRCForVProperty(p.node.cb, record, &size, &place, buffer, &rc, 0))
      state.SkipWithError("get");
    benchmark::DoNotOptimize(buffer);
  }
}

// All tags of a section. The limit reads the tag of each record once, in the same order.
void ListR(benchmark::State& state) {
  Publisher& p = publisher(state);
  std::vector<uint64_t> listed(p.tags.size());
  for (auto _ : state) {
    if (trelReturnRProperties(p.node.cb, listed.data(), 0, listed.size(), 0))
      state.SkipWithError("list");
    benchmark::DoNotOptimize(listed.data());
  }
}

void ListBare(benchmark::State& state) {
  Publisher& p = publisher(state);
  std::vector<uint64_t> listed(p.tags.size());
  trelReturnRProperties(p.node.cb, listed.data(), 0, listed.size(), 0);
  std::vector<RProperty_t*> records(p.tags.size());
  for (size_t i = 0; i < listed.size(); ++i)
    trelGetAddressForRProperty(p.node.cb, listed[i], &records[i]);
  for (auto _ : state) {
    for (size_t i = 0; i < records.size(); ++i) listed[i] = records[i]->tag;
    benchmark::DoNotOptimize(listed.data());
  }
}

// One property leaves, and comes back into the place freed.
void DeleteAddR(benchmark::State& state) {
  Publisher& p = publisher(state);
  Round round(tagsFor(p.tags.size(), 2));
  for (auto _ : state) {
    const uint64_t tag = round.next();
    if (trelDeleteRProperty(p.node.cb, tag, 0) || trelAddRProperty(p.node.cb, tag, 1, 0))
      state.SkipWithError("delete or add");
  }
}

void Sizes(benchmark::internal::Benchmark* b) { b->Arg(1000)->Arg(32768); }

BENCHMARK(GetBare)->Apply(Sizes);
BENCHMARK(GetR)->Apply(Sizes);
BENCHMARK(SetR)->Apply(Sizes);
BENCHMARK(GetIR)->Apply(Sizes);
BENCHMARK(GetV64)->Apply(Sizes);
BENCHMARK(GetBoost)->Apply(Sizes);
BENCHMARK(HeldBare);
BENCHMARK(HeldGetR)->Arg(1000);
BENCHMARK(HeldSetR)->Arg(1000);
BENCHMARK(HeldGetV64)->Arg(1000);
BENCHMARK(ListBare)->Arg(32768);
BENCHMARK(ListR)->Arg(32768);
BENCHMARK(DeleteAddR)->Arg(100)->Apply(Sizes);

}  // namespace
