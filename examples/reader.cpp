// Connects to a status tree by the key of its segment, reads it in place, and prints it until told
// to stop. It knows no more of the tree than the key, and needs no more than the right to read.
#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "platsvc/report.h"
#include "program.h"
#include "snapshot.h"
#include "status_node.h"

namespace {

using Clock = std::chrono::steady_clock;

const char* const kConditions[] = {"?",      "created",   "initialised",
                                   "active", "abandoned", "disassociated"};

class Screen {
 public:
  explicit Screen(bool plain) : plain_(plain) {}

  void begin() {
    if (!plain_) std::fputs("\033[H\033[2J", stdout);
  }
  void end() {
    if (plain_) std::puts("");
    std::fflush(stdout);
  }
  std::string style(const char* code, const std::string& text) const {
    return plain_ ? text : std::string("\033[") + code + "m" + text + "\033[0m";
  }

  // Registers in columns: name on the left, number on the right.
  void registers(const std::string& indent, const std::vector<Snapshot::Value>& values) {
    const size_t columns = 3, rows = (values.size() + columns - 1) / columns;
    for (size_t row = 0; row < rows; ++row) {
      std::fputs(indent.c_str(), stdout);
      for (size_t i = row; i < values.size(); i += rows) {
        const auto& v = values[i];
        std::printf(" %-23.23s%12s %-4.4s", v.label.c_str(), number(v).c_str(), unit(v).c_str());
      }
      std::puts("");
    }
  }

  // Figures of alike things: a line for each figure, the things side by side.
  void instances(const std::string& indent, const std::vector<Snapshot::Value>& values) {
    std::map<std::string, std::map<std::string, Snapshot::Value>> rows;
    for (const auto& v : values) rows[v.label][v.id] = v;
    for (const auto& row : rows) {
      std::printf("%s %-23.23s", indent.c_str(), row.first.c_str());
      for (const auto& thing : row.second)
        std::printf("  %s %s%s", style("2", thing.first).c_str(), number(thing.second).c_str(),
                    unit(thing.second).c_str());
      std::puts("");
    }
  }

  void texts(const std::string& indent,
             const std::vector<std::pair<std::string, std::string>>& texts) {
    for (const auto& text : texts)
      std::printf("%s %-23.23s  %s\n", indent.c_str(), text.first.c_str(), text.second.c_str());
  }

 private:
  static std::string number(const Snapshot::Value& v) {
    char text[32];
    const size_t slash = v.unit.find('/');
    const double scale = slash == std::string::npos ? 1 : std::atof(v.unit.c_str() + slash + 1);
    std::snprintf(text, sizeof text,
                  scale == 1    ? "%.0f"
                  : scale == 10 ? "%.1f"
                                : "%.2f",
                  v.value / scale);
    return text;
  }
  static std::string unit(const Snapshot::Value& v) { return v.unit.substr(0, v.unit.find('/')); }

  bool plain_;
};

// Whether a node's publisher still shows life: silence of a second is death.
class Liveness {
 public:
  Liveness() {
    record_.updateMode = TREL_UPDATE_BY_COUNTER;
    PLATVAtomicSigned32::init(&record_.seenCounter, 0, 1);
  }
  bool alive(SNodeCB_t* node) {
    const auto now = Clock::now();
    if (trelIsStillBeingUpdated(node, &record_) == 0) last_ = now;
    return now - last_ < std::chrono::seconds(1);
  }

 private:
  WatchRecord_t record_ = {};
  Clock::time_point last_ = Clock::now();
};

class Reader {
 public:
  explicit Reader(const Options& options)
      : options_(options), key_{PLAT_STRUCTURE_TAG, options.key}, screen_(options.plain) {}

  // 0 once the tree's publisher has gone, the time is over or somebody stopped it.
  uint32_t watch() {
    const auto start = Clock::now();
    uint32_t rc = connect();
    while (!rc && !stopped) {
      rc = look();
      if (rc) {
        // The tree may have been replaced by a copy under the same key.
        std::printf("the tree is no longer there: %s; looking for a new one\n",
                    rcdErrorGetDescription(rc));
        disconnect(2);
        if ((rc = connect())) break;
        continue;
      }
      if (!topAlive_) {
        std::puts("the publisher has gone");
        break;
      }
      const std::chrono::duration<double> run = Clock::now() - start;
      if (options_.seconds > 0 && run.count() > options_.seconds) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(options_.plain ? 1000 : 250));
    }
    return stopped ? 0 : rc;
  }

  uint32_t leave() {
    if (!segment_) return 0;
    const uint32_t rc = disconnect(1);
    return rc || !options_.remove || topAlive_ ? rc : trelRemoveStatusSegment(&key_, 2);
  }

 private:
  uint32_t connect() {
    uint32_t rc = 1;
    TopNodeInfo_t info;
    // A publisher that has only just started may not have published its top node yet.
    for (int attempt = 0; rc && attempt < 50 && !stopped; ++attempt) {
      rc = trelConnectToATreeForReading(&segment_, &top_, &info, &key_, 0, nullptr, nullptr);
      if (rc) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (rc) segment_ = nullptr;
    return rc;
  }

  uint32_t disconnect(uint32_t mode) {
    const uint32_t rc = segment_ ? trelDetachFromTopNode(&segment_, mode) : 0;
    segment_ = nullptr;
    return rc;
  }

  uint32_t look() {
    nodes_ = 0;
    screen_.begin();
    if (const uint32_t rc = show(top_, "machine", 0)) return rc;
    find();
    screen_.end();
    return 0;
  }

  // One node, then what hangs below it.
  uint32_t show(SNodeCB_t* node, const std::string& name, int depth) {
    const std::string indent(static_cast<size_t>(depth) * 2, ' ');
    uint32_t condition = 0;
    trelGetNodeCondition(node, &condition);
    Snapshot snapshot;
    if (const uint32_t rc = snapshot.read(node)) return rc;
    const bool alive = liveness_[std::to_string(depth) + name].alive(node);
    if (depth == 0) topAlive_ = alive;
    ++nodes_;
    std::printf("%s%s  [%s] %s  %d updates\n", indent.c_str(), screen_.style("1;36", name).c_str(),
                kConditions[std::min(condition, 5u) % 6],
                alive ? screen_.style("1;32", "* alive").c_str()
                      : screen_.style("1;31", "x silent").c_str(),
                snapshot.updates);
    screen_.texts(indent, snapshot.texts);
    if (depth < 2)
      screen_.registers(indent, snapshot.registers);
    else
      screen_.registers(indent + " ", snapshot.registers);
    screen_.instances(indent, snapshot.instances);
    if (snapshot.mounts.size() > 6) snapshot.mounts.resize(6);
    screen_.texts(indent, snapshot.mounts);
    return showDependents(node, depth + 1);
  }

  // A node that goes while it is looked at is passed over; its parent's list tells of it next time.
  uint32_t showDependents(SNodeCB_t* node, int depth) {
    uint64_t exports = 0, live = 0, capacity = 0, returned = 0;
    if (trelReturnExports(node, &exports) || !(exports & TREL_EXPORT_DEPENDENT)) return 0;
    if (trelReturnNumberOfDependentNodes(node, &live, &capacity, 0) || live == 0) return 0;
    std::vector<SNodeInfo_t> records(live);
    std::vector<uint8_t> ids(live * kIdSpace);
    if (trelReturnDependentNodes(node, records.data(), ids.data(), &returned, &live, live, kIdSpace,
                                 0))
      return 0;
    for (uint64_t i = 0; i < returned; ++i) {
      SNodeCB_t* child = nullptr;
      const std::string name(reinterpret_cast<char*>(&ids[i * kIdSpace]), records[i].idSize);
      if (trelAttachToNode(&records[i], &child) == 0) show(child, name, depth);
    }
    return 0;
  }

  // The three roads to a node: by name wherever it is, by path, and by tag.
  void find() {
    SNodeInfo_t* found = nullptr;
    const auto* name = reinterpret_cast<const uint8_t*>("memory");
    const uint32_t byName = trelFindNodeSoft(&found, top_, kGroupTag, 6, name, 0);
    const uint64_t tag = kGroupTag;
    const char* const path = "processes";
    TraverseInfo_t* road = nullptr;
    uint32_t byPath = trelCreateTraverseInfoArray(&road, &tag, &path, kIdSpace, 1, segment_);
    if (!byPath) {
      byPath = trelFindNodeHard(&found, top_, 1, road, 1);
      trelDeleteTraverseInfoArray(&road, 1, segment_);
    }
    SNodeInfo_t* all[64];
    uint64_t returned = 0, total = 0;
    trelFindNodesByTag(top_, kProcessTag, 0, 64, all, &returned, &total);
    std::printf(
        "%u nodes; found by name: memory %s; by path: processes %s; by tag: %llu processes\n",
        nodes_, byName ? "no" : "yes", byPath ? "no" : "yes",
        static_cast<unsigned long long>(total));
  }

  const Options& options_;
  PLATIPCResID key_;
  Screen screen_;
  ShmSegInfo_t* segment_ = nullptr;
  SNodeCB_t* top_ = nullptr;
  bool topAlive_ = true;
  unsigned nodes_ = 0;
  std::map<std::string, Liveness> liveness_;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!options.parse(argc, argv,
                     "usage: trel_reader KEY [--seconds N] [--plain] [--remove]\n"
                     "--remove removes the segment when its publisher has gone\n"))
    return 2;
  stopOnSignals();
  if (failed("initialise",
             TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION)))
    return 1;
  Reader reader(options);
  uint32_t rc = reader.watch();
  failed("read", rc);
  const uint32_t left = reader.leave();
  if (failed("leave the segment", left)) rc = left;
  TRELCleanup(1);
  return rc ? 1 : 0;
}
