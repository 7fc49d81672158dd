#include "world.h"

#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace fuzz {
namespace {

constexpr uint32_t kVictimSize = 0x18000, kOtherSize = 0x8000, kNeighbourSize = 0x8000;
constexpr uint32_t kFreeKeys = 12;
const char* const kNames[] = {"hashed", "flat", "middle", "leaf"};

void must(uint32_t code, const char* what) {
  if (!code) return;
  fprintf(stderr, "fuzz: no world: %s: %s\n", what, trelPrintrc(code));
  _exit(1);
}
#define MUST(call) must(call, #call)

// Makes the segments. It runs in a process of its own, which ends without a detach.
class Builder {
 public:
  Builder(const PLATIPCResID& victim, const PLATIPCResID& other, const PLATIPCResID& neighbour) {
    MUST(TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION));
    victim_ = segment(victim, kVictimSize);
    other_ = segment(other, kOtherSize);
    SNodeCB_t* nodes[kNodes];
    nodes[kHashed] = full(kHashed, 1, true);
    nodes[kFlat] = full(kFlat, 2, false);
    nodes[kMiddle] = small(victim_, "middle", 3);
    nodes[kLeaf] = small(victim_, "leaf", 4);
    adopt(nodes[kHashed], "hashed", victim_, nodes[kFlat], "flat", victim_);
    adopt(nodes[kHashed], "hashed", victim_, nodes[kMiddle], "middle", victim_);
    adopt(nodes[kMiddle], "middle", victim_, nodes[kLeaf], "leaf", victim_);
    SNodeCB_t* far = small(other_, "other", 5);
    adopt(nodes[kMiddle], "middle", victim_, far, "other", other_);
    publish(other_, far);
    publish(victim_, nodes[kHashed]);
    describe(victim_);
    for (size_t i = 0; i < kNodes; ++i) offsets[i] = nodes[i]->nodeOffset;
    held = {holdRecords(nodes[kHashed]), holdRecords(nodes[kFlat])};
    poolOffset = victim_->shmPoolHandle->poolOffset;
    ShmSegInfo_t* sound = segment(neighbour, kNeighbourSize);
    publish(sound, small(sound, "sound", 6));
  }

  std::array<uint64_t, kNodes> offsets{};
  std::array<Held, 2> held{};
  uint64_t poolOffset = 0;

 private:
  static ShmSegInfo_t* segment(const PLATIPCResID& key, uint32_t size) {
    ShmSegInfo_t* made = nullptr;
    MUST(trelGetProtectedStatusSegment(&made, size, &key, 0, 0, nullptr, nullptr));
    MUST(trelSetShmDebug(made->shmPoolHandle->base, TREL_HEAP_POOL, made->shmPoolHandle->poolOffset,
                         0, TREL_PAD_FILE_GUARD, 1, 1));
    return made;
  }
  static void publish(ShmSegInfo_t* in, const SNodeCB_t* top) {
    MUST(trelPutTopNodeInfoIntoDomainHeader(in->shmDomainHandle, top->tag, top->nodeOffset,
                                            static_cast<uint32_t>(in->shmPoolHandle->poolOffset)));
  }

  static SNodeCB_t* node(ShmSegInfo_t* in, const char* id, uint64_t tag, uint64_t exports,
                         bool hashed) {
    uint64_t sizes[64], size = 0, offset = 0, total = 0;
    MUST(trelCreateMaxSpaceArray(exports, 5, hashed, 5, kValueRoom, hashed, 5, 3, 5,
                                 kPropertyIdRoom, hashed, 5, 3, 5, kPropertyIdRoom, kValueRoom,
                                 hashed, kIdRoom, 4, sizes, &total));
    SNodeCB_t* made = nullptr;
    SNodeInfo_t none = {};
    HdmModuleRecord_t module = {"/module", {}};
    const uint8_t record24[24] = {1};
    MUST(trelCreateNode(in, &made, exports, sizes, &size, &offset));
    MUST(trelInitNode(&made, offset, strlen(id), asBytes(id), &none, nullptr, kIdRoom, record24,
                      &module, nullptr));
    MUST(trelSetNodeTag(made, tag, 0));
    MUST(trelActivateNode(&made));
    MUST(trelCreateDependentNodeList(made, nullptr, nullptr, nullptr, kIdRoom, 0, 0));
    return made;
  }
  static SNodeCB_t* small(ShmSegInfo_t* in, const char* id, uint64_t tag) {
    return node(
        in, id, tag,
        TREL_EXPORT_ID | TREL_EXPORT_PARENT | TREL_EXPORT_DEPENDENT | TREL_EXPORT_CHANGE_LIST,
        false);
  }
  SNodeCB_t* full(size_t which, uint64_t tag, bool hashed) {
    SNodeCB_t* made = node(victim_, kNames[which], tag, 0x1ffe, hashed);
    const uint8_t value[kValueRoom] = {'v'};
    MUST(trelCreateRPropertyList(made, nullptr, nullptr, 0, 5, hashed, 0));
    MUST(trelCreateVPropertyList(made, nullptr, nullptr, nullptr, kValueRoom, 0, 5, hashed, 0));
    MUST(trelCreateIRPropertyList(made, nullptr, nullptr, nullptr, nullptr, kPropertyIdRoom, 0, 3,
                                  5, 5, hashed, 0));
    MUST(trelCreateIVPropertyList(made, nullptr, nullptr, nullptr, kPropertyIdRoom, nullptr,
                                  nullptr, kValueRoom, 0, 3, 5, 5, hashed, 0));
    for (uint64_t t = kTags + 1; t > 0; --t) {  // the last one goes again, and leaves its place
      MUST(trelAddRProperty(made, t, 7, 0));
      MUST(trelAddVProperty(made, t, 10, value, 0));
      MUST(trelAddIRProperty(made, t, kPropertyIdRoom, idOf(t), 7, 0));
      MUST(trelAddIVProperty(made, t, kPropertyIdRoom, idOf(t), 10, value, 0));
    }
    const uint64_t gone = kTags + 1;
    trelDeleteRProperty(made, gone, 0);
    trelDeleteVProperty(made, gone, 0);
    trelDeleteIRProperty(made, gone, kPropertyIdRoom, idOf(gone), 0);
    trelDeleteIVProperty(made, gone, kPropertyIdRoom, idOf(gone), 0);
    MUST(trelCreateBaseRProperty(made, 1, 7, 0));
    MUST(trelCreateBaseVProperty(made, 1, value, 10, kValueRoom, 0));
    return made;
  }

  static void describe(ShmSegInfo_t* in) {
    TrelDescription_t d = {};
    d.nodeTag = 1;
    strcpy(d.name, "type");
    MUST(trelDescribe(in, &d, nullptr));
    d.exportBit = TREL_EXPORT_V;
    for (d.propertyTag = 1; d.propertyTag <= kTags; ++d.propertyTag) {
      TrelDescription_t field = {};
      d.valueType = TREL_VALUE_RECORD;
      d.size = 16;
      d.fieldCount = 1;
      snprintf(d.name, sizeof d.name, "v%u", static_cast<unsigned>(d.propertyTag));
      strcpy(field.name, "field");
      field.valueType = TREL_VALUE_U64;
      field.size = 8;
      memset(field.help, 'h', sizeof field.help - 1);
      MUST(trelDescribe(in, &d, &field));
    }
    MUST(trelSetPublisher(in, "program", "1"));
  }

  Held holdRecords(SNodeCB_t* node) const {
    RProperty_t *r, *baseR;
    VProperty_t *v, *baseV;
    IRProperty_t* ir;
    IVProperty_t* iv;
    const uint64_t tag = 1;
    MUST(trelGetAddressForRProperty(node, tag, &r));
    MUST(trelGetAddressForVProperty(node, tag, &v));
    MUST(trelGetAddressForIRProperty(node, tag, kPropertyIdRoom, idOf(tag), &ir));
    MUST(trelGetAddressForIVProperty(node, tag, kPropertyIdRoom, idOf(tag), &iv));
    MUST(trelGetAddressForBaseRProperty(node, tag, &baseR));
    MUST(trelGetAddressForBaseVProperty(node, tag, &baseV));
    const auto offset = [&](const void* record) {
      return static_cast<uint64_t>(static_cast<const uint8_t*>(record) -
                                   static_cast<const uint8_t*>(victim_->shmDomainHandle->base));
    };
    return {offset(r), offset(v), offset(ir), offset(iv), offset(baseR), offset(baseV)};
  }

  static void adopt(SNodeCB_t* parent, const char* parentId, ShmSegInfo_t* parentSegment,
                    SNodeCB_t* child, const char* id, ShmSegInfo_t* childSegment) {
    SNodeInfo_t down, up;
    const HdmModuleRecord_t module = {"/module", {}};
    MUST(trelAddStatusNodeInfo(&down, parentSegment, childSegment, child->nodeOffset, child->tag,
                               strlen(id), nullptr, &module));
    MUST(trelAddDependentNode(parent, &down, asBytes(id), strlen(id), 0, 0));
    MUST(trelAddStatusNodeInfo(&up, childSegment, parentSegment, parent->nodeOffset, parent->tag,
                               strlen(parentId), nullptr, &module));
    MUST(trelAddParentNode(child, &up, strlen(parentId), asBytes(parentId)));
  }

  ShmSegInfo_t *victim_, *other_;
};

void removeKey(uint32_t key) {
  const int id = shmget(static_cast<key_t>(key), 0, 0);
  if (id >= 0) shmctl(id, IPC_RMID, nullptr);
}

}  // namespace

void RawSegment::adopt(uint32_t keyWord) {
  key = {PLAT_STRUCTURE_TAG, keyWord};
  const int id = shmget(static_cast<key_t>(keyWord), 0, 0);
  shmid_ds info = {};
  void* const place = id < 0 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
  if (place == reinterpret_cast<void*>(-1) || shmctl(id, IPC_STAT, &info) != 0)
    throw std::runtime_error("no segment to work on");
  bytes = static_cast<uint8_t*>(place);
  image.assign(bytes, bytes + info.shm_segsz);
}
void RawSegment::restore() const { memcpy(bytes, image.data(), image.size()); }
void RawSegment::remove() const {
  removeKey(key.key);
  shmdt(bytes);
}

World::World(uint32_t firstKey) : firstKey_(firstKey) {
  for (uint32_t i = 0; i < 3; ++i) removeKey(firstKey + i);
  struct Told {
    std::array<uint64_t, kNodes> nodes;
    uint64_t poolOffset;
    std::array<Held, 2> held;
  } told = {};
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("pipe");
  const pid_t maker = fork();
  if (maker == 0) {
    const Builder built({PLAT_STRUCTURE_TAG, firstKey}, {PLAT_STRUCTURE_TAG, firstKey + 1},
                        {PLAT_STRUCTURE_TAG, firstKey + 2});
    told = {built.offsets, built.poolOffset, built.held};
    _exit(write(ends[1], &told, sizeof told) != sizeof told);
  }
  int status = 0;
  close(ends[1]);
  const bool isTold = read(ends[0], &told, sizeof told) == sizeof told;
  close(ends[0]);
  waitpid(maker, &status, 0);
  if (!isTold) throw std::runtime_error("the world was not made");
  nodes = told.nodes;
  held = told.held;
  map = {told.poolOffset, {nodes.begin(), nodes.end()}};
  victim.adopt(firstKey);
  other.adopt(firstKey + 1);
  neighbour.adopt(firstKey + 2);
  words = findWords(victim.image, map);
}

World::~World() {
  for (const RawSegment* segment : {&victim, &other, &neighbour}) segment->remove();
  removeFreeKeys();
}

void World::removeFreeKeys() const {
  for (uint32_t n = 0; n < kFreeKeys; ++n) removeKey(freeKey(n).key);
}

}  // namespace fuzz
