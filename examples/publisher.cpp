// Publishes figures of this machine as a tree of status nodes, several times a second:
//
//   machine
//   +- cpu, memory, disks          one node each
//   +- processes                   and below it the busiest ones, which come and go
//   +- network                     published by a second process, in a segment of its own
//
// `trel_publisher KEY` publishes all but the network, `trel_publisher KEY --network` the network.
// On SIGUSR1 the first one replaces its tree, the network included, by a compact copy in a fresh
// segment of the same key, and goes on with that.
#include <chrono>
#include <memory>
#include <thread>

#include "platsvc/base.h"
#include "program.h"
#include "status_node.h"

namespace {

constexpr uint32_t kSegmentSize = 16 << 20;
constexpr size_t kBusiest = 8;

volatile std::sig_atomic_t compactionWanted = 0;

PLATIPCResID keyOf(uint32_t key) { return {PLAT_STRUCTURE_TAG, key}; }
uint32_t networkKey(const Options& options) { return options.key + 0x10000; }
uint32_t compactionKey(const Options& options) { return options.key + 0x20000; }

uint32_t publishTop(ShmSegInfo_t* segment, const StatusNode& top) {
  return trelPutTopNodeInfoIntoDomainHeader(
      segment->shmDomainHandle, top.cb()->tag, top.offset(),
      static_cast<uint32_t>(segment->shmPoolHandle->poolOffset));
}

Group groupOf(const Busy& busy) {
  return {std::to_string(busy.pid) + " " + busy.name,
          {{"share of a CPU", "/1000", busy.permille}, {"memory", "KiB", busy.residentKiB}},
          {},
          {},
          {}};
}

class Machine {
 public:
  explicit Machine(ShmSegInfo_t** segment) : segment_(segment) {}

  uint32_t create() {
    uint32_t rc =
        machine_.create(*segment_, named(readHost(), "machine"), kMachineTag, nullptr, 16);
    if (!rc) rc = cpu_.create(*segment_, readCpu(), kGroupTag, &machine_);
    if (!rc) rc = memory_.create(*segment_, readMemory(), kGroupTag, &machine_);
    if (!rc) rc = disks_.create(*segment_, readDisks(), kGroupTag, &machine_);
    if (!rc) rc = processes_.create(*segment_, processGroup(), kGroupTag, &machine_, 4 * kBusiest);
    return rc ? rc : publishTop(*segment_, machine_);
  }

  uint32_t update() {
    uint32_t rc = machine_.update(named(readHost(), "machine"));
    if (!rc) rc = cpu_.update(readCpu());
    if (!rc) rc = memory_.update(readMemory());
    if (!rc) rc = disks_.update(readDisks());
    if (!rc) rc = updateProcesses();
    return rc ? rc : processes_.update(processGroup());
  }

  // Replaces the tree by a compact copy under the same key.
  uint32_t compact(const Options& options);

 private:
  static Group named(Group group, const char* name) {
    group.name = name;
    return group;
  }
  Group processGroup() const {
    return {"processes", {{"shown", "", static_cast<int32_t>(busiest_.size())}}, {}, {}, {}};
  }

  uint32_t updateProcesses() {
    std::map<std::string, Group> now;
    for (const Busy& busy : readBusiest(kBusiest)) {
      const Group group = groupOf(busy);
      now[group.name] = group;
    }
    for (auto known = busiest_.begin(); known != busiest_.end();) {
      if (now.count(known->first) == 0) {
        if (const uint32_t rc = known->second->remove()) return rc;
        known = busiest_.erase(known);
      } else {
        ++known;
      }
    }
    for (const auto& process : now) {
      auto& node = busiest_[process.first];
      uint32_t rc = 0;
      if (node) {
        rc = node->update(process.second);
      } else {
        node = std::make_unique<StatusNode>();
        rc = node->create(*segment_, process.second, kProcessTag, &processes_);
      }
      if (rc) return rc;
    }
    return 0;
  }

  // Finds the node of that name in the tree that this process publishes now.
  uint32_t follow(StatusNode* node, StatusNode* parent) {
    SNodeInfo_t* found = nullptr;
    SNodeCB_t* copy = nullptr;
    const std::string name = node->name();
    const auto* id = reinterpret_cast<const uint8_t*>(name.data());
    uint32_t rc = trelFindNodeSoft(&found, machine_.cb(), node->tag(), name.size(), id, 0);
    if (!rc) rc = trelAttachToNode(found, &copy);
    if (!rc) node->moveTo(copy, *segment_, parent);
    return rc;
  }

  ShmSegInfo_t** segment_;
  StatusNode machine_, cpu_, memory_, disks_, processes_;
  std::map<std::string, std::unique_ptr<StatusNode>> busiest_;
};

uint32_t Machine::compact(const Options& options) {
  TreeInfo_t before, after;
  ShmDomainInfo_t oldDomain, newDomain;
  SNodeCB_t* newTop = nullptr;
  ShmSegInfo_t* newSegment = nullptr;
  uint64_t total = 0;
  const PLATIPCResID passing = keyOf(compactionKey(options));
  uint32_t rc = trelGetTreeInfo(machine_.cb(), *segment_, 1, 0, 0, &before);
  if (!rc) rc = trelGetShmDomainInfo((*segment_)->shmDomainHandle, &oldDomain);
  if (rc) return rc;
  const uint32_t size = static_cast<uint32_t>(before.totalBytes * 2 + (1 << 20));
  rc = trelCopyTreeIntoSingleShmSegment(
      machine_.cb(), &newTop, segment_, &newSegment, size, &passing, 0, 0, nullptr, nullptr, 1,
      TREL_TREE_COPY_VIA_SEGMENT, TREL_COPY_LIMITS_KEEP, 0, &total);
  if (rc) return rc;
  *segment_ = newSegment;
  machine_.moveTo(newTop, newSegment, nullptr);
  StatusNode* const groups[] = {&cpu_, &memory_, &disks_, &processes_};
  for (StatusNode* group : groups)
    if ((rc = follow(group, &machine_))) return rc;
  for (auto& process : busiest_)
    if ((rc = follow(process.second.get(), &processes_))) return rc;

  // What the network's segment held is part of the copy now.
  const PLATIPCResID key = keyOf(networkKey(options));
  trelRemoveStatusSegment(&key, 2);

  rc = trelGetTreeInfo(newTop, newSegment, 1, 0, 0, &after);
  if (!rc) rc = trelGetShmDomainInfo(newSegment->shmDomainHandle, &newDomain);
  if (rc) return rc;
  std::printf(
      "\ncompacted: %u nodes of %llu bytes in two segments of %llu bytes each are now\n"
      "           %u nodes of %llu bytes in one segment of %llu bytes\n\n",
      before.totalNodes, static_cast<unsigned long long>(before.totalBytes),
      static_cast<unsigned long long>(oldDomain.heapSize), after.totalNodes,
      static_cast<unsigned long long>(after.totalBytes),
      static_cast<unsigned long long>(newDomain.heapSize));
  std::fflush(stdout);
  return 0;
}

// Calls update() five times a second until stopped.
template <class Update>
uint32_t run(const Options& options, Update&& update) {
  const auto start = std::chrono::steady_clock::now();
  while (!stopped) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    if (const uint32_t rc = update()) return rc;
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    if (options.seconds > 0 && time.count() > options.seconds) break;
  }
  return 0;
}

uint32_t publishMachine(ShmSegInfo_t** segment, const Options& options) {
  Machine machine(segment);
  if (const uint32_t rc = machine.create()) return rc;
  return run(options, [&]() -> uint32_t {
    if (compactionWanted) {
      compactionWanted = 0;
      if (const uint32_t rc = machine.compact(options)) return rc;
    }
    return machine.update();
  });
}

// The network hangs below the machine's top node, in that other segment.
uint32_t publishNetwork(ShmSegInfo_t** segment, const Options& options) {
  ShmSegInfo_t* machineSegment = nullptr;
  SNodeCB_t* top = nullptr;
  TopNodeInfo_t info;
  const PLATIPCResID key = keyOf(options.key);
  uint32_t rc = trelConnectToATree(&machineSegment, &top, &info, &key, 0, nullptr, nullptr);
  if (rc) return rc;
  StatusNode machine, network;
  machine.adopt(top, machineSegment);
  rc = network.create(*segment, readNetwork(), kGroupTag, &machine);
  if (!rc) rc = publishTop(*segment, network);
  if (!rc) rc = run(options, [&] { return network.update(readNetwork()); });
  if (!rc) rc = network.remove();
  const uint32_t left = trelDetachFromTopNode(&machineSegment, 1);
  return rc ? rc : left;
}

// Needs nobody's help, in whatever state a kill has left them.
int removeAll(const Options& options) {
  bool ok = true;
  for (const uint32_t each : {options.key, networkKey(options), compactionKey(options)}) {
    const PLATIPCResID key = keyOf(each);
    const uint32_t rc = trelRemoveStatusSegment(&key, 2);
    if (rc != TREL_RC_SEGMENT_ABSENT && failed("remove the segment", rc)) ok = false;
  }
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!options.parse(argc, argv,
                     "usage: trel_publisher KEY [--network] [--seconds N] [--remove]\n"
                     "--remove removes what killed publishers have left, and ends\n"))
    return 2;
  if (options.remove) return removeAll(options);
  stopOnSignals();
  std::signal(SIGUSR1, [](int) { compactionWanted = 1; });
  if (failed("initialise",
             TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION)))
    return 1;

  ShmSegInfo_t* segment = nullptr;
  const PLATIPCResID key = keyOf(options.network ? networkKey(options) : options.key);
  uint32_t rc = trelGetProtectedStatusSegment(&segment, kSegmentSize, &key, 0, 0, nullptr, nullptr);
  if (rc == TREL_RC_SEGMENT_EXISTS)
    std::fputs("if its publisher is gone, remove it: trel_publisher KEY --remove\n", stderr);
  if (!failed("create the segment", rc)) {
    rc = options.network ? publishNetwork(&segment, options) : publishMachine(&segment, options);
    failed("publish", rc);
    const uint32_t gone = trelDeleteStatusSegment(&segment, 4, 2, 2);
    if (failed("remove the segment", gone)) rc = gone;
  }
  TRELCleanup(1);
  return rc ? 1 : 0;
}
