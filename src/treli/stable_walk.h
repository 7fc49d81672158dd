// A walk over all that lies below a node, while others change it.
//
// Lists are read without a latch, so what was read of one counts only if it stood still meanwhile.
// A list that did not is read again, with all that lies below it, and what was gathered since it
// was entered is forgotten.
#pragma once

#include "treli/dependent_list.h"
#include "treli/levels.h"

namespace trel {

// How often one list is read again before the walk gives up.
constexpr uint32_t kRereadings = 32;

// Before a list is read again: waits until its writer is gone, or found dead and cleared up after.
inline uint32_t awaitWriter(SNodeCB_t* node, uint32_t* rereadings) {
  if (++*rereadings > kRereadings) return TREL_RC_BEING_RECREATED;
  reading(node, 0, accept::any, [] { return 0u; });
  return 0;
}

// A Task has
//   Gathered gathered;
//   uint32_t open(SNodeCB_t*, uint64_t depth, DependentWalk*);  the node's list; none: leave it
//   uint32_t visit(const DependentWalk&, SNodeInfo_t*, SNodeCB_t** below, bool* isOver);
//   uint32_t leave(SNodeCB_t*);  all below the node is done
// The top node has depth 0.
template <class Task>
class StableWalk {
 public:
  explicit StableWalk(Task* task) : task_(task) {}

  uint32_t run(SNodeCB_t* top) {
    if (const uint32_t rc = enter(top)) return rc;
    while (!levels_.empty()) {
      Level* level = &levels_.top();
      SNodeInfo_t* entry = nullptr;
      bool isOver = false;
      uint32_t rc = level->walk.next(&entry);
      if (rc == 0 && entry) {
        SNodeCB_t* below = nullptr;
        rc = task_->visit(level->walk, entry, &below, &isOver);
        if (rc == 0 && below) rc = enter(below);
        if (rc == 0 && !isOver) continue;
      }
      if (rc == 0 && !mayHaveChanged(level->node, level->stamp)) {
        if (isOver) return 0;
        rc = task_->leave(level->node);
        if (rc == 0) {
          levels_.pop();
          continue;
        }
      }
      if (rc) {  // counts unless a list on the way here has changed
        while (!levels_.empty() && !mayHaveChanged(levels_.top().node, levels_.top().stamp))
          levels_.pop();
        if (levels_.empty()) return rc;
      }
      if ((rc = readAgain(&levels_.top()))) return rc;
    }
    return 0;
  }

 private:
  struct Level {
    SNodeCB_t* node;
    uint32_t depth;
    uint32_t rereadings;
    int32_t stamp;
    DependentWalk walk;
    typename Task::Gathered before;
  };

  uint32_t enter(SNodeCB_t* node) {
    Level level;
    level.node = node;
    level.depth = levels_.count();
    if (const uint32_t rc = read(&level)) return rc;
    if (level.walk.isDone() && !mayHaveChanged(node, level.stamp)) return task_->leave(node);
    level.rereadings = 0;
    level.before = task_->gathered;
    return levels_.push(level);
  }

  uint32_t read(Level* level) {
    level->stamp = stampOf(level->node);
    level->walk = DependentWalk();
    return task_->open(level->node, level->depth, &level->walk);
  }

  uint32_t readAgain(Level* level) {
    if (const uint32_t rc = awaitWriter(level->node, &level->rereadings)) return rc;
    task_->gathered = level->before;
    return read(level);
  }

  Task* task_;
  Levels<Level> levels_;
};

}  // namespace trel
