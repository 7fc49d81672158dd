// A fuzzer of the mapped format: damages a segment word by word, runs every operation over it, and
// reports each crash, hang and stray write with a case that shows it again.
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <new>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "operations.h"
#include "reading.h"
#include "worker.h"

extern "C" {
__attribute__((used)) const char* __asan_default_options() {
  return "abort_on_error=1:detect_leaks=0:allocator_may_return_null=1:handle_abort=0";
}
__attribute__((used)) const char* __ubsan_default_options() { return "abort_on_error=1"; }
}

namespace fuzz {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kBatch = 200;
constexpr uint32_t kFirstKey = 0x46550000, kKeys = 32;  // "FU": sixteen keys for each job
constexpr size_t kMostJobs = 16;
constexpr size_t kLine = 3500;  // a line to the pipe is written at once

const char kUsage[] =
    "usage: fuzz [--seconds N] [--cases N] [--seed N] [--mode before|after|race|all] [--jobs N]\n"
    "       fuzz --case 'TEXT'   run one case, as a finding printed it\n"
    "       fuzz --corpus FILE   run the cases of a file, lines of NAME: TEXT\n"
    "       fuzz --words         list the classes of words\n"
    "       fuzz --reading       run every operation on a victim that may only be read\n";

struct Options {
  double seconds = 0;
  uint64_t cases = UINT64_MAX, seed = 1;
  std::string mode = "all", text, corpus;
  size_t jobs = std::thread::hardware_concurrency();
  bool words = false, reading = false;
};

Options readOptions(int count, char** arguments) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string name = arguments[i];
    const auto value = [&] {
      if (i + 1 == count) throw std::runtime_error(name + " takes a value");
      return std::string(arguments[++i]);
    };
    if (name == "--seconds")
      options.seconds = std::stod(value());
    else if (name == "--cases")
      options.cases = std::stoull(value());
    else if (name == "--seed")
      options.seed = std::stoull(value());
    else if (name == "--mode")
      options.mode = value();
    else if (name == "--jobs")
      options.jobs = std::stoul(value());
    else if (name == "--case")
      options.text = value();
    else if (name == "--corpus")
      options.corpus = value();
    else if (name == "--words")
      options.words = true;
    else if (name == "--reading")
      options.reading = true;
    else
      throw std::runtime_error(kUsage);
  }
  if (options.jobs < 1 || options.jobs > kMostJobs) throw std::runtime_error("--jobs is 1 to 16");
  if (!options.seconds && options.cases == UINT64_MAX) options.seconds = 60;
  return options;
}

Board* makeBoards(size_t count) {
  void* const place = mmap(nullptr, count * sizeof(Board), PROT_READ | PROT_WRITE,
                           MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (place == MAP_FAILED) throw std::bad_alloc();
  auto* boards = static_cast<Board*>(place);
  for (size_t i = 0; i < count; ++i) new (&boards[i]) Board();
  return boards;
}

// Keys that no other run of this program has.
uint32_t keysOf(size_t job) {
  return kFirstKey ^ static_cast<uint32_t>(getpid()) << 9 ^ static_cast<uint32_t>(job * kKeys);
}

std::string howToSee(const Death& death) {
  if (death.drawn.mode == Mode::race)
    return "fuzz --case '" + textOf(death.drawn) + "'  (of chance)";
  if (death.batchStart == death.drawn.seed) return "fuzz --case '" + textOf(death.drawn) + "'";
  return "not alone; after the cases from seed " + std::to_string(death.batchStart) +
         " on: " + textOf(death.drawn);
}

// ---- Many cases, by several processes --------------------------------------------------------

// Mode of the n-th batch.
Mode modeOf(const std::string& name, uint64_t batch) {
  for (Mode mode : {Mode::before, Mode::after, Mode::race})
    if (name == nameOf(mode)) return mode;
  if (name != "all") throw std::runtime_error("no mode: " + name);
  return static_cast<Mode>(batch % 3);
}

// Takes every jobs-th batch until the time is over. Each death becomes one line on the pipe.
void work(const Options& options, size_t job, uint32_t keys, Board* board, int pipe) {
  const auto start = Clock::now();
  Worker worker(keys, board);
  const auto tell = [&](const Death& death) {
    std::string line = death.cause + "\t" + howToSee(death) + "\t" + death.stack;
    std::replace(line.begin(), line.end(), '\n', '|');
    line.resize(std::min(line.size(), kLine));
    line += '\n';
    if (write(pipe, line.data(), line.size()) < 0) _exit(1);
  };
  for (uint64_t batch = job; batch * kBatch < options.cases; batch += options.jobs) {
    const std::chrono::duration<double> ran = Clock::now() - start;
    if (options.seconds && ran.count() > options.seconds) return;
    const Mode mode = modeOf(options.mode, batch);
    // A race runs many rounds of one damage, so there are fewer of them.
    const uint64_t all = std::min(kBatch, options.cases - batch * kBatch);
    worker.runBatch(mode, options.seed + batch * kBatch, mode == Mode::race ? (all + 9) / 10 : all,
                    1, tell);
  }
}

struct Cause {
  uint64_t count = 0;
  std::string first;
};
using Causes = std::map<std::string, Cause>;

void take(const std::string& line, Causes* causes) {
  std::istringstream in(line);
  std::string cause, how, stack;
  std::getline(in, cause, '\t');
  std::getline(in, how, '\t');
  std::getline(in, stack);
  Cause& known = (*causes)[cause];
  if (known.count++) return;
  known.first = how;
  std::replace(stack.begin(), stack.end(), '|', '\n');
  printf("FINDING %zu: %s\n  %s\n%s\n", causes->size(), cause.c_str(), how.c_str(), stack.c_str());
  fflush(stdout);
}

int fuzzMany(const Options& options) {
  Board* const boards = makeBoards(options.jobs);
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("pipe");
  const auto start = Clock::now();
  const uint32_t keys = keysOf(0);
  for (size_t job = 0; job < options.jobs; ++job) {
    if (fork()) continue;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    close(ends[0]);
    int code = 0;
    try {
      work(options, job, keys ^ static_cast<uint32_t>(job * kKeys), &boards[job], ends[1]);
    } catch (const std::exception& error) {
      fprintf(stderr, "fuzz: %s\n", error.what());
      code = 1;
    }
    _exit(code);
  }
  close(ends[1]);
  Causes causes;
  FILE* const lines = fdopen(ends[0], "r");
  char line[kLine + 2];
  while (fgets(line, sizeof line, lines)) take(std::string(line, strcspn(line, "\n")), &causes);
  bool isBroken = false;
  for (int status; wait(&status) > 0;) isBroken |= status != 0;

  uint64_t cases = 0, operations = 0;
  for (size_t job = 0; job < options.jobs; ++job) {
    cases += boards[job].cases;
    operations += boards[job].operations;
  }
  const std::chrono::duration<double> ran = Clock::now() - start;
  for (const auto& [cause, known] : causes)
    printf("%8lu times %s\n         %s\n", static_cast<unsigned long>(known.count), cause.c_str(),
           known.first.c_str());
  printf("%lu cases, %lu operations in %.0f s; %zu causes of findings\n",
         static_cast<unsigned long>(cases), static_cast<unsigned long>(operations), ran.count(),
         causes.size());
  return isBroken || !causes.empty();
}

// ---- Cases by name ---------------------------------------------------------------------------

int runOne(const std::string& text) {
  Worker worker(keysOf(0), makeBoards(1));
  Death death;
  if (!worker.runAlone(parseCase(text), true, &death)) {
    puts("no finding");
    return 0;
  }
  printf("%s\n%s", death.cause.c_str(), death.stack.c_str());
  return 1;
}

int runCorpus(const std::string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot read " + file);
  Worker worker(keysOf(0), makeBoards(1));
  int count = 0, failed = 0, open = 0;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t colon = line.find(": ");
    if (colon == std::string::npos) throw std::runtime_error("no case: " + line);
    ++count;
    Death death;
    if (!worker.runAlone(parseCase(line.substr(colon + 2)), false, &death)) continue;
    ++(line[0] == '?' ? open : failed);
    printf("%s\n  %s\n%s", line.c_str(), death.cause.c_str(), death.stack.c_str());
  }
  printf("%d cases, %d with a finding, and %d that are known to have one\n", count, failed, open);
  return failed != 0;
}

int listWords() {
  Worker worker(keysOf(0), makeBoards(1));
  for (const auto& [name, words] : worker.world().words)
    printf("%-36s %zu\n", name.c_str(), words.size());
  return 0;
}

int run(int count, char** arguments) {
  const Options options = readOptions(count, arguments);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  for (const std::string& name : missingOperations())
    throw std::runtime_error("tools/fuzz has no row for " + name);
  if (options.words) return listWords();
  if (options.reading) return !sweepForReading(keysOf(0));
  if (!options.text.empty()) return runOne(options.text);
  if (!options.corpus.empty()) return runCorpus(options.corpus);
  return fuzzMany(options);
}

}  // namespace
}  // namespace fuzz

int main(int count, char** arguments) {
  try {
    return fuzz::run(count, arguments);
  } catch (const std::exception& error) {
    fprintf(stderr, "%s\n", error.what());
    return 2;
  }
}
