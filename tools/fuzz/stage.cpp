#include "stage.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace fuzz {

Outs::Outs() {
  const size_t step = kRoom + kPage;
  void* const all = mmap(nullptr, kSlots * step, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (all == MAP_FAILED) throw std::bad_alloc();
  slots_ = static_cast<uint8_t*>(all);
  for (size_t i = 0; i < kSlots; ++i) mprotect(slots_ + i * step + kRoom, kPage, PROT_NONE);
}

uint8_t* Outs::take(uint64_t size) {
  if (used_ == kSlots || size > kRoom - kCanary) return nullptr;
  uint8_t* const buffer = slots_ + used_ * (kRoom + kPage) + kRoom - size;
  memset(buffer - kCanary, 0xa5, kCanary);
  memset(buffer, 0, std::min<uint64_t>(size, 256));
  sizes_[used_] = size;
  return taken_[used_++] = buffer;
}

std::vector<std::string> Outs::contents() const {
  std::vector<std::string> all;
  for (size_t i = 0; i < used_; ++i)
    all.emplace_back(reinterpret_cast<const char*>(taken_[i]), sizes_[i]);
  return all;
}

bool Outs::areWhole() const {
  return std::all_of(taken_, taken_ + used_, [](const uint8_t* buffer) {
    return std::all_of(buffer - kCanary, buffer, [](uint8_t byte) { return byte == 0xa5; });
  });
}

Stage::Stage(const World& made, uint64_t seed, bool racing)
    : world(made), random(seed), isRacing(racing), key(made.victim.key) {
  static const size_t kTargets[] = {kHashed, kHashed, kFlat, kFlat, kMiddle, kLeaf};
  target = kTargets[random.below(std::size(kTargets))];
}

void Stage::useSegment(ShmSegInfo_t* attached) {
  seg = attached;
  domain = seg->shmDomainHandle;
  pool = seg->shmPoolHandle;
  base = static_cast<uint8_t*>(domain->base);
  poolOffset = world.map.poolOffset;
  const auto at = [&](size_t which) {
    return reinterpret_cast<SNodeCB_t*>(base + world.nodes[which]);
  };
  node = at(target);
  top = at(kHashed);
  middle = at(kMiddle);
}

void Stage::drawArguments() {
  static const struct {
    uint64_t tag;
    const char* id;
  } kNames[] = {{2, "flat"}, {3, "middle"}, {4, "leaf"}, {5, "other"}, {9, "absent"}};
  const auto& name = kNames[random.below(std::size(kNames))];
  nodeTag = name.tag;
  nodeId = name.id;
  tag = 1 + random.below(kTags + 1);
  outs.fresh();
}

}  // namespace fuzz
