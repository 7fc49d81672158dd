// A walk over all that lies below a node, while others change it.
//
// Lists are read without a latch. What was read of one counts if it stood together, else the list
// is read again, with all that lies below it, and what was gathered since it was entered is
// forgotten. A list that keeps changing is at last read from a copy of it. What was found in a node
// counts as long as it has not been given back.
#pragma once

#include "treli/list_reading.h"
#include "treli/reach.h"
#include "treli/traversal_stack.h"

namespace trel {

// A Task has
//   Gathered gathered;
//   bool withNames;  whether it looks at identifiers
//   uint32_t open(uint64_t depth, ListReading*);  opens the node's list, if it is to be read
//   uint32_t visit(uint64_t depth, const ListReading&, const ReadEntry&, Reached* below,
//                  bool* isOver);
//   uint32_t leave(SNodeCB_t*);  all below the node is done
// The top node has depth 0.
template <class Task>
class StableWalk {
 public:
  explicit StableWalk(Task* task) : task_(task) {}
  ~StableWalk() {
    while (!levels_.empty()) pop();
  }
  StableWalk(const StableWalk&) = delete;
  StableWalk& operator=(const StableWalk&) = delete;

  uint32_t run(SNodeCB_t* top) {
    bool isOver = false;
    uint32_t rc = enter(MetNode(top), once(top->nodeSize));
    for (;;) {
      if (rc && (rc = recover(rc))) return rc;
      if (isOver || levels_.empty()) return 0;
      rc = step(&isOver);
    }
  }

 private:
  // Readings of one list, and again of all lists together, before copies are used.
  static constexpr uint32_t kReadings = 4, kRereadings = 32;
  // Second looks at entries of a copy.
  static constexpr uint32_t kLooks = 32;

  struct Level {
    MetNode met;
    const SNodeCB_t* node;  // the same, for the stack
    ListReading reading;
    uint32_t readings, looks;
    bool atEntry;                         // entry_ is of this level, or was on the way down
    typename Task::Gathered before;       // when the list was opened
    typename Task::Gathered beforeEntry;  // of a copy
  };

  uint32_t enter(const MetNode& met, uint64_t size) {
    Level* level = nullptr;
    if (const uint32_t rc = levels_.prepare(&level)) return rc;
    level->met = met;
    level->node = met.node;
    level->reading = ListReading(met, size, task_->withNames);
    level->readings = 1;
    level->looks = 0;
    level->atEntry = false;
    const uint32_t rc = task_->open(levels_.count(), &level->reading);
    if (rc == 0 && level->reading.isDone() && !level->reading.hasMoved())
      return task_->leave(met.node);
    level->before = task_->gathered;
    return firstOf(levels_.push(), rc);
  }

  void pop() {
    levels_.top().reading.drop();
    levels_.pop();
  }

  uint32_t step(bool* isOver) {
    Level& level = levels_.top();
    level.atEntry = false;
    if (const uint32_t rc = level.reading.next(&entry_)) return rc;
    if (!entry_.stored) return finish();
    if (level.reading.isCopy()) {
      level.beforeEntry = task_->gathered;
      if (const uint32_t rc = level.reading.relocate(&entry_)) return rc;
      if (!entry_.stored) return 0;
    }
    level.atEntry = true;
    Reached below;
    if (const uint32_t rc =
            task_->visit(levels_.count() - 1, level.reading, entry_, &below, isOver))
      return rc;
    if (*isOver) return finishHit(isOver);
    if (!below.node) return 0;
    // An entry that went may have led to a node that is another one by now.
    return entry_.stands() ? enter({below.node, below.born}, below.size) : again();
  }

  // The end of a list.
  uint32_t finish() {
    Level& level = levels_.top();
    bool stood = false;
    if (const uint32_t rc = level.reading.confirm(&stood)) return rc;
    if (!stood) return reread();
    if (const uint32_t rc = task_->leave(level.met.node)) return rc;
    const bool counts = levels_.count() == 1 || level.met.isAlive();
    pop();
    return counts ? 0 : again();
  }

  // A hit in the middle of a list, which ends the walk.
  uint32_t finishHit(bool* isOver) {
    bool stood = false;
    *isOver = false;
    if (leaveDead()) return again();
    if (const uint32_t rc = levels_.top().reading.confirm(&stood)) return rc;
    if (!stood) return reread();
    if (!entry_.stands()) return again();
    *isOver = true;
    return 0;
  }

  // Leaves the first node on the path that was given back, and all below it.
  bool leaveDead() {
    for (uint32_t i = 1; i < levels_.count(); ++i) {
      if (levels_[i].met.isAlive()) continue;
      while (levels_.count() > i) pop();
      return true;
    }
    return false;
  }

  // Leaves what is below the last list that has changed, which may be the one at which the walk
  // stands.
  uint32_t leaveMoved(bool* stood) {
    for (uint32_t i = levels_.count(); i-- > 0;) {
      if (const uint32_t rc = levels_[i].reading.confirm(stood)) return rc;
      if (*stood) continue;
      while (levels_.count() > i + 1) pop();
      return 0;
    }
    return 0;
  }

  // The entry at which the walk stands has changed or gone, or its node has. In a copy that entry
  // is looked up anew.
  uint32_t again() {
    Level& level = levels_.top();
    if (!level.reading.isCopy()) return reread();
    task_->gathered = level.beforeEntry;
    if (++level.looks <= kLooks) level.reading.goBack();
    return 0;
  }

  uint32_t reread() {
    Level& level = levels_.top();
    level.atEntry = false;
    if (++level.readings > kReadings || ++rereadings_ > kRereadings) level.reading.useCopy();
    level.reading.begin();
    task_->gathered = level.before;
    return task_->open(levels_.count() - 1, &level.reading);
  }

  // A failure counts only if nothing has changed on the way to it. 0: the walk goes on.
  uint32_t recover(uint32_t rc) {
    while (rc && rc != TREL_RC_WRITER_INSIDE && !levels_.empty()) {
      const Level& level = levels_.top();
      const bool isExplained = level.reading.isCopy() ? level.atEntry && level.looks < kLooks
                                                      : level.reading.explainsFailure();
      if (leaveDead() || isExplained) {
        rc = again();
        continue;
      }
      bool stood = true;
      if (leaveMoved(&stood) || stood) return rc;
      rc = reread();
    }
    return rc;
  }

  Task* task_;
  TraversalStack<Level> levels_;
  uint32_t rereadings_ = 0;
  ReadEntry entry_;
};

}  // namespace trel
