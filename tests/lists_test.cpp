// The process lists, against a model of them.
#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "segment_fixture.h"

namespace {

SegIdentity_t segmentOf(int name) {
  SegIdentity_t record{};
  record.segmentKey.key = static_cast<uint32_t>(name);
  return record;
}
HdmModuleRecord_t moduleOf(int name) {
  HdmModuleRecord_t record{};
  memset(record.rest, name, sizeof record.rest);
  snprintf(record.modulePath, sizeof record.modulePath, "/lib/module%03d.so", name);
  return record;
}

// One flavour behind names that are numbers. find: -1 for none.
struct List {
  bool sorted;
  const char* line;
  std::function<uint32_t(int, int*)> find;
  std::function<uint32_t(int)> insert, remove;
  std::function<uint32_t()> clear, print;
};

template <class Record, class Make, class Find, class Insert, class Remove>
List makeList(bool sorted, Make make, Find find, Insert insert, Remove remove) {
  List list;
  list.sorted = sorted;
  list.line = sorted ? "Linked list node #%d stores HDM module path = \"/lib/module%03d.so\"\n"
                     : "Linked list node #%d stores segment key = \"%d\"\n";
  list.find = [=](int name, int* found) {
    const Record record = make(name);
    Record* payload = nullptr;
    const uint32_t rc = find(&record, &payload);
    *found = payload ? name : -1;
    if (payload) {
      EXPECT_EQ(0, memcmp(payload, &record, sizeof record));
    }
    return rc;
  };
  list.insert = [=](int name) {
    const Record record = make(name);
    Record* payload = nullptr;
    const uint32_t rc = insert(&record, &payload);
    EXPECT_EQ(rc == 0, payload != nullptr);
    return rc;
  };
  list.remove = [=](int name) {
    const Record record = make(name);
    return remove(&record);
  };
  return list;
}

class Lists : public Library {
 protected:
  Segment segment;

  std::vector<List> flavours() {
    ShmPoolHandle_t* pool = segment.pool();
    const auto bind = [pool](auto operation) {
      return [=](auto... arguments) { return operation(pool, arguments...); };
    };
    std::vector<List> lists = {
        makeList<SegIdentity_t>(false, segmentOf, bind(trelFindAttachSegInfoNodeInLList),
                                bind(trelInsertAttachSegInfoNodeIntoLList),
                                bind(trelDeleteAttachSegInfoNodeFromLList)),
        makeList<HdmModuleRecord_t>(true, moduleOf, bind(trelFindHDMNodeInLList),
                                    bind(trelInsertHDMNodeIntoLList),
                                    bind(trelDeleteHDMNodeFromLList)),
        makeList<SegIdentity_t>(false, segmentOf, trelFindAttachSegInfoNodeInPMLList,
                                trelInsertAttachSegInfoNodeIntoPMLList,
                                trelDeleteAttachSegInfoNodeFromPMLList),
        makeList<HdmModuleRecord_t>(true, moduleOf, trelFindHDMNodeInPMLList,
                                    trelInsertHDMNodeIntoPMLList, trelDeleteHDMNodeFromPMLList)};
    lists[0].clear = [=] { return trelDeleteAttachSegInfoLList(pool); };
    lists[0].print = [=] { return trelPrintAttachSegInfoNodeLList(pool); };
    lists[1].clear = [=] { return trelDeleteHDMLList(pool); };
    lists[1].print = [=] { return trelPrintHDMNodeLList(pool); };
    lists[2].clear = trelDeleteAttachSegInfoPMLList;
    lists[2].print = trelPrintAttachSegInfoNodePMLList;
    lists[3].clear = trelDeleteHDMPMLList;
    lists[3].print = trelPrintHDMNodePMLList;
    return lists;
  }
  uint64_t freeBytes() {
    ShmPoolInfo_t info;
    EXPECT_EQ(0u, trelGetShmPoolInfo(segment.pool(), &info));
    return info.freeBytes;
  }
};

std::string printed(const std::function<uint32_t()>& print) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(0u, print());
  fflush(stdout);
  return testing::internal::GetCapturedStdout();
}

std::string textOf(const List& list, const std::vector<int>& names) {
  std::string text = names.empty() ? "List is empty\n" : "";
  char line[200];
  for (size_t i = 0; i < names.size(); ++i) {
    snprintf(line, sizeof line, list.line, static_cast<int>(i) + 1, names[i]);
    text += line;
  }
  return text;
}

TEST_F(Lists, BehaveAsTheirModel) {
  const uint64_t atFirst = freeBytes();
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (const List& list : flavours()) {
    std::vector<int> model;
    for (int step = 0; step < 400; ++step) {
      const int name = static_cast<int>(random() % 12);
      const auto at = std::find(model.begin(), model.end(), name);
      int found = -1;
      switch (random() % 8) {
        case 0:
        case 1:
        case 2: {
          auto place = model.begin();
          if (list.sorted)
            while (place != model.end() && *place > name) ++place;
          const bool met = place != model.end() && *place == name;
          EXPECT_EQ(met ? uint32_t{TREL_RC_LIST_PRESENT} : 0u, list.insert(name));
          if (!met) model.insert(place, name);
          break;
        }
        case 3:
        case 4:
          EXPECT_EQ(at == model.end() ? uint32_t{TREL_RC_LIST_ABSENT} : 0u, list.remove(name));
          if (at != model.end()) model.erase(at);
          break;
        case 5:
        case 6:
          EXPECT_EQ(0u, list.find(name, &found));
          EXPECT_EQ(at == model.end() ? -1 : name, found);
          break;
        default:
          if (step % 5 == 0) {
            EXPECT_EQ(0u, list.clear());
            model.clear();
          }
      }
      EXPECT_EQ(textOf(list, model), printed(list.print));
      if (HasFailure()) return;
    }
    EXPECT_EQ(0u, list.clear());
    EXPECT_EQ(0u, list.clear());
  }
  EXPECT_EQ(atFirst, freeBytes());
}

TEST_F(Lists, ArgumentsAndEmptyLists) {
  ShmPoolHandle_t none{};
  SegIdentity_t record = segmentOf(1), *found = &record;
  platSetReportSink([](const char*) {});
  EXPECT_EQ(TREL_RC_POOL_HANDLE_NULL, trelFindAttachSegInfoNodeInLList(nullptr, nullptr, &found));
  EXPECT_EQ(TREL_RC_BASE_NULL, trelInsertAttachSegInfoNodeIntoLList(&none, nullptr, &found));
  platSetReportSink(nullptr);
  EXPECT_EQ(TREL_RC_LIST_RECORD_NULL, trelDeleteHDMNodeFromLList(segment.pool(), nullptr));
  EXPECT_EQ(TREL_RC_LIST_RECORD_NULL, trelDeleteHDMNodeFromPMLList(nullptr));
  EXPECT_EQ(0u, trelFindAttachSegInfoNodeInLList(segment.pool(), &record, &found));
  EXPECT_EQ(&record, found) << "an empty shared list leaves the out argument alone";
  EXPECT_EQ(0u, trelFindAttachSegInfoNodeInPMLList(&record, &found));
  EXPECT_EQ(nullptr, found);

  HdmModuleRecord_t first{}, second{}, *module = nullptr;
  memset(first.modulePath, 'x', sizeof first.modulePath);  // no terminator
  second = first;
  second.rest[0] = 1;
  EXPECT_EQ(0u, trelInsertHDMNodeIntoLList(segment.pool(), &first, &module));
  EXPECT_EQ(TREL_RC_LIST_PRESENT, trelInsertHDMNodeIntoLList(segment.pool(), &second, &module));
  const std::string text = printed([&] { return trelPrintHDMNodeLList(segment.pool()); });
  EXPECT_EQ(std::string(1024, 'x') + "\"\n", text.substr(text.size() - 1026));

  int32_t result = 7;
  const PLATIPCResID one = {1, 5}, same = {2, 5}, other = {1, 6};
  EXPECT_EQ(TREL_RC_HANDLE_VERSION, trelCompareSegID(&one, &same, 1, &result));
  EXPECT_EQ(7, result);
  EXPECT_EQ(0u, trelCompareSegID(&one, &same, TREL_STRUCTURE_VERSION, &result));
  EXPECT_EQ(0, result);
  EXPECT_EQ(0u, trelCompareSegID(&one, &other, TREL_STRUCTURE_VERSION, &result));
  EXPECT_EQ(1, result);
}

// Damaged heads and links, loops among them: a code within a moment, whatever is asked.
TEST_F(Lists, DamageGivesCodes) {
  std::vector<List> shared = flavours();
  shared.resize(2);
  auto* heads = reinterpret_cast<TrelU64*>(segment.heap() + 1) + 2;
  for (size_t kind = 0; kind < 2; ++kind) {
    const List& list = shared[kind];
    for (int name : {1, 2, 3}) EXPECT_EQ(0u, list.insert(name));
    auto* firstLink =
        reinterpret_cast<TrelU64*>(static_cast<uint8_t*>(segment.domain()->base) + heads[kind]);
    for (TrelU64* link : {&heads[kind], firstLink}) {
      const uint64_t sound = *link;
      for (uint64_t nonsense : {uint64_t{0x100000}, uint64_t{0xfffff}, uint64_t{0x100000 - 39},
                                uint64_t{1} << 32, ~uint64_t{0}, ~uint64_t{39}}) {
        *link = nonsense;
        int found = 0;
        EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, list.find(0, &found)) << std::hex << nonsense;
        EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, list.remove(0));
        testing::internal::CaptureStdout();
        EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, list.print());
        testing::internal::GetCapturedStdout();
      }
      *link = sound;
    }
    const uint64_t sound = *firstLink;
    *firstLink = heads[kind];  // a loop of one node
    int found = 0;
    EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, list.find(0, &found));
    EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, list.remove(0));
    *firstLink = sound;
    EXPECT_EQ(0u, list.find(1, &found));
    EXPECT_EQ(1, found);
    heads[kind] = 0x100000;
    EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, list.clear());
    EXPECT_EQ(0u, heads[kind]) << "emptied all the same";
  }
}

TEST_F(Lists, AttachList) {
  EXPECT_EQ(0u, trelDetachStatusSegment(&segment.info, 2));
  EXPECT_EQ("", printed(trelPrintAttachInfoNodeLList));
  ShmSegInfo_t infos[3] = {};
  SegAttachNode_t nodes[3] = {};
  for (int i : {0, 1, 2}) {
    infos[i].identity = segmentOf(i - 1);
    infos[i].identity.handleVersion = TREL_STRUCTURE_VERSION;
    nodes[i].segInfo = &infos[i];
    SegAttachNode_t* node = &nodes[i];
    EXPECT_EQ(0u, trelInsertAttachInfoNodeIntoLList(&infos[i], &node));
  }
  EXPECT_EQ(
      "Linked list node #1 stores segment key = \"1\"\n"
      "Linked list node #2 stores segment key = \"0\"\n"
      "Linked list node #3 stores segment key = \"-1\"\n",
      printed(trelPrintAttachInfoNodeLList));
  SegAttachNode_t* found = nullptr;
  const PLATIPCResID zero = {0, 0}, absent = {0, 9};
  EXPECT_EQ(0u, trelFindAttachInfoNodeInLList(&zero, &found));
  EXPECT_EQ(&nodes[1], found);
  EXPECT_EQ(0u, trelFindAttachInfoNodeInLList(&absent, &found));
  EXPECT_EQ(nullptr, found);
  EXPECT_EQ(0u, trelDeleteAttachInfoNodeInLList(&absent));
  infos[2].identity.handleVersion = 1;
  EXPECT_EQ(TREL_RC_COMPARE_KEY, trelFindAttachInfoNodeInLList(&zero, &found));
  EXPECT_EQ(TREL_RC_COMPARE_KEY, trelDeleteAttachInfoNodeInLList(&zero));
  *pSegAttachList = nullptr;
}

}  // namespace
