// A node whose writer died in its section.
//
// A record of a flat list and an entry of the dependents live by their tag, a list node of a hash
// list by its first chain: each one store. All else that a list says of itself is worked out from
// these: `used`, the stack of freed list nodes, the further tables. It takes no memory, so that it
// cannot fail for want of it.
#include "treli/dependent_list.h"
#include "treli/flat_list.h"
#include "treli/hash_list.h"

namespace trel {
namespace {

// One operation is off by one record at most. More means that the places behind were never made
// vacant, and then their tags say nothing.
template <class K>
bool repairFlat(List<K>& list) {
  const uint64_t occupied = occupiedRecords(list);
  uint64_t tags = 0;
  for (uint64_t position = Form<K>::flatHeader;
       list.holds(list.offset + position, list.recordBytes()); position += list.recordBytes())
    tags += once(list.recordAt(list.offset + position)->tag) != 0;
  if (tags == occupied + 1 || tags + 1 == occupied)
    list.setUsed(Form<K>::flatHeader + tags * list.recordBytes());
  FlatWalk<K> walk(list, occupiedRecords(list));
  while (walk.next()) {
  }
  return walk.rc == 0;
}

// The key that a record holds. False if its identifier is larger than the section allows.
template <class K>
bool readKeyOf(const List<K>& list, typename K::Record* record, Key* key) {
  *key = {once(record->tag)};
  if constexpr (K::hasId) {
    key->idSize = once(record->idSize);
    key->id = list.idOf(record);
  }
  return key->idSize <= list.maxIdSize;
}

// The places of list nodes in a hash list.
struct Places {
  uint64_t first, nodeBytes, count;

  uint64_t at(uint64_t i) const { return first + i * nodeBytes; }
  bool has(uint64_t place) const {
    const uint64_t i = (place - first) / nodeBytes;
    return i < count && at(i) == place;
  }
};

// Whether all first chains lead through places, each to keys of its own in ascending order. Then no
// two of them meet.
template <class K>
bool areChainsSound(const List<K>& list, const Places& places) {
  const uint64_t buckets = list.offset + Form<K>::hashHeader;
  for (uint64_t bucket = buckets; bucket < buckets + 8 * list.tables[0]; bucket += 8) {
    typename K::Record* last = nullptr;
    ChainWalk<K> walk(list, bucket);
    while (walk.next()) {
      int order = -1;
      Key key;
      if (!readKeyOf(list, walk.record, &key) || !places.has(walk.place()) ||
          bucketOf(list, 0, key) != bucket ||
          (last && compareRecord(list, last, key, &order) != 0) || order >= 0)
        return false;
      last = walk.record;
    }
    if (walk.rc) return false;
  }
  return true;
}

// Whether a place is on the first chain of the key that it holds.
template <class K>
bool isLive(const List<K>& list, uint64_t place) {
  typename K::Record* record = list.recordAt(place + sizeof(typename K::Links));
  Key key;
  if (!readKeyOf(list, record, &key)) return false;
  ChainWalk<K> walk(list, bucketOf(list, 0, key));
  while (walk.next())
    if (walk.place() == place) return true;
  return false;
}

template <class K>
void rebuildTables(const List<K>& list, const Places& places) {
  const uint64_t first = Form<K>::hashHeader + 8 * list.tables[0];
  memset(list.at(first), 0, static_cast<size_t>(8 * (list.tables[1] + list.tables[2])));
  for (uint64_t i = 0; i < places.count; ++i) {
    const uint64_t place = places.at(i);
    Key key;
    if (!isLive(list, place) ||
        !readKeyOf(list, list.recordAt(place + sizeof(typename K::Links)), &key))
      continue;
    for (uint32_t table = 1; table < Form<K>::tables; ++table) {
      const uint64_t bucket = bucketOf(list, table, key);
      uint64_t head = 0;
      if (readHead(list, bucket, &head)) linkFirst(list, bucket, head, place + kLinkOfTable[table]);
    }
  }
}

template <class K>
bool repairHashed(List<K>& list) {
  const uint64_t tablesEnd = Form<K>::hashHeader + list.bucketBytes();
  const uint64_t end = list.offset + list.size - sizeof(HashAnchor_t);
  auto* anchor = at<HashAnchor_t>(list.node, end);
  const uint64_t nextFree = once(anchor->nextFreeOffset);
  const uint64_t first = list.offset + tablesEnd;
  if (nextFree < first || nextFree > end || (nextFree - first) % list.nodeBytes() != 0)
    return false;
  Places places = {first, list.nodeBytes(), (nextFree - first) / list.nodeBytes()};
  if (!areChainsSound(list, places)) return false;
  if constexpr (K::hasId) rebuildTables(list, places);
  // A last place that is not live was just taken; the stack may have no room for it.
  while (places.count && !isLive(list, places.at(places.count - 1))) --places.count;
  const uint64_t newNext = places.at(places.count);
  uint64_t live = 0, freed = 0;
  for (uint64_t i = 0; i < places.count; ++i) {
    if (isLive(list, places.at(i))) {
      ++live;
    } else {
      if (freed == TREL_MAX_PROPERTIES || newNext + 8 * (freed + 1) > end) return false;
      *list.word(end - 8 * ++freed) = places.at(i);
    }
  }
  storeLast(&anchor->nextFreeOffset, newNext);
  storeLast(&anchor->freedNodeCount, freed);
  list.setUsed(tablesEnd + sizeof(HashAnchor_t) + live * list.nodeBytes() + 8 * freed);
  return true;
}

template <class K>
bool repairList(SNodeCB_t* node) {
  List<K> list;
  if (!(once(node->exports) & K::bit)) return true;
  if (openList(node, &list)) return false;
  if (!list.created) return true;
  return list.hashed() ? repairHashed(list) : repairFlat(list);
}

// `used` alone tells whether there is a property.
template <class K>
bool repairBase(SNodeCB_t* node) {
  List<K> list;
  if (!(once(node->exports) & K::bit)) return true;
  if (openSection(node, K::bit, &list)) return false;
  const uint64_t start = list.offset + Form<K>::flatHeader;
  if (list.used == 0 && list.holds(start, sizeof(typename K::Record)))
    list.recordAt(start)->tag = 0;
  return true;
}

bool repairId(SNodeCB_t* node) {
  Section section;
  if (!(once(node->exports) & TREL_EXPORT_ID)) return true;
  if (openSection(node, TREL_EXPORT_ID, &section)) return false;
  if (section.used == 0) return true;
  if (section.size < sizeof(IdSection_t)) return false;
  const uint64_t used = sizeof(IdSection_t) + once(section.at<IdSection_t>()->idSize);
  if (used < sizeof(IdSection_t) || used > section.size) return false;
  storeUsed(&section, TREL_EXPORT_ID, used);
  return true;
}

}  // namespace

bool repairNode(SNodeCB_t* node) {
  repairDependents(node);
  const bool sound[] = {repairId(node),
                        repairBase<kind::BaseR>(node),
                        repairBase<kind::BaseV>(node),
                        repairList<kind::R>(node),
                        repairList<kind::V>(node),
                        repairList<kind::IR>(node),
                        repairList<kind::IV>(node)};
  for (const bool one : sound)
    if (!one) return false;
  return true;
}

}  // namespace trel
