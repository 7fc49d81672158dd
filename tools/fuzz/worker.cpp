#include "worker.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>

#include "platsvc/report.h"
#include "runner.h"
#include "stack.h"

namespace fuzz {
namespace {

void silence() {
  const int nowhere = open("/dev/null", O_WRONLY);
  dup2(nowhere, STDOUT_FILENO);
  dup2(nowhere, STDERR_FILENO);
  close(nowhere);
}

}  // namespace

const World& Worker::world() {
  if (!world_ || board_->isWorldGone.exchange(0)) {
    world_.reset();
    world_ = std::make_unique<World>(firstKey_);
  }
  return *world_;
}

void Worker::runBatch(Mode mode, uint64_t first, uint64_t count, uint64_t step,
                      const std::function<void(const Death&)>& tell) {
  for (uint64_t done = 0; done < count;) {
    const uint64_t start = first + done * step;
    const World& made = world();
    Death death;
    board_->seed = start;
    const bool isDead = runInChild(
        [&](Runner& runner) {
          for (uint64_t i = done; i < count && !board_->isWorldGone; ++i)
            runner.run(drawCase(made.words, mode, first + i * step));
        },
        false, &death);
    done = (board_->seed - first) / step + 1;
    if (!isDead) continue;
    const Case drawn = drawCase(made.words, mode, board_->seed);
    death.drawn = drawn;
    death.batchStart = start;
    Death again;
    if (mode != Mode::race && runAlone(drawn, false, &again)) death = again;
    tell(death);
  }
}

bool Worker::runAlone(const Case& drawn, bool isLoud, Death* death) {
  world();
  const bool isDead = runInChild([&](Runner& runner) { runner.run(drawn); }, isLoud, death);
  death->drawn = drawn;
  death->batchStart = drawn.seed;
  return isDead;
}

bool Worker::runInChild(const std::function<void(Runner&)>& work, bool isLoud, Death* death) {
  board_->finding = {};
  board_->race.count = 0;
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (isLoud) {
      flowlogAttach([](const char* line) { fprintf(stderr, "%s\n", line); });
      flowlogEnable(1);
    } else {
      silence();
    }
    noteSignals(board_);
    try {
      Runner runner(*world_, board_);
      work(runner);
    } catch (const std::exception& error) {
      endWith(board_, error.what());
    }
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return false;
  Finding& finding = board_->finding;
  if (WIFSIGNALED(status)) finding.signal = WTERMSIG(status);
  if (WIFEXITED(status) && WEXITSTATUS(status) != kFound) strcpy(finding.text, "an exit");
  death->cause = causeOf(finding, board_->operation);
  death->stack = stackOf(finding);
  world_->removeFreeKeys();
  return true;
}

}  // namespace fuzz
