#include "machine.h"

#include <dirent.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace {

std::vector<std::string> lines(const std::string& path) {
  std::vector<std::string> result;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  return result;
}

std::string firstLine(const std::string& path) {
  const auto all = lines(path);
  return all.empty() ? std::string() : all[0];
}

std::vector<std::string> words(const std::string& line) {
  std::istringstream in(line);
  std::vector<std::string> result;
  for (std::string word; in >> word;) result.push_back(word);
  return result;
}

int32_t clip(double value) {
  return static_cast<int32_t>(std::max(-2147483648.0, std::min(2147483647.0, value)));
}

double seconds(const std::string& jiffies) {
  return std::strtod(jiffies.c_str(), nullptr) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

const char* const kCpuStates[] = {"user", "nice",    "system", "idle",  "waiting for disks",
                                  "irq",  "softirq", "steal",  "guest", "guest nice"};

}  // namespace

Group readHost() {
  Group group{"host", {}, {}, {}, {}};
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  group.texts = {{"host name", name},
                 {"kernel", firstLine("/proc/sys/kernel/osrelease")},
                 {"kernel build", firstLine("/proc/sys/kernel/version")}};
  const auto load = words(firstLine("/proc/loadavg"));
  const char* const spans[] = {"1 min", "5 min", "15 min"};
  for (size_t i = 0; i < 3 && i < load.size(); ++i)
    group.registers.push_back({std::string("load average, ") + spans[i], "/100",
                               clip(100 * std::strtod(load[i].c_str(), nullptr))});
  if (load.size() > 3) {
    const size_t slash = load[3].find('/');
    group.registers.push_back({"tasks running", "", std::atoi(load[3].c_str())});
    group.registers.push_back({"tasks", "", std::atoi(load[3].c_str() + slash + 1)});
  }
  const auto uptime = words(firstLine("/proc/uptime"));
  if (!uptime.empty())
    group.registers.push_back({"uptime", "s", clip(std::strtod(uptime[0].c_str(), nullptr))});
  return group;
}

Group readCpu() {
  Group group{"cpu", {}, {}, {}, {}};
  for (const auto& line : lines("/proc/stat")) {
    const auto w = words(line);
    if (w.size() < 2) continue;
    if (w[0].compare(0, 3, "cpu") == 0) {
      for (size_t i = 0; i < 10 && i + 1 < w.size(); ++i) {
        const int32_t value = clip(10 * seconds(w[i + 1]));
        if (w[0] == "cpu")
          group.registers.push_back({std::string("time in ") + kCpuStates[i], "s/10", value});
        else if (i < 4)
          group.instances.push_back({std::string("time in ") + kCpuStates[i], "s/10", w[0], value});
      }
    } else if (w[0] == "ctxt") {
      group.registers.push_back(
          {"context switches", "k", clip(std::strtod(w[1].c_str(), nullptr) / 1000)});
    } else if (w[0] == "processes") {
      group.registers.push_back({"forks", "", clip(std::strtod(w[1].c_str(), nullptr))});
    } else if (w[0] == "procs_running" || w[0] == "procs_blocked") {
      group.registers.push_back({w[0], "", std::atoi(w[1].c_str())});
    }
  }
  for (const auto& line : lines("/proc/cpuinfo"))
    if (line.compare(0, 10, "model name") == 0) {
      group.texts.push_back({"model", line.substr(std::min(line.size(), line.find(':') + 2))});
      break;
    }
  return group;
}

Group readMemory() {
  Group group{"memory", {}, {}, {}, {}};
  for (const auto& line : lines("/proc/meminfo")) {
    const auto w = words(line);
    if (w.size() == 3 && group.registers.size() < 40)
      group.registers.push_back(
          {w[0].substr(0, w[0].size() - 1), "KiB", clip(std::strtod(w[1].c_str(), nullptr))});
  }
  return group;
}

Group readDisks() {
  Group group{"disks", {}, {}, {}, {}};
  for (const auto& line : lines("/proc/diskstats")) {
    const auto w = words(line);
    if (w.size() < 10 || w[3] == "0" || group.instances.size() >= 64) continue;
    group.instances.push_back({"read", "KiB", w[2], clip(std::strtod(w[5].c_str(), nullptr) / 2)});
    group.instances.push_back(
        {"written", "KiB", w[2], clip(std::strtod(w[9].c_str(), nullptr) / 2)});
  }
  for (const auto& line : lines("/proc/mounts")) {
    const auto w = words(line);
    if (w.size() > 2 && group.mounts.size() < 24)
      group.mounts.push_back({w[1], w[2] + " on " + w[0]});
  }
  struct statvfs root;
  if (statvfs("/", &root) == 0) {
    const double mib = static_cast<double>(root.f_frsize) / 1048576.0;
    group.registers = {{"size of /", "MiB", clip(mib * static_cast<double>(root.f_blocks))},
                       {"free in /", "MiB", clip(mib * static_cast<double>(root.f_bfree))}};
  }
  return group;
}

Group readNetwork() {
  Group group{"network", {}, {}, {}, {}};
  double received = 0, sent = 0;
  for (const auto& line : lines("/proc/net/dev")) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const auto w = words(line.substr(colon + 1));
    if (w.size() < 16 || group.instances.size() >= 64) continue;
    const std::string name = words(line.substr(0, colon))[0];
    const double rx = std::strtod(w[0].c_str(), nullptr) / 1024;
    const double tx = std::strtod(w[8].c_str(), nullptr) / 1024;
    received += rx;
    sent += tx;
    group.instances.push_back({"received", "KiB", name, clip(rx)});
    group.instances.push_back({"packets received", "", name, std::atoi(w[1].c_str())});
    group.instances.push_back({"sent", "KiB", name, clip(tx)});
    group.instances.push_back({"packets sent", "", name, std::atoi(w[9].c_str())});
  }
  group.registers = {{"received in all", "KiB", clip(received)},
                     {"sent in all", "KiB", clip(sent)}};
  return group;
}

std::vector<Busy> readBusiest(size_t count) {
  using Clock = std::chrono::steady_clock;
  static std::map<int, double> before;
  static Clock::time_point last = Clock::now();
  const double span = std::max(0.05, std::chrono::duration<double>(Clock::now() - last).count());
  last = Clock::now();

  std::map<int, double> now;
  std::vector<Busy> all;
  DIR* proc = opendir("/proc");
  if (!proc) return all;
  while (const dirent* entry = readdir(proc)) {
    const int pid = std::atoi(entry->d_name);
    if (pid <= 0) continue;
    const std::string stat = firstLine("/proc/" + std::string(entry->d_name) + "/stat");
    const size_t open = stat.find('('), close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos) continue;
    const auto w = words(stat.substr(close + 1));
    if (w.size() < 22) continue;
    now[pid] = seconds(w[11]) + seconds(w[12]);
    const auto seen = before.find(pid);
    const double used = seen == before.end() ? 0 : now[pid] - seen->second;
    all.push_back({pid, stat.substr(open + 1, close - open - 1), clip(1000 * used / span),
                   clip(std::strtod(w[21].c_str(), nullptr) *
                        static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024)});
  }
  closedir(proc);
  before = now;
  std::sort(all.begin(), all.end(), [](const Busy& a, const Busy& b) {
    return a.permille != b.permille ? a.permille > b.permille : a.residentKiB > b.residentKiB;
  });
  if (all.size() > count) all.resize(count);
  return all;
}
