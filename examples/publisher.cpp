// Publishes figures of this machine in a status segment, several times a second.
#include <chrono>
#include <thread>

#include "platsvc/base.h"
#include "program.h"
#include "status_node.h"

namespace {

// All groups in one: labels get the group's name in front.
Group readAll() {
  Group all = readHost();
  all.name = "machine";
  for (const Group& group : {readCpu(), readMemory(), readDisks(), readNetwork()}) {
    const std::string prefix = group.name + ": ";
    for (Register r : group.registers) all.registers.push_back({prefix + r.label, r.unit, r.value});
    for (Instance i : group.instances)
      all.instances.push_back({prefix + i.label, i.unit, i.id, i.value});
    for (Text t : group.texts) all.texts.push_back({prefix + t.label, t.value});
    all.mounts.insert(all.mounts.end(), group.mounts.begin(), group.mounts.end());
  }
  return all;
}

uint32_t publish(ShmSegInfo_t* segment, const Options& options) {
  StatusNode top;
  const uint64_t tag = 1;
  if (const uint32_t rc = top.create(segment, readAll(), tag)) return rc;
  if (const uint32_t rc = trelPutTopNodeInfoIntoDomainHeader(
          segment->shmDomainHandle, tag, top.offset(),
          static_cast<uint32_t>(segment->shmPoolHandle->poolOffset)))
    return rc;
  const auto start = std::chrono::steady_clock::now();
  while (!stopped) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    if (const uint32_t rc = top.update(readAll())) return rc;
    const std::chrono::duration<double> run = std::chrono::steady_clock::now() - start;
    if (options.seconds > 0 && run.count() > options.seconds) break;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!options.parse(argc, argv, "usage: trel_publisher KEY [--seconds N]\n")) return 2;
  stopOnSignals();
  if (failed("initialise",
             TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION)))
    return 1;

  ShmSegInfo_t* segment = nullptr;
  const PLATIPCResID key = {PLAT_STRUCTURE_TAG, options.key};
  uint32_t rc = trelGetProtectedStatusSegment(&segment, 8 << 20, &key, 0, 0, nullptr, nullptr);
  if (rc == TREL_RC_SEGMENT_EXISTS)
    std::fputs("if its publisher is gone, remove it: trel_reader KEY --remove\n", stderr);
  if (!failed("create the segment", rc)) {
    rc = publish(segment, options);
    failed("publish", rc);
    const uint32_t gone = trelDeleteStatusSegment(&segment, 4, 2, 2);
    if (failed("remove the segment", gone)) rc = gone;
  }
  TRELCleanup(1);
  return rc ? 1 : 0;
}
