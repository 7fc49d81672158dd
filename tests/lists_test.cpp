// The process lists, against a model of them.
#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <type_traits>
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

struct Lists : Library {
  Segment segment;

  // Calls use(make, find, insert, remove, clear, print) for the lists in shared memory.
  template <class Use>
  void onSharedLists(Use&& use) {
    const auto on = [pool = segment.pool()](auto operation) {
      return [=](auto... arguments) { return operation(pool, arguments...); };
    };
    use(segmentOf, on(trelFindAttachSegInfoNodeInLList), on(trelInsertAttachSegInfoNodeIntoLList),
        on(trelDeleteAttachSegInfoNodeFromLList), on(trelDeleteAttachSegInfoLList),
        on(trelPrintAttachSegInfoNodeLList));
    use(moduleOf, on(trelFindHDMNodeInLList), on(trelInsertHDMNodeIntoLList),
        on(trelDeleteHDMNodeFromLList), on(trelDeleteHDMLList), on(trelPrintHDMNodeLList));
  }
  // The same for those in the memory of the process.
  template <class Use>
  void onPrivateLists(Use&& use) {
    use(segmentOf, trelFindAttachSegInfoNodeInPMLList, trelInsertAttachSegInfoNodeIntoPMLList,
        trelDeleteAttachSegInfoNodeFromPMLList, trelDeleteAttachSegInfoPMLList,
        trelPrintAttachSegInfoNodePMLList);
    use(moduleOf, trelFindHDMNodeInPMLList, trelInsertHDMNodeIntoPMLList,
        trelDeleteHDMNodeFromPMLList, trelDeleteHDMPMLList, trelPrintHDMNodePMLList);
  }
};

std::string printedBy(const std::function<uint32_t()>& print, uint32_t code = 0) {
  return printed([&] { EXPECT_EQ(code, print()); });
}

std::string textOf(bool sorted, const std::vector<int>& names) {
  std::string text = names.empty() ? "List is empty\n" : "";
  for (size_t i = 0; i < names.size(); ++i) {
    char line[200];
    snprintf(line, sizeof line,
             sorted ? "Linked list node #%d stores HDM module path = \"/lib/module%03d.so\"\n"
                    : "Linked list node #%d stores segment key = \"%d\"\n",
             static_cast<int>(i) + 1, names[i]);
    text += line;
  }
  return text;
}

TEST_F(Lists, BehaveAsTheirModel) {
  const uint64_t atFirst = segment.poolInfo().freeBytes;
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto behaves = [&](auto make, auto find, auto insert, auto remove, auto clear, auto print) {
    using Record = decltype(make(0));
    const bool sorted = std::is_same_v<Record, HdmModuleRecord_t>;
    std::vector<int> model;
    for (int step = 0; step < 400 && !HasFailure(); ++step) {
      const int name = static_cast<int>(random() % 12);
      const Record record = make(name);
      Record* payload = nullptr;
      const auto at = std::find(model.begin(), model.end(), name);
      const bool present = at != model.end();
      const uint32_t what = random() % 36;
      if (what < 14) {
        auto place = model.begin();
        while (sorted && place != model.end() && *place > name) ++place;
        const bool met = place != model.end() && *place == name;
        EXPECT_EQ(met ? uint32_t{TREL_RC_LIST_PRESENT} : 0u, insert(&record, &payload));
        EXPECT_EQ(met, payload == nullptr);
        if (!met) model.insert(place, name);
      } else if (what < 24) {
        EXPECT_EQ(present ? 0u : uint32_t{TREL_RC_LIST_ABSENT}, remove(&record));
        if (present) model.erase(at);
      } else if (what < 35) {
        EXPECT_EQ(0u, find(&record, &payload));
        EXPECT_EQ(present, payload != nullptr);
        EXPECT_TRUE(!payload || memcmp(payload, &record, sizeof record) == 0);
      } else {
        EXPECT_EQ(0u, clear());
        model.clear();
      }
      EXPECT_EQ(textOf(sorted, model), printedBy(print));
    }
    EXPECT_EQ(0u, clear());
    EXPECT_EQ(0u, clear());
  };
  onSharedLists(behaves);
  onPrivateLists(behaves);
  EXPECT_EQ(atFirst, segment.poolInfo().freeBytes);
}

TEST_F(Lists, PathsWithoutTerminator) {
  HdmModuleRecord_t first{}, *module = nullptr;
  memset(first.modulePath, 'x', sizeof first.modulePath);
  HdmModuleRecord_t second = first;
  second.rest[0] = 1;
  EXPECT_EQ(0u, trelInsertHDMNodeIntoLList(segment.pool(), &first, &module));
  EXPECT_EQ(TREL_RC_LIST_PRESENT, trelInsertHDMNodeIntoLList(segment.pool(), &second, &module));
  const std::string text = printedBy([&] { return trelPrintHDMNodeLList(segment.pool()); });
  EXPECT_EQ(std::string(1024, 'x') + "\"\n", text.substr(text.size() - 1026));
}

// Damaged heads and links, loops among them: a code within a moment, whatever is asked.
TEST_F(Lists, DamageGivesCodes) {
  auto* head = reinterpret_cast<TrelU64*>(segment.heap() + 1) + 2;
  onSharedLists([&](auto make, auto find, auto insert, auto remove, auto clear, auto print) {
    auto sought = make(0), *payload = &sought;
    for (int name : {1, 2, 3}) {
      const auto record = make(name);
      EXPECT_EQ(0u, insert(&record, &payload));
    }
    auto* firstLink =
        reinterpret_cast<TrelU64*>(static_cast<uint8_t*>(segment.domain()->base) + *head);
    for (TrelU64* link : {head, firstLink}) {
      const uint64_t sound = *link, loop = *head;
      for (uint64_t nonsense : {uint64_t{0x100000}, uint64_t{0xfffff}, uint64_t{0x100000 - 39},
                                uint64_t{1} << 32, ~uint64_t{0}, ~uint64_t{39}, loop}) {
        if (nonsense == sound) continue;
        *link = nonsense;
        EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, find(&sought, &payload)) << std::hex << nonsense;
        EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, remove(&sought));
        if (nonsense != loop) printedBy(print, TREL_RC_BLOCK_OUTSIDE_POOL);
      }
      *link = sound;
    }
    sought = make(1);
    EXPECT_EQ(0u, find(&sought, &payload));
    EXPECT_EQ(0, memcmp(payload, &sought, sizeof sought));
    *head = 0x100000;
    EXPECT_EQ(TREL_RC_BLOCK_OUTSIDE_POOL, clear());
    EXPECT_EQ(0u, *head++) << "emptied all the same";
  });
}

TEST_F(Lists, AttachmentsArePrintedNewestFirst) {
  const Segment second;
  const auto number = [](const Segment& of) { return static_cast<int>(of.key.id().key); };
  EXPECT_EQ(textOf(false, {number(second), number(segment)}),
            printedBy(trelPrintAttachInfoNodeLList));
}

}  // namespace
