#include "treli/dependent_list.h"

#include "treli/dependent_index.h"
#include "trelshm/store.h"

namespace trel {
uint32_t findDependent(const DependentList& list, const SoughtName& name, FoundDependent* found) {
  if (findByIndex(list, name, found)) return 0;
  *found = {};
  found->walk = DependentWalk(list);
  for (;;) {
    if (const uint32_t rc = found->walk.next(&found->entry, &found->vacant)) return rc;
    if (!found->entry) return 0;
    bool same = false;
    if (const uint32_t rc = hasName(found->entry, list.maxIdSize, name, &same)) return rc;
    if (same) return 0;
  }
}

void clearDependents(DependentList* list, uint64_t maxIdSize) {
  list->setUsed(0);  // reads as a list without entries while its places change
  const uint64_t stride = maxIdSize + sizeof(SNodeInfo_t);
  for (uint64_t place = kDependentHeader; place + stride <= list->size; place += stride)
    list->at<SNodeInfo_t>(place)->nodeTag = 0;
  list->at<DependentHeader>()->maxIdSize = maxIdSize;
  list->setUsed(kDependentHeader);
}

// An entry that moves to another place of its segment changes by the one store of its nodeOffset,
// and stays live. Any other is vacant while it is filled.
static LinkNote_t* linkNoteOf(SNodeCB_t* node) {
  return at<LinkNote_t>(node, TREL_LINK_NOTE_OFFSET);
}

static uint64_t sumOf(const LinkNote_t& note, const SNodeCB_t* node) {
  uint64_t sum = birthStamp(node);
  for (const TrelU64* word = &note.place; word != &note.sum; ++word)
    sum = (sum ^ *word) * 0x9e3779b97f4a7c15;
  return sum | 1;
}

// An entry of another name is vacant until it is whole. One of the same name is there throughout:
// what it will say is noted, for whoever comes after a death in here.
void storeDependent(SNodeCB_t* node, SNodeInfo_t* place, SNodeInfo_t* record, const uint8_t* id,
                    uint64_t idSize) {
  record->idSize = idSize;
  SNodeInfo_t stored = *record;
  const uint64_t tag = stored.nodeTag, offset = offsetOf(place, node);
  stored.selfOffset = node->nodeOffset + offset;
  LinkNote_t* const note = linkNoteOf(node);
  if (place->nodeTag == tag && place->idSize == idSize) {
    *note = {offset, stored.nodeOffset, stored.segInfoOffset, stored.hdmInfoOffset, 0};
    storeLast(&note->sum, sumOf(*note, node));
  } else {
    stored.nodeTag = 0;
    storeLast(&place->nodeTag, 0);
  }
  *place = stored;
  if (idSize) memmove(place + 1, id, idSize);
  storeLast(&place->nodeTag, tag);
  storeLast(&note->sum, 0);
}

// A writer died inside: finishes the entry that it was making lead elsewhere.
static void finishLink(const DependentList& list) {
  const LinkNote_t note = *linkNoteOf(list.node);
  if (note.sum != sumOf(note, list.node)) return;
  const uint64_t first = list.offset + kDependentHeader;
  if (note.place >= first && (note.place - first) % list.stride() == 0 &&
      (note.place - first) / list.stride() < list.capacity()) {
    auto* place = at<SNodeInfo_t>(list.node, note.place);
    place->nodeOffset = note.nodeOffset;
    place->segInfoOffset = note.segInfoOffset;
    place->hdmInfoOffset = note.hdmInfoOffset;
  }
  storeLast(&linkNoteOf(list.node)->sum, 0);
}

static uint32_t countChange(const DependentList& list, SNodeInfo_t* place) {
  const uint32_t rc = countReconfiguration(list.node);
  noteInIndex(list, place);
  return rc;
}

uint32_t addDependent(SNodeCB_t* node, SNodeInfo_t* record, const SoughtName& name, bool replace) {
  if (!(once(node->exports) & TREL_EXPORT_DEPENDENT)) exportDependents(node, true);
  DependentList list;
  if (const uint32_t rc = locateDependents(node, &list)) return rc;
  if (name.idSize > list.maxIdSize) return TREL_RC_PROPERTY_ID_SIZE;
  if (const uint32_t rc = checkCondition(node, accept::living)) return rc;
  if (list.live > TREL_MAX_DEPENDENTS) return TREL_RC_DEPENDENT_COUNT;
  FoundDependent found;
  if (const uint32_t rc = findDependent(list, name, &found)) return rc;
  if (found.entry) {
    if (!replace) return TREL_RC_DEPENDENT_PRESENT;
    storeDependent(node, found.entry, record, name.id, name.idSize);
    return countChange(list, found.entry);
  }
  if (list.maxIdSize == 0) return TREL_RC_DEPENDENTS_FULL;
  const uint64_t used = list.used + list.stride();
  if (!found.vacant) {
    if (used > list.size) return TREL_RC_DEPENDENTS_FULL;
    if (!found.walk.fits()) return TREL_RC_DEPENDENT_BOUNDS;
  }
  if (list.live == TREL_MAX_DEPENDENTS) return TREL_RC_DEPENDENT_COUNT;
  SNodeInfo_t* place = found.vacant ? found.vacant : found.walk.place();
  storeDependent(node, place, record, name.id, name.idSize);
  list.setUsed(used);
  return countChange(list, place);
}

uint32_t removeDependent(DependentList& list, SNodeInfo_t* entry) {
  storeLast(&entry->nodeTag, 0);
  entry->idSize = 0;
  list.setUsed(list.used - list.stride());
  const uint32_t rc = countChange(list, entry);
  if (list.used == kDependentHeader) exportDependents(list.node, false);
  return rc;
}

// One operation is off by one entry at most. More means that the places were not made vacant by
// clearDependents(), and then they say nothing.
void repairDependents(SNodeCB_t* node) {
  DependentList list;
  if (locateDependents(node, &list) || list.maxIdSize == 0) return;
  finishLink(list);
  uint32_t tags = 0;
  for (uint64_t i = 0, places = list.capacity(); i < places; ++i)
    tags += list.at<SNodeInfo_t>(kDependentHeader + i * list.stride())->nodeTag != 0;
  if (tags == list.live + 1 || tags + 1 == list.live)
    list.setUsed(kDependentHeader + uint64_t{tags} * list.stride());
}

void setExport(SNodeCB_t* node, uint32_t exportBit, bool on) {
  const uint32_t n = bitNumber(exportBit);
  auto* byte = reinterpret_cast<uint8_t*>(&node->exports) + n / 8;
  const auto mask = static_cast<uint8_t>(1u << n % 8);
  if (on) {
    __atomic_fetch_or(byte, mask, __ATOMIC_ACQ_REL);
  } else {
    __atomic_fetch_and(byte, static_cast<uint8_t>(~mask), __ATOMIC_ACQ_REL);
  }
}

}  // namespace trel
