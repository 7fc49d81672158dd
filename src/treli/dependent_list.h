// The list of a node's dependents: an 8-byte maximum, then entries of one stride, each a record and
// room for its identifier.
//
// A deleted entry keeps its place with nodeTag 0. The slot's `used` counts the live entries, it
// does not say how far they reach, so a walk passes over vacant places until it has seen that many.
//
// An entry becomes live by the store of its nodeTag, made when all else of it stands; then `used`
// follows. All places of a fresh list are made vacant. So the tags alone tell what a list holds,
// and a writer that died between the two stores has left nothing that cannot be counted anew.
#pragma once

#include <string.h>

#include "treli/identifier.h"
#include "treli/node_lock.h"

namespace trel {

struct DependentHeader {
  TrelU64 maxIdSize;
};
constexpr uint64_t kDependentHeader = sizeof(DependentHeader);

// A name that is sought. An idSize of 0 asks for the tag alone, unless the name is to be exact.
struct SoughtName {
  uint64_t tag;
  const uint8_t* id;
  uint64_t idSize;
  bool exact = false;
};

// The list as it was read: nobody looks at its slot again.
struct DependentList : Section {
  uint32_t maxIdSize = 0;
  uint32_t live = 0;  // 0 where maxIdSize is 0

  uint32_t stride() const { return maxIdSize + static_cast<uint32_t>(sizeof(SNodeInfo_t)); }
  uint64_t capacity() const { return maxIdSize ? (size - kDependentHeader) / stride() : 0; }
  void setUsed(uint64_t bytes) { storeUsed(this, TREL_EXPORT_DEPENDENT, bytes); }
};

// Fails as the slot's lookup does, and for a stored maximum above 4096.
TREL_INLINE uint32_t locateDependents(SNodeCB_t* node, uint64_t nodeSize, DependentList* list) {
  list->maxIdSize = list->live = 0;
  if (const uint32_t rc = openSection(node, TREL_EXPORT_DEPENDENT, list, nodeSize)) return rc;
  if (!(once(node->exports) & TREL_EXPORT_DEPENDENT) || list->used < kDependentHeader) return 0;
  const uint64_t maxIdSize = once(list->at<DependentHeader>()->maxIdSize);
  if (maxIdSize > TREL_MAX_ID_SIZE) return TREL_RC_DEPENDENT_ID_MAX;
  list->maxIdSize = static_cast<uint32_t>(maxIdSize);
  if (maxIdSize) list->live = static_cast<uint32_t>(list->used - kDependentHeader) / list->stride();
  return 0;
}

TREL_INLINE uint32_t locateDependents(SNodeCB_t* node, DependentList* list) {
  return locateDependents(node, once(node->nodeSize), list);
}

// An entry that has been read, and whether its place still holds an entry of the same node.
struct SeenEntry {
  SNodeInfo_t* entry = nullptr;
  uint64_t nodeOffset = 0, nodeTag = 0, segInfoOffset = 0;

  SeenEntry() = default;
  SeenEntry(SNodeInfo_t* place, const SNodeInfo_t& read)
      : entry(place),
        nodeOffset(once(read.nodeOffset)),
        nodeTag(once(read.nodeTag)),
        segInfoOffset(once(read.segInfoOffset)) {}
  explicit SeenEntry(SNodeInfo_t* e) : SeenEntry(e, *e) {}
  bool stands() const {
    return once(entry->nodeTag) == nodeTag && once(entry->nodeOffset) == nodeOffset &&
           once(entry->segInfoOffset) == segInfoOffset;
  }
};

// The one walk over a list.
class DependentWalk {
 public:
  DependentWalk() = default;
  explicit DependentWalk(const DependentList& list)
      : place_(offsetOf(list.at(kDependentHeader), nullptr)),
        end_(offsetOf(list.at(list.size), nullptr)),
        stride_(list.stride()),
        left_(list.live) {}

  // The next live entry, null behind the last one. *vacant, if it is null, gets the first vacant
  // place passed. Fails if the section ends before the live entries do.
  TREL_INLINE uint32_t next(SNodeInfo_t** entry, SNodeInfo_t** vacant = nullptr) {
    *entry = nullptr;
    if (left_ == 0) return 0;
    while (fits()) {
      SNodeInfo_t* here = place();
      place_ += stride_;
      if (TREL_LIKELY(once(here->nodeTag) != 0)) {
        --left_;
        *entry = here;
        return 0;
      }
      if (vacant && !*vacant) *vacant = here;
    }
    return TREL_RC_DEPENDENT_BOUNDS;
  }

  // The place behind the entry that next() gave last, and whether all of it is in the section.
  SNodeInfo_t* place() const { return at<SNodeInfo_t>(nullptr, place_); }
  bool fits() const { return end_ - place_ >= stride_; }

  bool isDone() const { return left_ == 0; }
  uint32_t maxIdSize() const { return stride_ - static_cast<uint32_t>(sizeof(SNodeInfo_t)); }

 private:
  uint64_t place_ = 0, end_ = 0;
  uint32_t stride_ = 0, left_ = 0;
};

inline const uint8_t* idOf(const SNodeInfo_t* entry) {
  return reinterpret_cast<const uint8_t*>(entry + 1);
}

// Whether the entry has the name. Refuses names and entries that no tree has.
TREL_INLINE uint32_t hasName(const SNodeInfo_t* entry, uint32_t maxIdSize, const SoughtName& name,
                             bool* same) {
  const uint64_t tag = once(entry->nodeTag);
  *same = tag == name.tag;
  if (name.idSize == 0 && !name.exact) return 0;
  if (TREL_UNLIKELY(name.tag > TREL_MAX_TAG || tag > TREL_MAX_TAG)) return TREL_RC_TAG_RANGE;
  const uint64_t idSize = once(entry->idSize);
  if (TREL_UNLIKELY(name.idSize > TREL_MAX_ID_SIZE || idSize > TREL_MAX_ID_SIZE))
    return TREL_RC_COMPARE_ID_SIZE;
  if (TREL_UNLIKELY(idSize > maxIdSize)) return TREL_RC_ID_BOUNDS;
  *same = *same && compareIds(name.id, name.idSize, idOf(entry), idSize) == 0;
  return 0;
}

// For those who read a list without the node's latch: a writer is inside from before its first
// store until after it has counted the change here.
inline int32_t stampOf(SNodeCB_t* node) {
  return __atomic_load_n(PLATVAtomicSigned32::word(&node->reconfigCounter), __ATOMIC_ACQUIRE);
}

// The rest is for those who are inside the node's write section.

struct FoundDependent {
  SNodeInfo_t* entry = nullptr;   // null if there is none
  SNodeInfo_t* vacant = nullptr;  // the first vacant place passed
  DependentWalk walk;             // behind the last entry looked at
};
uint32_t findDependent(const DependentList& list, const SoughtName& name, FoundDependent* found);

// Empties the list, or makes it.
void clearDependents(DependentList* list, uint64_t maxIdSize);
// Adds an entry behind `place`, which is vacant, or overwrites the entry there.
void storeDependent(SNodeCB_t* node, SNodeInfo_t* place, SNodeInfo_t* record, const uint8_t* id,
                    uint64_t idSize);
// Turns the list on and adds the record, or with `replace` overwrites the entry of its name. Counts
// the change. Tests all but the record's tag.
uint32_t addDependent(SNodeCB_t* node, SNodeInfo_t* record, const SoughtName& name, bool replace);
// Makes the entry vacant. Counts the change.
uint32_t removeDependent(DependentList& list, SNodeInfo_t* entry);

// Runs find(list, &found) on a list that has entries, and removes what it found.
template <class Find>
uint32_t removeFound(SNodeCB_t* node, Find&& find) {
  DependentList list;
  if (const uint32_t rc = locateDependents(node, &list)) return rc;
  if (list.live == 0) return TREL_RC_DEPENDENTS_EMPTY;
  if (list.live > TREL_MAX_DEPENDENTS) return TREL_RC_DEPENDENT_COUNT;
  FoundDependent found;
  if (const uint32_t rc = find(list, &found)) return rc;
  return found.entry ? removeDependent(list, found.entry) : uint32_t{TREL_RC_DEPENDENT_ABSENT};
}

// A writer died inside: finishes what it noted, and makes `used` agree with the tags.
void repairDependents(SNodeCB_t* node);

// Sets or clears an export bit. Atomic, since it happens outside sections too, and in one byte,
// since the word may lie at any address.
void setExport(SNodeCB_t* node, uint32_t exportBit, bool on);
inline void exportDependents(SNodeCB_t* node, bool on) {
  setExport(node, TREL_EXPORT_DEPENDENT, on);
}

}  // namespace trel
