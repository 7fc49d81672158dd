// Property lists in hash form: buckets, list nodes placed upward behind them, and at the section's
// end a stack of freed list nodes that grows downward.
//
// The first table's chains are in ascending order of key. IR and IV have two more tables, by tag
// and by identifier, whose chains run newest first through cells inside the list nodes. A list node
// is complete, and on the other chains, before one store puts it on its first chain.
#pragma once

#include "treli/hash.h"
#include "treli/property_list.h"

namespace trel {

inline uint64_t indexOf(uint64_t hash, uint64_t tableSize) {
  if (TREL_LIKELY(hash <= UINT32_MAX))
    return static_cast<uint32_t>(hash) % static_cast<uint32_t>(tableSize);
  return hash % tableSize;
}

// The offset of a key's bucket in table 0, 1 or 2.
template <class K>
TREL_INLINE uint64_t bucketOf(const List<K>& list, uint32_t table, const Key& key) {
  const uint64_t hash = !K::hasId || table == 1 ? hashOfTag(key.tag)
                                                : hashOfId(key.id, key.idSize, table ? 0 : key.tag);
  uint64_t bucket = indexOf(hash, list.tables[table]);
  for (uint32_t i = 0; i < table; ++i) bucket += list.tables[i];
  return list.offset + Form<K>::hashHeader + 8 * bucket;
}

// Follows a chain. A chain of more links than the section has room for list nodes runs in a circle.
template <class K>
struct ChainWalk {
  const List<K>& list;
  uint64_t link;         // of a cell: where in the list node the chain runs through
  TrelU64* cell;         // the cell that leads to `record`, or ends the chain
  uint64_t leadsTo = 0;  // what the cell holds
  typename K::Record* record = nullptr;
  uint64_t room;
  uint32_t rc = 0;

  TREL_INLINE ChainWalk(const List<K>& l, uint64_t firstCell, uint64_t linkPosition = 0)
      : list(l), link(linkPosition), cell(wordAt(l.node, firstCell)), room(l.size) {}

  TREL_INLINE bool next() {
    if (record) cell = wordAt(record, link - sizeof(typename K::Links));
    leadsTo = once(*cell);
    if (leadsTo == 0) return false;
    record = list.recordAt(place() + sizeof(typename K::Links));
    if (TREL_UNLIKELY(room < list.nodeBytes() || !list.holds(place(), list.nodeBytes()))) {
      rc = Codes<K>::bounds;
      return false;
    }
    room -= list.nodeBytes();
    return true;
  }

  // The offset of the record's list node.
  uint64_t place() const { return leadsTo - link; }
};

// Walks the key's first chain up to the record with the key, *found, or to where it belongs. Only a
// delete looks for it behind a larger key, too. The walk's record is the last one looked at.
template <class K>
TREL_INLINE uint32_t seek(ChainWalk<K>* walk, const Key& key, bool pastLarger, bool* found) {
  *found = false;
  while (walk->next()) {
    int order = 0;
    if (const uint32_t rc = compareRecord(walk->list, walk->record, key, &order)) return rc;
    *found = order == 0;
    if (*found || (order > 0 && !pastLarger)) return 0;
  }
  return walk->rc;
}

template <class K>
TREL_INLINE uint32_t findHashed(const List<K>& list, uint64_t bucket, const Key& key,
                                uint32_t absent, typename K::Record** record) {
  ChainWalk<K> walk(list, bucket);
  bool found = false;
  const uint32_t rc = seek(&walk, key, false, &found);
  if (walk.record) *record = walk.record;
  return rc ? rc : found ? 0 : absent;
}

// The memory stack as it was read: its anchor, the number f of freed list nodes, its size, and the
// offset of the first list node that was never used.
struct Stack {
  HashAnchor_t* anchor = nullptr;
  uint64_t freed = 0, bytes = 0, nextFree = 0;
};

template <class K>
uint32_t openStack(const List<K>& list, Stack* stack) {
  if (list.size < sizeof(HashAnchor_t)) return TREL_RC_FREED_COUNT;
  stack->anchor = at<HashAnchor_t>(list.node, list.offset + list.size - sizeof(HashAnchor_t));
  stack->freed = once(stack->anchor->freedNodeCount);
  stack->nextFree = once(stack->anchor->nextFreeOffset);
  stack->bytes = 8 * stack->freed + sizeof(HashAnchor_t);
  return stack->freed > TREL_MAX_PROPERTIES || stack->bytes > list.size
             ? uint32_t{TREL_RC_FREED_COUNT}
             : 0;
}

// Where the next list node goes: the place freed last, or one never used.
template <class K>
uint32_t findPlace(const List<K>& list, const Stack& stack, uint64_t* place) {
  uint64_t next = 0;
  if (stack.freed) {
    next = once(*list.word(list.offset + list.size - stack.bytes));
  } else {
    if (list.size - list.used < list.nodeBytes()) return TREL_RC_NO_LIST_NODE;
    next = stack.nextFree;
  }
  if (next - list.offset > list.size - stack.bytes)
    return stack.freed ? TREL_RC_NO_LIST_NODE : TREL_RC_NEXT_FREE_OFFSET;
  *place = next;
  return 0;
}

template <class K>
void takePlace(List<K>& list, const Stack& stack) {
  if (stack.freed) {
    storeLast(&stack.anchor->freedNodeCount, stack.freed - 1);
    list.setUsed(list.used - 8);
  } else {
    storeLast(&stack.anchor->nextFreeOffset, stack.nextFree + list.nodeBytes());
  }
}

template <class K>
uint32_t checkPush(const List<K>& list, const Stack& stack) {
  const uint64_t entry = list.offset + list.size - stack.bytes - 8;
  return list.size - list.used < 8 || stack.freed == TREL_MAX_PROPERTIES ||
                 stack.bytes + 8 > list.size || entry < stack.nextFree
             ? uint32_t{TREL_RC_STACK_FULL}
             : 0;
}

template <class K>
void push(List<K>& list, const Stack& stack, uint64_t freed) {
  *list.word(list.offset + list.size - stack.bytes - 8) = freed;
  storeLast(&stack.anchor->freedNodeCount, stack.freed + 1);
  list.setUsed(list.used + 8);
}

// What a list node of IR or IV holds for the second and third table each. next: the offset of the
// next node's cell. prev: the offset of what leads to this cell.
struct ChainCell {
  TrelU64 next, prev;
};
static_assert(offsetof(IdHashLinks_t, prevTagCell) == offsetof(IdHashLinks_t, nextTagCell) + 8 &&
              offsetof(IdHashLinks_t, prevIdCell) == offsetof(IdHashLinks_t, nextIdCell) + 8);

// Positions of these cells in the list node; the first chain's link stands at 0.
constexpr uint64_t kLinkOfTable[3] = {0, offsetof(IdHashLinks_t, nextTagCell),
                                      offsetof(IdHashLinks_t, nextIdCell)};

// Reads the head of a chain for linkFirst, before anything is written.
template <class K>
bool readHead(const List<K>& list, uint64_t bucket, uint64_t* head) {
  *head = once(*list.word(bucket));
  return *head == 0 || list.holds(*head, sizeof(ChainCell));
}

template <class K>
void linkFirst(const List<K>& list, uint64_t bucket, uint64_t head, uint64_t cell) {
  *at<ChainCell>(list.node, cell) = {head, bucket};
  if (head) at<ChainCell>(list.node, head)->prev = cell;
  storeLast(list.word(bucket), cell);
}

// Reads the links of a cell for unlink.
template <class K>
bool readCell(const List<K>& list, uint64_t cell, ChainCell* links) {
  const auto* stored = at<ChainCell>(list.node, cell);
  *links = {once(stored->next), once(stored->prev)};
  return (links->next == 0 || list.holds(links->next, sizeof *links)) &&
         list.holds(links->prev, 8) && once(*list.word(links->prev)) == cell;
}

template <class K>
void unlink(const List<K>& list, const ChainCell& links) {
  if (links.next) at<ChainCell>(list.node, links.next)->prev = links.prev;
  storeLast(list.word(links.prev), links.next);
}

// All that can fail comes before a place is taken; until then the section is as it was.
template <class K>
uint32_t addHashed(List<K>& list, const Key& key, const Value& value) {
  ChainWalk<K> walk(list, bucketOf(list, 0, key));
  bool found = false;
  if (const uint32_t rc = seek(&walk, key, false, &found)) return rc;
  if (found) return Codes<K>::present;

  Stack stack;
  uint64_t place = 0;
  if (const uint32_t rc = openStack(list, &stack)) return rc;
  if (const uint32_t rc = findPlace(list, stack, &place)) return rc;
  const uint64_t position = place - list.offset;  // between the buckets and the stack
  if (position < Form<K>::hashHeader + list.bucketBytes() ||
      list.size - stack.bytes - position < list.nodeBytes())
    return Codes<K>::bounds;
  uint64_t buckets[3] = {}, heads[3] = {};
  for (uint32_t i = 1; i < Form<K>::tables; ++i) {
    buckets[i] = bucketOf(list, i, key);
    if (!readHead(list, buckets[i], &heads[i])) return Codes<K>::bounds;
  }
  if (const uint32_t rc = fill(list, list.recordAt(place + sizeof(typename K::Links)), key, value))
    return rc;

  takePlace(list, stack);
  list.setUsed(list.used + list.nodeBytes());
  for (uint32_t i = 1; i < Form<K>::tables; ++i)
    linkFirst(list, buckets[i], heads[i], place + kLinkOfTable[i]);
  *list.word(place) = walk.leadsTo;
  storeLast(walk.cell, place);
  return countReconfiguration(list.node);
}

template <class K>
uint32_t deleteHashed(List<K>& list, const Key& key) {
  ChainWalk<K> walk(list, bucketOf(list, 0, key));
  bool found = false;
  if (const uint32_t rc = seek(&walk, key, K::hasId, &found)) return rc;
  if (!found) return Codes<K>::absent;

  Stack stack;
  if (const uint32_t rc = openStack(list, &stack)) return rc;
  if (const uint32_t rc = checkPush(list, stack)) return rc;
  const uint64_t place = walk.place();
  ChainCell links[3] = {};
  for (uint32_t i = 1; i < Form<K>::tables; ++i)
    if (!readCell(list, place + kLinkOfTable[i], &links[i])) return Codes<K>::bounds;

  push(list, stack, place);
  for (uint32_t i = 1; i < Form<K>::tables; ++i) unlink(list, links[i]);
  storeLast(walk.cell, once(*list.word(place)));
  list.setUsed(list.used - list.nodeBytes());
  return countReconfiguration(list.node);
}

// Sets an empty list up, then adds the entries. The first failure ends that, and what was added
// stays.
template <class K>
uint32_t createHashed(List<K>& list, const Entries& entries, uint64_t maxCount, uint64_t tagTable,
                      uint64_t idTable, uint64_t inCriticalSection) {
  const uint64_t wanted[3] = {maxCount, tagTable, idTable};
  if (K::hasId && maxCount > TREL_MAX_PROPERTIES) return Codes<K>::count;
  if (K::hasId && tagTable > TREL_MAX_TAG) return TREL_RC_TAG_TABLE;
  if (K::hasId && idTable > TREL_MAX_TAG) return TREL_RC_ID_TABLE;
  for (uint32_t i = 0; i < Form<K>::tables; ++i) {
    list.tables[i] = wanted[i] > TREL_MAX_TABLE_SIZE ? wanted[i] : primeFrom(wanted[i]);
    if (list.tables[i] > TREL_MAX_TABLE_SIZE) return TREL_RC_TABLE_SIZE;
  }
  if (entries.count > list.tables[0]) return TREL_RC_COUNT_ABOVE_TABLE;
  const uint64_t tablesEnd = Form<K>::hashHeader + list.bucketBytes();
  if (tablesEnd + sizeof(HashAnchor_t) + list.tables[0] * list.nodeBytes() > list.size)
    return Codes<K>::hashFit;
  return writing(list.node, inCriticalSection, accept::settled, [&]() -> uint32_t {
    writeHeader(&list);
    const uint64_t end = list.offset + list.size;
    *at<HashAnchor_t>(list.node, end - sizeof(HashAnchor_t)) = {list.offset + tablesEnd, 0};
    memset(list.at(Form<K>::hashHeader), 0, static_cast<size_t>(list.bucketBytes()));
    list.setUsed(tablesEnd + sizeof(HashAnchor_t));
    list.created = true;
    return forEachEntry<K>(entries, list.maxValueSize,
                           [&](const Key& key, const Value& value) -> uint32_t {
                             if (const uint32_t rc = checkKey(list, key, value.size)) return rc;
                             return addHashed(list, key, value);
                           });
  });
}

}  // namespace trel
