#include "runner.h"

#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "stack.h"

namespace fuzz {
namespace {

constexpr size_t kGuard = sizeof(void*) == 8 ? size_t{1} << 30 : size_t{1} << 24;
constexpr unsigned kHang = 10;    // seconds for a case
constexpr unsigned kSlowest = 4;  // operations that may wait long before a case ends
constexpr auto kSlow = std::chrono::milliseconds(50);
constexpr int kRounds = 20;  // of all operations in a race

// What was mapped there is gone.
void reserve(void* place, size_t size) {
  mmap(place, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
}

// A segment of its own with the first bytes of the victim.
void makeTruncated(const World& world, const PLATIPCResID& key, uint64_t size) {
  const int id = shmget(static_cast<key_t>(key.key), size, IPC_CREAT | IPC_EXCL | 0600);
  void* const place = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
  if (place == reinterpret_cast<void*>(-1)) throw std::runtime_error("no truncated segment");
  memcpy(place, world.victim.bytes, size);
  shmdt(place);
}

}  // namespace

Runner::Runner(const World& world, Board* board)
    : world_(world), board_(board), holeSize_(world.victim.image.size()) {
  void* const all = mmap(nullptr, 2 * kGuard + holeSize_, PROT_NONE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (all == MAP_FAILED) throw std::runtime_error("no room for guards");
  hole_ = static_cast<uint8_t*>(all) + kGuard;
}

Runner::~Runner() {
  if (flipper_ <= 0) return;
  kill(flipper_, SIGKILL);
  waitpid(flipper_, nullptr, 0);
}

void Runner::run(const Case& drawn) {
  const std::vector<Patch> patches = patchesOf(drawn, world_.words, world_.victim.image);
  const auto damage = [&](uint8_t* bytes) {
    for (const Patch& patch : patches)
      store(bytes + patch.word.offset, patch.word.width, patch.value);
  };
  board_->seed = drawn.seed;
  board_->operation = "attach";
  slow_ = 0;
  alarm(kHang);
  for (const RawSegment* segment : {&world_.victim, &world_.other, &world_.neighbour})
    segment->restore();
  Stage s(world_, drawn.seed, drawn.mode == Mode::race);
  for (const Patch& patch : patches)  // a damaged node is looked at
    for (size_t i = 0; i < kNodes; ++i)
      if (patch.word.origin == world_.nodes[i]) s.target = i;
  ShmSegInfo_t* sound = nullptr;
  TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION);
  if (trelAttachStatusSegment(&sound, &world_.neighbour.key, 0, 0, 0, nullptr, nullptr))
    throw std::runtime_error("the sound neighbour cannot be attached");
  const Image neighbour(world_.neighbour.bytes,
                        world_.neighbour.bytes + world_.neighbour.image.size());

  if (drawn.mode == Mode::before) {
    damage(world_.victim.bytes);
    const uint64_t left = sizeLeft(drawn, holeSize_);
    if (left < holeSize_) makeTruncated(world_, s.key = world_.freeKey(4), left);
  }
  attach(s, drawn.mode);
  if (drawn.mode == Mode::after) damage(world_.victim.bytes);
  if (drawn.mode == Mode::race) startRace(patches);
  for (int round = drawn.mode == Mode::race ? kRounds : 1; round; --round)
    for (Phase phase : {Phase::door, Phase::read, Phase::write}) operate(s, phase);
  operate(s, Phase::end);
  board_->race.count = 0;

  board_->operation = "the case as a whole";
  if (memcmp(neighbour.data(), world_.neighbour.bytes, neighbour.size()) != 0)
    endWith(board_, "a stray write into a sound segment");
  board_->operation = "detach";
  trelDetachStatusSegment(&sound, 2);
  detach(s);
  alarm(0);
  ++board_->cases;
}

void Runner::attach(Stage& s, Mode mode) {
  SNodeCB_t* node = nullptr;
  TopNodeInfo_t top;
  ShmSegInfo_t* seg = nullptr;
  const auto address = reinterpret_cast<uintptr_t>(hole_);
  munmap(hole_, holeSize_);
  if (trelConnectToATree(&seg, &node, &top, &s.key, address, nullptr, nullptr) &&
      trelAttachStatusSegment(&seg, &s.key, address, 0, 0, nullptr, nullptr)) {
    if (mode != Mode::before) throw std::runtime_error("the sound victim cannot be attached");
    return;
  }
  s.useSegment(seg);
  if (mode == Mode::before) return;
  // A record that was found while all was sound.
  SNodeInfo_t* found = nullptr;
  if (trelFindNodeSoft(&found, s.top, 2, 4, asBytes("flat"), 0)) return;
  s.record = *found;
  s.record.segBase = reinterpret_cast<uintptr_t>(s.base);
  s.record.selfOffset = 0;
}

void Runner::detach(Stage& s) {
  if (s.seg) trelDetachStatusSegment(&s.seg, 2);
  TRELCleanup(2);
  shmdt(hole_);
  reserve(hole_, holeSize_);
  world_.removeFreeKeys();
  if (shmget(static_cast<key_t>(world_.victim.key.key), 0, 0) < 0 ||
      shmget(static_cast<key_t>(world_.other.key.key), 0, 0) < 0)
    board_->isWorldGone = 1;
}

void Runner::operate(Stage& s, Phase phase) {
  const size_t count = operations_.size(), first = s.random.below(count);
  for (size_t i = 0; i < count; ++i) {
    const Operation& operation = operations_[(first + i) % count];
    if (operation.phase != phase || slow_ >= kSlowest) continue;
    if (!s.seg && phase != Phase::door) return;
    board_->operation = operation.name;
    s.drawArguments();
    const auto start = std::chrono::steady_clock::now();
    operation.run(s);
    slow_ += std::chrono::steady_clock::now() - start > kSlow;
    ++board_->operations;
    if (!s.outs.areWhole()) endWith(board_, "a write in front of an out buffer");
  }
}

void Runner::startRace(const std::vector<Patch>& patches) {
  if (!flipper_) makeFlipper();
  uint32_t count = 0;
  for (const Patch& patch : patches) {
    if (count == std::size(board_->race.flips)) break;
    board_->race.flips[count++] = {patch.word.offset,
                                   load(&world_.victim.image[patch.word.offset], patch.word.width),
                                   patch.value, patch.word.width};
  }
  board_->race.count = count;
}

void Runner::makeFlipper() {
  flipper_ = fork();
  if (flipper_) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (Race& race = board_->race;;) {
    const uint32_t count = race.count;
    if (!count) sched_yield();
    for (uint32_t i = 0; i < count; ++i) {
      const Race::Flip& flip = race.flips[i];
      store(world_.victim.bytes + flip.offset, flip.width, flip.damaged);
      store(world_.victim.bytes + flip.offset, flip.width, flip.sound);
    }
  }
}

}  // namespace fuzz
