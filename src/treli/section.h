// Critical sections of a node, and the condition test.
//
// Under concurrency model 1 a section is the node's latch; under the others nothing is taken. The
// model can change inside a section, so the way out follows what the way in found, never the field.
#pragma once

#include "platsvc/latch.h"
#include "treli/birth_stamp.h"
#include "treli/slot.h"

namespace trel {

enum class Access { read, write };

// What a way in found.
struct Section {
  bool latched = false;
};

// Condition masks: bit 1 << condition for each condition that an operation accepts. An active node
// passes every mask.
namespace accept {
constexpr uint32_t active = 8;
constexpr uint32_t usable = 40;     // active, disassociated
constexpr uint32_t settled = 44;    // and initialised
constexpr uint32_t living = 46;     // and created
constexpr uint32_t published = 56;  // active, abandoned, disassociated
constexpr uint32_t any = 62;
}  // namespace accept

// Reads the model; refuses one above 5.
inline uint32_t readModel(const SNodeCB_t* node, uint32_t* model) {
  *model = node->concurrencyModel;
  return *model > 5 ? uint32_t{TREL_RC_MODEL_RANGE} : 0;
}

// The owner of a node's latch died, and the caller holds the latch now: puts the node in order.
void onNodeOwnerDied(SNodeCB_t* node, LatchArea_t* area);
// Makes the lists of a node agree with themselves. False if one of them is not sound.
bool repairNode(SNodeCB_t* node);

// Adds 1 to a cell that changes only under a latch that the caller holds.
inline void countLatched(PLATVAtomicSigned32* cell) {
  int32_t* word = PLATVAtomicSigned32::word(cell);
  const uint32_t count = static_cast<uint32_t>(__atomic_load_n(word, __ATOMIC_RELAXED));
  __atomic_store_n(word, static_cast<int32_t>(count + 1), __ATOMIC_RELAXED);
}

// The two stores need no locked instruction, since they happen under the latch; in this order a
// death of the writer shows, whatever it had stored by then.
inline void markWriting(LatchArea_t* area) {
  __atomic_store_n(PLATVAtomicSigned32::word(&area->writeFlag), 1, __ATOMIC_RELAXED);
  countLatched(&area->writeCounter);
  __atomic_thread_fence(__ATOMIC_RELEASE);
}

inline void markWritten(LatchArea_t* area) {
  __atomic_store_n(PLATVAtomicSigned32::word(&area->writeFlag), 0, __ATOMIC_RELEASE);
}

template <Access access>
TREL_INLINE uint32_t enterSection(SNodeCB_t* node, LatchArea_t* area, Section* section) {
  uint32_t model = 0;
  if (const uint32_t rc = readModel(node, &model)) return rc;
  if (model != 1) return 0;
  if (TREL_UNLIKELY(area->latchVersion != TREL_STRUCTURE_VERSION)) return TREL_RC_LATCH_VERSION;
  const uint64_t born = birthStamp(node);
  uint32_t ownerDied = 0;
  if (TREL_UNLIKELY(plat::latchGet(area->primaryLatch, &ownerDied) != 0)) return TREL_RC_LATCH;
  if (TREL_UNLIKELY(birthStamp(node) != born)) {  // another node now: not the one that was meant
    plat::latchRelease(area->primaryLatch);
    return TREL_RC_LATCH;
  }
  if (TREL_UNLIKELY(ownerDied)) onNodeOwnerDied(node, area);
  if (TREL_UNLIKELY(node->concurrencyModel != 1)) {  // changed while this thread waited
    if (plat::latchRelease(area->primaryLatch) != 0) return TREL_RC_LATCH;
    return readModel(node, &model);
  }
  if (access == Access::write) markWriting(area);
  section->latched = true;
  return 0;
}

template <Access access>
TREL_INLINE uint32_t leaveSection(LatchArea_t* area, const Section& section) {
  if (!section.latched) return 0;
  if (access == Access::write) markWritten(area);
  return TREL_UNLIKELY(plat::latchRelease(area->primaryLatch) != 0) ? uint32_t{TREL_RC_LATCH} : 0;
}

// Runs work() inside a section of the node, unless the caller is inside one already. The way out is
// taken after a failure too, and its own failure counts only if nothing failed before.
template <Access access, class Work>
TREL_INLINE uint32_t within(SNodeCB_t* node, uint64_t inCriticalSection, Work&& work) {
  if (inCriticalSection) return work();
  Section section;
  if (const uint32_t rc = enterSection<access>(node, &node->nodeLatchArea, &section)) return rc;
  const uint32_t rc = work();
  return firstOf(rc, leaveSection<access>(&node->nodeLatchArea, section));
}

// The code by which a condition is refused.
uint32_t refusalOf(uint32_t condition);

// Tests the node's condition against a mask. The caller holds the section, where it matters.
TREL_INLINE uint32_t checkCondition(const SNodeCB_t* node, uint32_t mask) {
  const uint32_t condition = node->condition;
  if (TREL_LIKELY(condition == TREL_CONDITION_ACTIVE)) return 0;
  if (condition < 1 || condition > 5) return TREL_RC_CONDITION;
  return (mask >> condition & 1) ? 0 : refusalOf(condition);
}

// Runs work() in a read section of a node whose condition the mask accepts.
template <class Work>
TREL_INLINE uint32_t reading(SNodeCB_t* node, uint64_t inCriticalSection, uint32_t mask,
                             Work&& work) {
  return within<Access::read>(node, inCriticalSection, [&]() -> uint32_t {
    const uint32_t rc = checkCondition(node, mask);
    return rc ? rc : work();
  });
}

// The same in a write section.
template <class Work>
TREL_INLINE uint32_t writing(SNodeCB_t* node, uint64_t inCriticalSection, uint32_t mask,
                             Work&& work) {
  return within<Access::write>(node, inCriticalSection, [&]() -> uint32_t {
    const uint32_t rc = checkCondition(node, mask);
    return rc ? rc : work();
  });
}

// A change of the node's structure, told to those who watch reconfigCounter.
inline uint32_t countReconfiguration(SNodeCB_t* node) {
  int32_t counter = 0;
  return PLATVAtomicSigned32::increment(&node->reconfigCounter, &counter) ? uint32_t{TREL_RC_ATOMIC}
                                                                          : 0;
}

// Makes a latch area ready under the node's model. The area may be that of a property.
uint32_t initialiseLatches(SNodeCB_t* node, LatchArea_t* area, uint32_t latchVersion);

}  // namespace trel
