// Connects to a status segment by its key, reads it in place, and prints it until told to stop.
#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "program.h"
#include "snapshot.h"
#include "status_node.h"

namespace {

class Screen {
 public:
  explicit Screen(bool plain) : plain_(plain) {}

  void begin() {
    if (!plain_) std::fputs("\033[H\033[2J", stdout);
  }
  void end() { std::fflush(stdout); }
  std::string style(const char* code, const std::string& text) const {
    return plain_ ? text : std::string("\033[") + code + "m" + text + "\033[0m";
  }
  void heading(const std::string& text) { std::printf("\n%s\n", style("1;36", text).c_str()); }

  // Registers in columns: name on the left, number on the right.
  void registers(const std::vector<Snapshot::Value>& values) {
    const size_t columns = 2, rows = (values.size() + columns - 1) / columns;
    for (size_t row = 0; row < rows; ++row) {
      for (size_t i = row; i < values.size(); i += rows) {
        const auto& v = values[i];
        std::printf("  %-30.30s %14s %-4.4s", v.label.c_str(), number(v).c_str(), unit(v).c_str());
      }
      std::puts("");
    }
  }

  // Figures of alike things: a row for each thing, a column for each figure.
  void instances(const std::vector<Snapshot::Value>& values) {
    std::set<std::string> labels;
    std::map<std::string, std::map<std::string, Snapshot::Value>> rows;
    for (const auto& v : values) {
      labels.insert(v.label);
      rows[v.id][v.label] = v;
    }
    for (const auto& label : labels) {
      std::set<std::string> ids;
      for (const auto& row : rows)
        if (row.second.count(label)) ids.insert(row.first);
      std::printf("  %-30.30s", label.c_str());
      for (const auto& id : ids) {
        const auto& v = rows[id][label];
        std::printf(" %s %s%s", style("2", id).c_str(), number(v).c_str(), unit(v).c_str());
      }
      std::puts("");
    }
  }

 private:
  static std::string number(const Snapshot::Value& v) {
    char text[32];
    if (v.unit.find("/100") != std::string::npos)
      std::snprintf(text, sizeof text, "%.2f", v.value / 100.0);
    else if (v.unit.find("/10") != std::string::npos)
      std::snprintf(text, sizeof text, "%.1f", v.value / 10.0);
    else
      std::snprintf(text, sizeof text, "%d", v.value);
    return text;
  }
  static std::string unit(const Snapshot::Value& v) { return v.unit.substr(0, v.unit.find('/')); }

  bool plain_;
};

// Whether the publisher still shows life: silence of a second is death.
class Liveness {
 public:
  Liveness() {
    record_.updateMode = TREL_UPDATE_BY_COUNTER;
    PLATVAtomicSigned32::init(&record_.seenCounter, 0, 1);
  }
  bool alive(SNodeCB_t* node) {
    const auto now = std::chrono::steady_clock::now();
    if (trelIsStillBeingUpdated(node, &record_) == 0) last_ = now;
    return now - last_ < std::chrono::seconds(1);
  }

 private:
  WatchRecord_t record_ = {};
  std::chrono::steady_clock::time_point last_ = std::chrono::steady_clock::now();
};

void print(Screen* screen, const Snapshot& snapshot, bool alive) {
  screen->begin();
  const std::string state =
      alive ? screen->style("1;32", "* alive") : screen->style("1;31", "x no sign of life");
  std::printf("%s   publisher %s, %d updates\n", screen->style("1", snapshot.title).c_str(),
              state.c_str(), snapshot.updates);
  for (const auto& text : snapshot.texts)
    std::printf("  %-16s %s\n", text.first.c_str(), text.second.c_str());
  screen->heading("registers (" + std::to_string(snapshot.registers.size()) + ")");
  screen->registers(snapshot.registers);
  screen->heading("by instance");
  screen->instances(snapshot.instances);
  screen->heading("mounts");
  for (const auto& mount : snapshot.mounts)
    std::printf("  %-30s %s\n", mount.first.c_str(), mount.second.c_str());
  screen->end();
}

uint32_t watch(SNodeCB_t* node, const Options& options) {
  Screen screen(options.plain);
  Liveness liveness;
  const auto start = std::chrono::steady_clock::now();
  for (bool alive = true; alive && !stopped;) {
    Snapshot snapshot;
    if (const uint32_t rc = snapshot.read(node)) return rc;
    alive = liveness.alive(node);
    print(&screen, snapshot, alive);
    if (!alive) std::puts("\nthe publisher has gone");
    const std::chrono::duration<double> run = std::chrono::steady_clock::now() - start;
    if (options.seconds > 0 && run.count() > options.seconds) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(options.plain ? 1000 : 250));
  }
  return 0;
}

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

  ShmSegInfo_t* segment = nullptr;
  SNodeCB_t* node = nullptr;
  TopNodeInfo_t top;
  const PLATIPCResID key = {PLAT_STRUCTURE_TAG, options.key};
  // A publisher that has only just started may not have published its top node yet.
  uint32_t rc = 1;
  for (int attempt = 0; rc && attempt < 20 && !stopped; ++attempt) {
    rc = trelConnectToATree(&segment, &node, &top, &key, 0, nullptr, nullptr);
    if (rc) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  if (!failed("connect", rc)) {
    rc = watch(node, options);
    failed("read", rc);
    const uint32_t left = options.remove && !stopped ? trelDeleteStatusSegment(&segment, 4, 2, 2)
                                                     : trelDetachFromTopNode(&segment, 1);
    if (failed("leave the segment", left)) rc = left;
  }
  TRELCleanup(1);
  return rc ? 1 : 0;
}
