#include "treli/recreation.h"

#include "treli/node_copy.h"
#include "treli/node_record.h"
#include "treli/node_return.h"
#include "trelshm/store.h"

namespace trel {
namespace {

uint8_t* latchOf(SNodeCB_t* node) { return node->spareLatchArea.primaryLatch; }

// The copy that was noted, if it still is there. Its node stays null if not.
void findCopy(const RecreationIntent_t& intent, const ParentLink& link, Reached* copy) {
  const ShmDomainHandle_t* domain = link.parent.segInfo->shmDomainHandle;
  const SNodeInfo_t record = {
      intent.nodeOffset, 1, 0, 0, intent.segInfoOffset, 0, offsetOf(domain->base, nullptr)};
  if (locateNode(&record, copy) ||
      nodeSizeInDomain(copy->segInfo->shmDomainHandle, intent.nodeOffset) == 0 ||
      birthStamp(copy->node) != intent.born)
    copy->node = nullptr;
}

// The node is what it was before.
void restore(SNodeCB_t* node, uint32_t condition) {
  within<Access::write>(node, 0, [&] {
    if (node->condition == TREL_CONDITION_DISASSOCIATED) node->condition = condition;
    markRecreation(node, false);
    return 0u;
  });
}

// Ends what a dead one has begun, unless the parent's entry leads elsewhere already. The caller
// holds the latch.
void settle(SNodeCB_t* node) {
  const Look look;
  const RecreationIntent_t intent = *intentOf(node);
  ParentLink link;
  Reached copy;
  if (!isMarkedForRecreation(node) || findParentLink(node, &link) || link.named != node) return;
  if (intent.state) findCopy(intent, link, &copy);
  if (copy.node) giveNodeBack(&copy.node, copy.segInfo->shmPoolHandle);
  restore(node, intent.condition);
}

}  // namespace

// In one byte, since the word may lie at any address.
void markRecreation(SNodeCB_t* node, bool on) {
  auto* byte = reinterpret_cast<uint8_t*>(&node->optionWord0);
  if (on) {
    __atomic_fetch_or(byte, TREL_OPTION_RECREATION, __ATOMIC_ACQ_REL);
  } else {
    __atomic_fetch_and(byte, static_cast<uint8_t>(~TREL_OPTION_RECREATION), __ATOMIC_ACQ_REL);
  }
}

void noteCopy(RecreationIntent_t* intent, uint64_t nodeOffset, uint64_t born) {
  intent->nodeOffset = nodeOffset;
  intent->born = born;
  storeLast(&intent->state, TREL_RECREATION_COPIED);
}

uint32_t findParentLink(SNodeCB_t* node, ParentLink* link) {
  SNodeInfo_t* stored = nullptr;
  Section section;
  if (const uint32_t rc = parentRecordOf(node, &stored)) return rc;
  if (const uint32_t rc = openSection(node, TREL_EXPORT_ID, &section)) return rc;
  if (section.used < sizeof(IdSection_t)) return TREL_RC_SLOT_USED;
  link->idSize = section.used - sizeof(IdSection_t);
  link->id = section.at(sizeof(IdSection_t));
  if (const uint32_t rc = locateNode(stored, &link->parent)) return rc;
  SNodeCB_t* parent = link->parent.node;
  const ShmDomainHandle_t* domain = link->parent.segInfo->shmDomainHandle;
  if (nodeSizeInDomain(domain, offsetOf(parent, domain->base)) == 0) return TREL_RC_TOP_NODE_BOUNDS;
  const SoughtName name = {node->tag, link->id, link->idSize, true};
  FoundDependent found;
  const uint32_t rc = within<Access::read>(parent, 0, [&]() -> uint32_t {
    DependentList list;
    if (const uint32_t failure = locateDependents(parent, &list)) return failure;
    const uint32_t failure = findDependent(list, name, &found);
    if (found.entry) link->seen = SeenEntry(found.entry);
    return failure;
  });
  if (rc || !found.entry) return rc;
  Reached named;
  if (locateNode(found.entry, &named) == 0 && link->seen.stands()) link->named = named.node;
  return 0;
}

uint32_t replaceLink(const ParentLink& link, SNodeInfo_t* record) {
  SNodeCB_t* parent = link.parent.node;
  return writing(parent, 0, accept::living, [&]() -> uint32_t {
    DependentList list;
    if (const uint32_t rc = locateDependents(parent, &list)) return rc;
    if (!link.seen.stands()) return TREL_RC_DEPENDENT_ABSENT;
    storeDependent(parent, link.seen.entry, record, link.id, link.idSize);
    return countReconfiguration(parent);
  });
}

uint32_t RecreationHold::take(SNodeCB_t* node) {
  const PLATLatchWait wait = {birthStampAt(node), birthStamp(node), 0};
  uint32_t ownerDied = 0;
  if (const uint32_t rc = plat::latchGet(latchOf(node), &ownerDied, wait))
    return rc == PLAT_RC_TIMEOUT ? TREL_RC_BEING_RECREATED : latchFailure(rc);
  node_ = node;
  if (ownerDied) settle(node);
  storeLast(&intentOf(node)->state, 0);
  return 0;
}

void RecreationHold::end() {
  if (!node_) return;
  storeLast(&intentOf(node_)->state, 0);
  plat::latchRelease(latchOf(node_));
  node_ = nullptr;
}

bool isBeingRecreated(SNodeCB_t* node) {
  PLATLatchOwner owner = {};
  return isMarkedForRecreation(node) && platVLatchOwner(latchOf(node), &owner) == 0 &&
         (owner.state == PLAT_LATCH_ALIVE || owner.state == PLAT_LATCH_SELF);
}

uint32_t endDeadRecreation(SNodeCB_t* node) {
  PLATLatchOwner owner = {};
  if (platVLatchOwner(latchOf(node), &owner) || owner.state != PLAT_LATCH_DEAD)
    return TREL_RC_BEING_RECREATED;
  RecreationHold hold;
  return hold.take(node);
}

}  // namespace trel
