// A list of dependents as walks read it: without the node's latch, while others change it.
//
// Each entry is copied out, once, and all that follows from it follows from the copy. A checksum
// over the entries as they were read tells in the end whether they stood in the list together.
// Changes of the node's properties, and of its other parts, do not disturb a reading.
//
// A list that never stands still is read from a copy of it that was taken at one instant.
#pragma once

#include "treli/list_image.h"
#include "trelshm/process_memory.h"

namespace trel {

// A node as it was met on the way to it, and whether it still is that node: it has not been given
// back since. Its memory stays mapped as long as its segment is.
struct MetNode {
  SNodeCB_t* node = nullptr;
  uint64_t born = 0;

  MetNode() = default;
  explicit MetNode(SNodeCB_t* n) : MetNode(n, birthStamp(n)) {}
  MetNode(SNodeCB_t* n, uint64_t stamp) : node(n), born(stamp) {}
  bool isAlive() const {
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return birthStamp(node) == born && node->condition >= TREL_CONDITION_CREATED &&
           node->condition <= TREL_CONDITION_DISASSOCIATED;
  }
};

// An entry as it was read.
struct ReadEntry {
  SNodeInfo_t* stored = nullptr;  // its place in the list
  SNodeInfo_t record;             // as it is stored
  uint8_t id[TREL_MAX_ID_SIZE];   // behind the record, as in the list; only where names are read

  SeenEntry seen() const { return {stored, record}; }
  bool stands() const { return seen().stands(); }
};

// Trivially copyable: who copies one sees to it that drop() is called once.
class ListReading {
 public:
  ListReading() = default;
  // withNames: identifiers are read, too.
  ListReading(const MetNode& met, uint64_t nodeSize, bool withNames)
      : met_(met), node_(met.node), nodeSize_(nodeSize), withNames_(withNames) {
    begin();
  }

  // Forgets what was read. Changes are noticed from here on; a list that is not opened has no
  // entries.
  void begin();

  // Begins at the first entry.
  uint32_t open();
  // The next entry; its `stored` is null behind the last one. Fails if the section ends before the
  // live entries do.
  uint32_t next(ReadEntry* entry);
  // Takes the entry that next() gave last out of what confirm() looks at.
  void dismiss() { sum_ = before_, --count_; }
  // The same, and next() gives it again.
  void goBack() { dismiss(), place_ -= list_.stride(), ++left_; }
  // For a list that has moved: next() goes on through all places up to the section's end, or, where
  // the places are others now, through all places there are.
  uint32_t readOn();
  bool isReadOn() const { return toTheEnd_; }

  SNodeCB_t* node() const { return node_; }
  uint64_t nodeSize() const { return nodeSize_; }
  uint32_t live() const { return list_.live; }
  bool isDone() const { return left_ == 0; }
  uint32_t maxIdSize() const { return list_.maxIdSize; }

  // Whether the list may have changed since the reading was made or opened, or its node has been
  // given back, or a writer is inside and stays.
  bool hasMoved() const;
  // A failure may come of others' changes: the list has moved, or has been made anew, and empty,
  // which is not counted as a change.
  bool explainsFailure() const;
  // Whether what next() has given stood in the list together, and, behind the last entry, nothing
  // else. Waits for a writer who is inside, and clears up after one who died there.
  uint32_t confirm(bool* stood);
  // The same for one who is inside the node's section.
  bool stoodTogether() const;

  // From the next open() on, what is read is a copy.
  void useCopy() { usesCopy_ = true; }
  bool isCopy() const { return usesCopy_; }
  // Looks for an entry of a copy in the list. It is at its place, or is told where it is now; its
  // `stored` is null if it went.
  uint32_t relocate(ReadEntry* entry) const;
  void drop() { release(&image_.bytes); }

  // Fetches what will be read of the node two places on, while the one behind `entry` is walked:
  // most siblings lie in one segment and are laid out alike. A wrong guess does no harm.
  void fetchAhead(const ReadEntry& entry, const SNodeCB_t* child) const;

 private:
  uint64_t start() const { return reinterpret_cast<uintptr_t>(list_.at()); }
  void load(uint64_t place, ReadEntry* entry) const;
  uint32_t copy();

  MetNode met_;
  SNodeCB_t* node_ = nullptr;  // the same
  uint64_t nodeSize_ = 0;
  DependentList list_ = {};
  bool withNames_ = false, usesCopy_ = false, toTheEnd_ = false;
  int32_t stamp_ = 0;
  uint32_t left_ = 0, count_ = 0;
  uint64_t place_ = 0, end_ = 0, sum_ = 0, before_ = 0;
  ListImage image_ = {};
};

}  // namespace trel
