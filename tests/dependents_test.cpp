// Names and lists of dependents.
#include <algorithm>
#include <chrono>
#include <random>
#include <thread>

#include "tree_fixture.h"

namespace {

TEST(Names, PathsAndPackedIdentifiers) {
  const uint32_t memory = TREL_STRUCTURE_VERSION;
  const std::string beyond(4097, 'x');
  const char *strings[] = {"ab", beyond.c_str() + 1, "c"}, *tooLong[] = {beyond.c_str()};
  const uint64_t tags[] = {7, 0x100000002, 9};
  TraverseInfo_t* path = nullptr;
  EXPECT_EQ(TREL_RC_NODE_ID_SIZE, trelCreateTraverseInfoArray(&path, tags, tooLong, 1, 1, &memory));
  ASSERT_EQ(0u, trelCreateTraverseInfoArray(&path, tags, strings, 2, 3, &memory));
  EXPECT_EQ(2u, path[1].traverseTag);
  EXPECT_EQ(4096u, path[1].traverseIdSize);
  EXPECT_EQ('c', path[2].traverseId[0]);
  EXPECT_EQ(0u, trelDeleteTraverseInfoArray(&path, 3, &memory));

  const char* names[] = {"ab", "", "c"};
  uint8_t* ids = nullptr;
  uint64_t* sizes = nullptr;
  ASSERT_EQ(0u, trelCreateID(&ids, &sizes, names, 2, 3, TREL_EXPORT_DEPENDENT, &memory));
  EXPECT_EQ("abc", std::string(ids, ids + sizes[0] + sizes[1] + sizes[2]));
  EXPECT_EQ(0u, sizes[1]);
  EXPECT_EQ(0u, trelDeleteID(&ids, &sizes, &memory));
}

TEST(Names, TheirOrder) {
  const auto sign = [](int32_t order) { return (order > 0) - (order < 0); };
  struct {
    uint64_t tagA;
    std::string a;
    uint64_t tagB;
    std::string b;
    int32_t byId, byName;
  } const rows[] = {{1, "ab", 1, "ab", 0, 0},
                    {1, "b", 1, "ab", -1, -1},
                    {2, "a", 1, "bb", -1, 1},
                    {1, "a\xff", 1, "ab", 1, 1},
                    {3, "", 4, "", 0, -1}};
  for (const auto& [tagA, a, tagB, b, byId, byName] : rows) {
    int32_t order = 7;
    EXPECT_EQ(0u, trelCompareID(bytes(a), a.size(), bytes(b), b.size(), TREL_EXPORT_ID, &order));
    EXPECT_EQ(byId, sign(order)) << a << b;
    EXPECT_EQ(0u, trelCompareTagID(tagA, bytes(a), a.size(), tagB, bytes(b), b.size(),
                                   TREL_EXPORT_ID, &order));
    EXPECT_EQ(byName, sign(order)) << a << b;
  }
  const uint8_t* none = bytes("");
  EXPECT_EQ(TREL_RC_COMPARE_ID_SIZE, trelCompareID(none, 4097, none, 0, TREL_EXPORT_ID, nullptr));
  EXPECT_EQ(TREL_RC_OUT_COMPARISON,
            trelCompareTagID(0x100001, none, 0, 1, none, 0, TREL_EXPORT_ID, nullptr));
  EXPECT_EQ("a~.. ", printed([] { EXPECT_EQ(0u, trelPrintID(bytes("a~\x7f\xe4 "), 5)); }));
  std::string turned = "12345";
  trelReverseByteSequence(reinterpret_cast<uint8_t*>(&turned[0]), 5);
  EXPECT_EQ("54321", turned);
}

class Dependents : public Library {
 protected:
  // The names of the list, in order.
  std::string names() {
    SNodeInfo_t records[8];
    uint8_t ids[8 * kIdRoom] = {};
    uint64_t returned = 0, live = 0;
    const uint32_t rc =
        trelReturnDependentNodes(parent, records, ids, &returned, &live, 8, kIdRoom, 0);
    if (rc == TREL_RC_DEPENDENTS_EMPTY) return "";
    EXPECT_EQ(0u, rc);
    EXPECT_EQ(live, returned);
    std::string all;
    for (uint64_t i = 0; i < returned; ++i)
      all.append(reinterpret_cast<char*>(ids + i * kIdRoom), records[i].idSize);
    return all;
  }
  uint32_t add(uint64_t tag, const std::string& id, uint64_t mode = 0) {
    SNodeInfo_t record = recordOf(segment, child, segment);
    record.nodeTag = tag;
    return trelAddDependentNode(parent, &record, id.empty() ? nullptr : bytes(id), id.size(), mode,
                                0);
  }
  uint32_t remove(uint64_t tag, const std::string& id) {
    SNodeInfo_t record{};
    record.nodeTag = tag;
    record.idSize = id.size();
    return trelDeleteDependentNode(parent, &record, bytes(id), 0);
  }

  Segment segment;
  SNodeCB_t* parent = makeNode(segment, 1, "p", 3);
  SNodeCB_t* child = makeNode(segment, 2, "c", 0);
};

// Order, places and codes of lists that grow and shrink: the model of trees sees to them.
TEST_F(Dependents, NamesMayBeReplacedAndTheLastTakesTheExportBit) {
  EXPECT_EQ(0u, add(5, "C"));
  const uint64_t before = reconfigurations(parent);
  EXPECT_EQ(TREL_RC_DEPENDENT_PRESENT, add(5, "C"));
  EXPECT_EQ(0u, add(5, "C", TREL_ADD_REPLACE));
  EXPECT_EQ(before + 1, reconfigurations(parent));
  EXPECT_EQ((Count{1, 3}), dependentsOf(parent));
  EXPECT_EQ(TREL_RC_DEPENDENT_ABSENT, remove(5, "A"));
  SNodeInfo_t* entry = nullptr;
  EXPECT_EQ(0u, trelFindDependentNode(&entry, parent, 5, 0, nullptr, 0));
  EXPECT_EQ('C', reinterpret_cast<char*>(entry + 1)[0]);
  EXPECT_EQ(segment.offsetOf(entry), +entry->selfOffset);
  EXPECT_EQ(0u, remove(5, "C"));
  EXPECT_EQ(0u, +parent->exports & TREL_EXPORT_DEPENDENT);
  EXPECT_EQ(TREL_RC_DEPENDENTS_EMPTY, remove(5, "C"));
  for (uint64_t tag : {0u, TREL_MAX_TAG + 1}) EXPECT_EQ(TREL_RC_TAG_RANGE, add(tag, "x"));
  EXPECT_EQ(TREL_RC_PROPERTY_ID_SIZE, add(6, std::string(kIdRoom + 1, 'x')));
}

TEST_F(Dependents, CreatedFromRecords) {
  const SNodeInfo_t one = recordOf(segment, child, segment);
  SNodeInfo_t records[] = {one, one};
  uint64_t sizes[] = {1, 2};
  const auto create = [&](uint64_t max, uint64_t count, const char* ids) {
    return trelCreateDependentNodeList(parent, records, sizes, bytes(ids), max, count, 0);
  };
  EXPECT_EQ(TREL_RC_DEPENDENTS_FULL, create(kIdRoom * 8, 2, "abc"));
  const uint64_t before = reconfigurations(parent);
  EXPECT_EQ(0u, create(kIdRoom - 3, 2, "abc"));
  EXPECT_EQ(before + 1, reconfigurations(parent));
  EXPECT_EQ("abc", names());
  sizes[1] = 1;
  EXPECT_EQ(0u, create(kIdRoom, 2, "ab"));
  EXPECT_EQ(TREL_RC_DEPENDENT_PRESENT, create(kIdRoom, 2, "aa"));
  EXPECT_EQ("ab", names());
  SNodeInfo_t* entry = nullptr;
  records[0].nodeTag = records[1].nodeTag = 0;  // entries that read as vacant
  EXPECT_EQ(0u, create(kIdRoom, 2, "aa"));
  EXPECT_EQ(TREL_RC_DEPENDENT_BOUNDS, trelFindDependentNode(&entry, parent, 2, 0, nullptr, 0));
  // Without room for identifiers a list never shows an entry.
  EXPECT_EQ(0u, create(0, 0, ""));
  EXPECT_EQ(TREL_RC_DEPENDENTS_FULL, add(5, ""));
}

// The last entry takes the export bit away with it, also from under those who wait to add theirs.
TEST_F(Dependents, TheLastGoesWhileOthersWaitToAdd) {
  const auto create = [&] {
    SNodeInfo_t record = recordOf(segment, child, segment);
    const uint64_t size = 1;
    return trelCreateDependentNodeList(parent, &record, &size, bytes("B"), kIdRoom, 1, 0);
  };
  for (const bool byCreate : {false, true}) {
    ASSERT_EQ(0u, add(5, "A"));
    ASSERT_EQ(0u, trelEnterCriticalSectionBeforeWrite(parent, &parent->nodeLatchArea));
    uint32_t rc = 1;
    std::thread other([&] { rc = byCreate ? create() : add(5, "B"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    SNodeInfo_t record{};
    record.nodeTag = 5;
    EXPECT_EQ(0u, trelDeleteDependentNode(parent, &record, nullptr, 1));
    EXPECT_EQ(0u, trelExitCriticalSectionAfterWrite(parent, &parent->nodeLatchArea));
    other.join();
    EXPECT_EQ(0u, rc);
    EXPECT_EQ("B", names());
    if (!byCreate) {
      EXPECT_EQ(0u, remove(5, "B"));
    }
  }
}

// Long lists are looked up in an index of the process, which others' changes and lists made anew
// make worthless.
TEST_F(Dependents, LongListsAreWhatTheyWouldBeByWalking) {
  constexpr uint64_t kPlaces = 400;
  Segment wide(0x40000);
  SNodeCB_t* list = makeNode(wide, 1, "wide", kPlaces);
  std::vector<std::string> places;  // "" is vacant
  std::mt19937 random(7);
  const auto change = [&](const std::string& id, bool isThere) {
    SNodeInfo_t record = recordOf(wide, list, wide);
    record.nodeTag = 9;
    record.idSize = id.size();
    return isThere ? trelDeleteDependentNode(list, &record, bytes(id), 0)
                   : trelAddDependentNode(list, &record, bytes(id), id.size(), 0, 0);
  };
  for (int step = 0; step < 6000; ++step) {
    const std::string id = "n" + std::to_string(random() % 500);
    const auto at = std::find(places.begin(), places.end(), id);
    const bool isThere = at != places.end();
    const auto hole = std::find(places.begin(), places.end(), "");
    if (!isThere && hole == places.end() && places.size() == kPlaces) continue;
    if (step % 500 == 0)
      ASSERT_EQ(0, inOtherProcess([&] { EXPECT_EQ(0u, change(id, isThere)); }));
    else
      ASSERT_EQ(0u, change(id, isThere)) << step;
    if (isThere)
      at->clear();
    else if (hole != places.end())
      *hole = id;
    else
      places.push_back(id);
    while (!places.empty() && places.back().empty()) places.pop_back();
    SNodeInfo_t* entry = nullptr;
    EXPECT_EQ(isThere ? TREL_RC_DEPENDENT_ABSENT : 0u,
              trelFindDependentNode(&entry, list, 9, id.size(), bytes(id), 0));
  }
  // Each at its place.
  const auto* first = sectionOf<uint8_t>(list, TREL_EXPORT_DEPENDENT) + 8;
  for (size_t i = 0; i < places.size(); ++i) {
    const auto* entry = reinterpret_cast<const SNodeInfo_t*>(first + i * (56 + kIdRoom));
    const auto* id = reinterpret_cast<const char*>(entry + 1);
    EXPECT_EQ(places[i], entry->nodeTag ? std::string(id, entry->idSize) : "");
  }
}

}  // namespace
