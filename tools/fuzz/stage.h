// What one operation of one case works with: the attachment, the node, arguments, and room for what
// it hands out, which ends at a page that nobody may touch.
#pragma once

#include <cstring>

#include "world.h"

namespace fuzz {

// Buffers of exactly the size that an operation is told of. Behind each lies a page without access,
// in front of it bytes that must stay as they are.
class Outs {
 public:
  Outs();
  // Null if that much is more than anything here can need.
  uint8_t* take(uint64_t size);
  void fresh() { used_ = 0; }
  bool areWhole() const;
  std::vector<std::string> contents() const;

 private:
  static constexpr size_t kSlots = 12, kRoom = 0x20000, kPage = 4096, kCanary = 64;
  uint8_t* slots_ = nullptr;
  uint8_t* taken_[kSlots] = {};
  uint64_t sizes_[kSlots] = {};
  size_t used_ = 0;
};

struct Stage {
  Stage(const World& made, uint64_t seed, bool racing);

  const World& world;
  Random random;
  const bool isRacing;
  Outs outs;
  PLATIPCResID key;  // of the victim, or of what is left of it
  ShmSegInfo_t* seg = nullptr;
  ShmDomainHandle_t* domain = nullptr;
  ShmPoolHandle_t* pool = nullptr;
  uint8_t* base = nullptr;
  SNodeCB_t *node = nullptr, *top = nullptr, *middle = nullptr;
  uint64_t poolOffset = 0;
  uint64_t tag = 1;         // of a property, there or not
  uint64_t nodeTag = 1;     // of a node of the tree
  const char* nodeId = "";  // and its identifier
  SNodeInfo_t record = {};  // names the node `flat` in process memory
  HdmModuleRecord_t module = {"/module", {}};
  uint8_t value[64] = {'w'};
  size_t target = kHashed;

  void useSegment(ShmSegInfo_t* attached);
  void drawArguments();

  template <class T>
  T* out(uint64_t count = 1) {
    return reinterpret_cast<T*>(outs.take(count * sizeof(T)));
  }
  const uint8_t* id() const { return idOf(tag); }
  uint64_t idSize() const { return strlen(nodeId); }
  const uint8_t* nodeIdBytes() const { return asBytes(nodeId); }
  template <class T>
  T* heldRecord(uint64_t Held::*kind) const {
    return reinterpret_cast<T*>(base + world.held[target == kFlat].*kind);
  }
  // A limit as the caller learns it, or while it moves whatever can be of use.
  uint64_t roomFor(uint64_t told) const { return isRacing ? world.victim.image.size() : told; }

  // What the library hands out can be touched.
  template <class T>
  void look(const T* place) const {
    if (!place) return;
    const auto* bytes = reinterpret_cast<const volatile uint8_t*>(place);
    (void)bytes[0];
    (void)bytes[sizeof(T) - 1];
  }
};

}  // namespace fuzz
