// Properties of all kinds and forms: against a model, at their limits, and in damaged sections.
#include <atomic>
#include <random>
#include <thread>

#include "node_fixture.h"
#include "property_api.h"

namespace {

using namespace walker;

constexpr uint64_t kProperties = 0x7e0, kLead = TREL_EXPORT_RECORD24, kBehind = 1 << 21;

// An active node with sections by export bit. Odd sizes in front of them let them start at any
// byte, and what lies behind them is watched.
struct ListNode : Node {
  explicit ListNode(std::map<uint64_t, uint64_t> sections) : Node(kProperties, watched(sections)) {
    EXPECT_EQ(0u, init());
    EXPECT_EQ(0u, trelActivateNode(&cb));
  }
  static std::map<uint64_t, uint64_t> watched(std::map<uint64_t, uint64_t> sections) {
    sections.insert({{kLead, 13}, {kBehind, 64}});
    return sections;
  }
  uint64_t used(uint32_t bit) { return slot(bit).used; }
  // Slots and sections.
  Text image() { return {at(offsetof(SNodeCB_t, exportTable)), at(size)}; }
};

struct Shape {
  uint32_t bit;
  ListLimits limits;
  uint64_t extra;

  uint64_t idRoom() const { return hasId(bit) ? (limits.maxId + 7) / 8 * 8 : 0; }
  uint64_t valueRoom() const { return hasBytes(bit) ? (limits.maxValue + 7) / 8 * 8 : 0; }
  uint64_t sectionBytes(uint64_t records) const {
    const uint64_t record = fixedBytes(bit) + idRoom() + valueRoom();
    const uint64_t header = 8 * (hasId(bit) + hasBytes(bit)) + 8;
    if (!limits.hashed) return header + record * records + extra;
    uint64_t h[3] = {};
    trelGetPrimeNumber(limits.maximum, &h[0]);
    if (hasId(bit)) {
      trelGetPrimeNumber(limits.tagTable, &h[1]);
      trelGetPrimeNumber(limits.idTable, &h[2]);
    }
    return header + (hasId(bit) ? 16 : 0) + 8 * (h[0] + h[1] + h[2]) + sizeof(HashAnchor_t) +
           (record + linkBytes(bit)) * std::max(records, h[0]) + extra;
  }
};

// Random operations on one list, beside a map. What fails must fail with the code that the state
// before it calls for, and change nothing.
class Model {
 public:
  Model(const Shape& s, uint64_t seed)
      : shape(s),
        node({{s.bit, s.sectionBytes(s.limits.maximum)}, {kLead, 1 + seed % 17}}),
        api{node.cb, s.bit},
        random(seed) {}

  void run(int steps) {
    Api::Entries entries;
    for (uint64_t i = 0; i < shape.limits.maximum / 3; ++i) {
      const Name name = anyName();
      if (name.tag == 0 || !model.insert({name, {anyValue(), 0}}).second) continue;
      entries.push_back({name, model[name].value});
    }
    ASSERT_EQ(0u, api.create(shape.limits, entries));
    changes = entries.size();
    for (int i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
      step();
      const Section section(node.cb, shape.bit);
      ASSERT_EQ("", section.error) << "step " << i;
      ASSERT_TRUE(section.properties.size() == model.size() &&
                  std::equal(model.begin(), model.end(), section.properties.begin(),
                             [](const auto& a, const auto& b) {
                               return a.first == b.first && a.second == b.second;
                             }))
          << "step " << i;
      ASSERT_EQ(changes, node.changes());
    }
  }

 private:
  uint64_t below(uint64_t n) { return random() % n; }
  Text anyValue() {
    Text s(hasBytes(shape.bit) ? 1 + below(shape.valueRoom()) : 4, '\0');
    for (char& c : s) c = static_cast<char>(random());
    return s;
  }
  // Few tags and identifiers, so that they meet again; identifiers of each size.
  Name anyName() {
    const uint64_t spread = shape.limits.hashed ? 11 : 1;
    Name name{below(shape.limits.maximum + 1) * spread % 1000, ""};
    if (!hasId(shape.bit)) return name;
    name.tag = (name.tag + 2) / 3;
    name.id.assign(below(std::min<uint64_t>(shape.idRoom(), 3) + 1), 'a');
    if (!name.id.empty()) name.id[0] = static_cast<char>('a' + below(3));
    if (below(8) == 0) name.id.assign(shape.idRoom(), 'z');
    return name;
  }
  Name someName() {
    if (model.empty() || below(3) == 0) return anyName();
    return std::next(model.begin(), static_cast<long>(below(model.size())))->first;
  }

  uint32_t code(uint32_t ofR) const { return ofR + orderOf(shape.bit); }

  uint32_t expectedOfAdd(const Name& name, const Section& before) {
    const ExportSlot_t& slot = node.slot(shape.bit);
    if (!shape.limits.hashed && name.tag == 0) return TREL_RC_TAG_RANGE;
    if (model.count(name)) return code(TREL_RC_PRESENT_R);
    const uint64_t room = slot.size - slot.used;
    if (!shape.limits.hashed) return room < before.recordBytes ? code(TREL_RC_FLAT_FULL_R) : 0;
    return !before.freed && room < before.nodeBytes ? uint32_t{TREL_RC_NO_LIST_NODE} : 0;
  }
  uint32_t expectedOfDelete(const Name& name, const Section& before) {
    const ExportSlot_t& slot = node.slot(shape.bit);
    if (!model.count(name))
      return code(shape.limits.hashed ? TREL_RC_ABSENT_R : TREL_RC_KEY_ABSENT_R);
    if (!shape.limits.hashed) return 0;
    const uint64_t entry = slot.offset + slot.size - 16 - 8 * before.freed - 8;
    return slot.size - slot.used < 8 || entry < before.nextFree ? uint32_t{TREL_RC_STACK_FULL} : 0;
  }

  void step() {
    const Section before(node.cb, shape.bit);
    const Text image = node.image();
    const Name name = someName();
    const uint32_t absent = model.count(name) ? 0 : code(TREL_RC_KEY_ABSENT_R);
    const Content next{anyValue(), random()};
    Content got{};
    uint32_t rc = 0;
    const uint64_t what = below(10);
    if (what < 3) {
      add(anyName(), next.value, before, &rc);
    } else if (what < 5) {
      remove(name, before, &rc);
    } else if (what < 6) {
      ASSERT_EQ(absent, rc = api.set(name, next.value));
      if (rc == 0) model[name].value = next.value;
    } else if (what < 7) {
      ASSERT_EQ(absent, rc = api.setRc(name, next.rc));
      if (rc == 0) model[name].rc = next.rc;
    } else if (what < 8) {
      ASSERT_EQ(absent, rc = api.get(name, &got.value));
      ASSERT_EQ(absent, api.getRc(name, &got.rc));
      ASSERT_TRUE(rc || got == model[name]);
    } else if (what < 9) {
      void *record = nullptr, *found = nullptr;
      ASSERT_EQ(absent, rc = api.address(name, &record));
      if (shape.limits.hashed) {
        ASSERT_EQ(rc ? code(TREL_RC_ABSENT_R) : 0, api.find(name, &found));
      }
      if (rc == 0) {
        ASSERT_TRUE(!shape.limits.hashed || record == found);
        ASSERT_EQ(0u, api.getHeld(record, &got.value, &got.rc));
        ASSERT_TRUE(got == model[name]);
        ASSERT_EQ(0u, api.setHeld(record, next.value, next.rc));
        model[name] = next;
      }
    } else {
      countAndList(name.tag, before);
    }
    if (rc) {
      ASSERT_EQ(image, node.image());
    }
  }

  void add(const Name& name, const Text& value, const Section& before, uint32_t* rc) {
    const uint32_t expected = expectedOfAdd(name, before);
    *rc = shape.limits.hashed && below(2) ? api.addHashed(name, value) : api.add(name, value);
    ASSERT_EQ(expected, *rc);
    if (*rc) return;
    model[name] = {value, 0};
    ++changes;
    void* record = nullptr;  // freed places come first
    ASSERT_EQ(0u, api.address(name, &record));
    ASSERT_EQ(node.at(before.nextPlace), record);
  }

  void remove(const Name& name, const Section& before, uint32_t* rc) {
    const uint32_t expected = expectedOfDelete(name, before);
    LatchArea_t* area = &node.cb->nodeLatchArea;
    const uint64_t inside = below(2);
    if (shape.limits.hashed && below(3) == 0) {
      *rc = api.removeHashed(name);
    } else if (inside) {
      ASSERT_EQ(0u, trelEnterCriticalSectionBeforeWrite(node.cb, area));
      *rc = api.remove(name, inside);
      ASSERT_EQ(0u, trelExitCriticalSectionAfterWrite(node.cb, area));
    } else {
      *rc = api.remove(name);
    }
    ASSERT_EQ(expected, *rc);
    if (*rc == 0) model.erase(name), ++changes;
  }

  void countAndList(uint64_t tag, const Section& before) {
    const uint64_t all = model.size();
    uint64_t found = 99, current = 99, maximum = 99, ofTag = 0;
    for (const auto& entry : model) ofTag += entry.first.tag == tag;
    ASSERT_EQ(0u, api.numberOf(&current, &maximum));
    ASSERT_EQ(all, current);
    ASSERT_GE(maximum, current);
    ASSERT_EQ(0u, api.countOf(0, &found));
    ASSERT_EQ(all, found);
    if (tag) {
      ASSERT_EQ(ofTag ? 0 : code(TREL_RC_ABSENT_R), api.countOfTag(tag, &found));
      ASSERT_EQ(ofTag, found);
    }
    if (!shape.limits.hashed) {
      TrelU64* record = nullptr;
      ASSERT_EQ(0u, api.first(&record, &current, &maximum));
      ASSERT_EQ(all, current);
      ASSERT_EQ(shape.limits.maximum + shape.extra / before.recordBytes, maximum);
      for (uint64_t seen = 0; seen < all;) {
        const uint64_t there = *record;
        if (there) {
          ASSERT_EQ(before.inOrder[seen++].tag, there);
        }
        ASSERT_EQ(0u, api.next(&record));
      }
    }
    std::vector<Name> names;
    std::vector<uint64_t> sizes;
    for (const uint64_t count : {all + 2, std::max<uint64_t>(1, all / 2)}) {
      ASSERT_EQ(model.empty() ? code(TREL_RC_ABSENT_R) : 0,
                api.list(0, count, shape.idRoom(), &names, &sizes));
      for (uint64_t i = 0; !model.empty() && i < count; ++i) {
        const Name name = i < all ? before.inOrder[i] : Name{0, names[i].id};
        ASSERT_TRUE(name == names[i]) << i;
        ASSERT_EQ(i < all && hasBytes(shape.bit) ? model[name].value.size() : 0, sizes[i]);
      }
    }
    if (tag == 0 || model.empty()) return;
    ASSERT_EQ(ofTag || !shape.limits.hashed ? 0 : code(TREL_RC_ABSENT_R),
              api.list(tag, ofTag + 1, shape.idRoom(), &names, &sizes));
    if (ofTag == 0) return;
    const std::set<Name> distinct(names.begin(), std::prev(names.end()));
    ASSERT_EQ(ofTag, distinct.size());
    for (const Name& name : distinct) ASSERT_TRUE(model.count(name) && name.tag == tag);
  }

  const Shape shape;
  ListNode node;
  Api api;
  std::mt19937_64 random;
  std::map<Name, Content> model;
  uint64_t changes = 0;
};

TEST(Properties, BehaveAsAMap) {
  const uint64_t seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int round = 0; round < 10; ++round)
    for (const uint32_t bit : kKinds)
      for (const uint64_t hashed : {0, 1}) {
        // Smallest maxima first, then odd ones; with room for the stack of freed nodes or without.
        ListLimits limits{1, hashed, 1, 1, 0, 0};
        if (round)
          limits = {1 + random() % 30, hashed,       1 + random() % 20,
                    1 + random() % 50, random() % 9, random() % 9};
        SCOPED_TRACE(testing::Message()
                     << "kind " << bit << " hashed " << hashed << " max " << limits.maximum
                     << " of " << limits.maxId << " and " << limits.maxValue);
        const uint64_t extra = random() % (round % 2 ? 300 : 24);
        Model({bit, limits, extra}, random()).run(250);
        if (HasFailure()) return;
      }
}

// Lists change their form and limits under those who use them; their entries stay. Nobody is told
// anything else.
TEST(Properties, AreMadeAnewUnderTheirUsers) {
  for (const uint32_t bit : kKinds) {
    SCOPED_TRACE(bit);
    ListNode node({{bit, 20000}});
    Api api{node.cb, bit};
    Api::Entries entries;
    for (uint64_t i = 1; i <= 5; ++i)
      entries.push_back({{i, Text(hasId(bit) ? i : 0, 'n')}, hasBytes(bit) ? "bytes" : "byte"});
    const auto fill = [&](uint64_t i) {
      EXPECT_EQ(
          0u, api.create({5, i % 2, 5 + i % 3 * 8, 5 + i % 5 * 8, 1 + i % 3, 1 + i % 2}, entries));
    };
    fill(0);
    std::atomic<bool> stop{false};
    std::thread maker([&] {
      for (uint64_t i = 1; !stop; ++i) fill(i);
    });
    std::vector<Name> names;
    std::vector<uint64_t> sizes;
    for (uint64_t i = 0; i < 20000 && !HasFailure(); ++i) {
      const auto& [name, value] = entries[i % 5];
      uint64_t count = 0, current = 0, maximum = 0;
      EXPECT_EQ(0u, api.getRc(name, &count));
      EXPECT_EQ(0u, api.set(name, value));
      EXPECT_EQ(TREL_RC_PRESENT_R + orderOf(bit), api.add(name, value));
      EXPECT_EQ(0u, api.countOf(0, &count));
      EXPECT_EQ(5u, count);
      EXPECT_EQ(0u, api.countOfTag(name.tag, &count));
      EXPECT_EQ(0u, api.numberOf(&current, &maximum));
      EXPECT_EQ(5u, current);
      EXPECT_EQ(0u, api.list(0, 5, 5, &names, &sizes));
    }
    stop = true;
    maker.join();
    EXPECT_EQ("", Section(node.cb, bit).error);
  }
}

TEST(Properties, ReachTheirLargestLimits) {
  const uint64_t n = TREL_MAX_PROPERTIES;
  ListNode node({{TREL_EXPORT_R, 8 + 8 * 32771 + 16 + 152 * 32771 + 8 * n},
                 {TREL_EXPORT_V, 16 + 420 + TREL_MAX_VALUE_SIZE}});
  std::vector<uint64_t> tags(n), listed(n);
  std::vector<int32_t> values(n);
  for (uint64_t i = 0; i < n; ++i) tags[i] = TREL_MAX_TAG - 31 * i;
  ASSERT_EQ(0u, trelCreateRPropertyList(node.cb, tags.data(), values.data(), n, n, 1, 0));
  const Section section(node.cb, TREL_EXPORT_R);
  EXPECT_EQ("", section.error);
  EXPECT_EQ(n, section.properties.size());
  ASSERT_EQ(0u, trelReturnRProperties(node.cb, listed.data(), 0, n, 0));
  std::sort(listed.rbegin(), listed.rend());
  EXPECT_EQ(tags, listed);
  for (uint64_t tag : tags) ASSERT_EQ(0u, trelDeleteRProperty(node.cb, tag, 0));
  EXPECT_EQ(n, Section(node.cb, TREL_EXPORT_R).freed);
  EXPECT_EQ("", Section(node.cb, TREL_EXPORT_R).error);

  const uint64_t size = TREL_MAX_VALUE_SIZE;
  const Text value(size, 'v');
  const auto create = [&](uint64_t m) {
    return trelCreateVPropertyList(node.cb, tags.data(), bytes(value), &size, m, 1, 1, 0, 0);
  };
  EXPECT_EQ(TREL_RC_VALUE_MAX, create(size + 1));
  ASSERT_EQ(0u, create(size));
  Text got;
  EXPECT_EQ(0u, (Api{node.cb, TREL_EXPORT_V}.get({TREL_MAX_TAG, ""}, &got)));
  EXPECT_TRUE(got == value);
}

TEST(Properties, HashAsAgreed) {
  uint64_t prime = 0, index = 0;
  const uint64_t primes[][2] = {{0, 1},          {1, 1},         {2, 3},           {4, 5},
                                {7, 7},          {8, 11},        {9, 11},          {15, 17},
                                {25, 29},        {32768, 32771}, {100000, 100003}, {100003, 100003},
                                {100004, 100019}};
  for (const auto& [least, expected] : primes) {
    trelGetPrimeNumber(least, &prime);
    EXPECT_EQ(expected, prime);
  }
  EXPECT_EQ(0u, trelGetHTIndexForTag(1234, 100003, &index));
  EXPECT_EQ(0x6d4cb6 % 100003u, index);
}

TEST(BaseProperties, HoldOneProperty) {
  ListNode node({{TREL_EXPORT_BASE_R, 144}, {TREL_EXPORT_BASE_V, 452}});
  SNodeCB_t* cb = node.cb;
  int32_t value = 0;
  ASSERT_EQ(0u, trelCreateBaseRProperty(cb, 5, -5, 0));
  ASSERT_EQ(0u, trelCreateBaseRProperty(cb, 6, -6, 0));  // over the first
  EXPECT_EQ(TREL_RC_KEY_ABSENT_BASE_R, trelDeleteBaseRProperty(cb, 5, 0));
  EXPECT_EQ(0u, trelGetValueForBaseRProperty(cb, 6, &value, 0));
  EXPECT_EQ(-6, value);
  ASSERT_EQ(0u, trelDeleteBaseRProperty(cb, 6, 0));
  EXPECT_EQ(0u, node.used(TREL_EXPORT_BASE_R));
  EXPECT_EQ(TREL_RC_KEY_ABSENT_BASE_R, trelSetValueForBaseRProperty(cb, 0, 1, 0));

  EXPECT_EQ(TREL_RC_FLAT_FIT_BASE_V, trelCreateBaseVProperty(cb, 3, bytes("abc"), 3, 25, 0));
  ASSERT_EQ(0u, trelCreateBaseVProperty(cb, 3, bytes("abc"), 3, 20, 0));
  EXPECT_EQ(452u, node.used(TREL_EXPORT_BASE_V));
  EXPECT_EQ(4u, node.changes());
  EXPECT_EQ(TREL_RC_VALUE_SIZE, trelSetValueForBaseVProperty(cb, 3, 25, bytes("de"), 0));
}

// Neither blank records nor tables beyond all bounds leave the section.
TEST(Properties, AreCreatedWhereTheyFit) {
  ListNode node({{TREL_EXPORT_R, 1000}});
  const uint64_t tags[] = {3, 4, 5};
  const int32_t values[] = {1, 2, 3};
  const auto create = [&](uint64_t count, uint64_t maximum, uint64_t hashed) {
    return trelCreateRPropertyList(node.cb, tags, values, count, maximum, hashed, 0);
  };
  EXPECT_EQ(TREL_RC_FLAT_FIT_R, create(7, 7, 0));
  EXPECT_EQ(TREL_RC_COUNT_ABOVE_TABLE, create(4, 3, 1));
  EXPECT_EQ(TREL_RC_HASH_FIT_R, create(3, 7, 1));
  EXPECT_EQ(TREL_RC_HASH_FIT_R, create(0, 32769, 1));
  for (uint64_t tooMany : {uint64_t{100004}, ~uint64_t{0}})
    EXPECT_EQ(TREL_RC_TABLE_SIZE, create(0, tooMany, 1));
  EXPECT_EQ(0u, node.used(TREL_EXPORT_R));
  EXPECT_EQ(TREL_RC_BOUNDS_R, create(1, 7, 0)) << "the blank records behind one that fits";
}

// ---- Damage ------------------------------------------------------------------------------------

// Words of a list become anything. Every operation must return, and leave alone what lies outside
// of the section; the sanitizers see to what lies outside of the node.
TEST(DamagedSections, YieldCodes) {
  const uint64_t seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  const auto below = [&](uint64_t n) { return random() % n; };
  uint64_t refused = 0;
  for (uint64_t round = 0; round < 1500 && !HasFailure(); ++round) {
    const uint32_t bit = kKinds[round % 4];
    const Shape shape{bit, {5, round / 4 % 2, 8, 16, 3, 2}, 64};
    ListNode node({{bit, shape.sectionBytes(8)}, {kLead, 1 + below(16)}});
    Api api{node.cb, bit};
    const auto nameOf = [&](uint64_t i) {
      return Name{1 + i % 5, hasId(bit) ? Text(i % 3, 'i') : ""};
    };
    const Text value = hasBytes(bit) ? Text(9, 'v') : registerOf(9);
    ASSERT_EQ(0u, api.create(shape.limits));
    for (uint64_t i = 0; i < 7; ++i) api.add(nameOf(i), value);
    api.remove(nameOf(1));

    ExportSlot_t& slot = node.slot(bit);
    const uint64_t offset = slot.offset, size = slot.size;
    for (uint64_t n = 1 + below(3); n; --n) {
      const uint64_t words[] = {
          0,     1,          offset - 1, offset,        offset + size - 1,   below(20),
          ~0ull, 1ull << 63, 32769,      offset + size, offset + below(size)};
      const uint64_t where[] = {below(12) * 8, size - 8 - 8 * below(4), 8 * below(size / 8),
                                40 + 64 + 8 * below(20)};
      memcpy(node.at(offset + std::min(where[below(4)], size - 8)), &words[below(11)], 8);
      if (below(6) == 0) slot.used = below(2) * below(size + 2);
    }
    // All but the section and how much of it is used.
    const auto outside = [&] {
      Text image = node.image();
      image.replace(offset - offsetof(SNodeCB_t, exportTable), size, size, 0);
      const ptrdiff_t used = reinterpret_cast<uint8_t*>(&slot.used) - node.at(0);
      return image.replace(used - offsetof(SNodeCB_t, exportTable), 8, 8, 0);
    };
    const Text before = outside();
    std::vector<Name> names;
    std::vector<uint64_t> sizes;
    Text got;
    uint64_t a = 0, b = 0;
    void* record = nullptr;
    for (uint64_t i = 0; i < 8; ++i) {
      const Name name = nameOf(i);
      for (uint32_t rc :
           {api.get(name, &got), api.getRc(name, &a), api.set(name, value), api.find(name, &record),
            api.countOf(name.tag, &a), api.countOfTag(name.tag, &a),
            api.list(name.tag, 8, 8, &names, &sizes), api.list(0, 40, 8, &names, &sizes),
            api.numberOf(&a, &b), api.first(&record, &a, &b),
            api.add({name.tag + 9, name.id}, value), api.remove(name), api.addHashed(name, value),
            api.removeHashed(name), trelGetFreeSpaceOffsetForProperty(node.cb, bit, &a)})
        refused += rc == TREL_RC_BOUNDS_R + orderOf(bit);
      ASSERT_EQ(before, outside());
    }
  }
  EXPECT_GT(refused, 100u);  // the damage did reach the walks
}

TEST(DamagedSections, BaseMaximumsDoNotWrap) {
  ListNode node({{TREL_EXPORT_BASE_V, 428 + 24}});
  ASSERT_EQ(0u, trelCreateBaseVProperty(node.cb, 3, bytes("abc"), 3, 24, 0));
  const uint64_t offset = node.slot(TREL_EXPORT_BASE_V).offset, size = 5000;
  const uint64_t maximum = 100 - sizeof(VProperty_t);  // the record: 100 bytes
  memcpy(node.at(offset), &maximum, 8);
  const Text before = node.image(), value(size, 'v');
  EXPECT_EQ(TREL_RC_BOUNDS_BASE_V, trelSetValueForBaseVProperty(node.cb, 3, size, bytes(value), 0));
  EXPECT_EQ(before, node.image());
  memcpy(node.at(offset + 8 + 24), &size, 8);
  uint64_t got = 0;
  uint8_t *place = nullptr, buffer[24];
  EXPECT_EQ(TREL_RC_BOUNDS_BASE_V,
            trelGetValueForBaseVProperty(node.cb, 3, &got, &place, buffer, 0));
}

TEST(DamagedSections, CirclesEnd) {
  for (const uint32_t bit : kKinds) {
    const Shape shape{bit, {1, 1, 8, 8, 0, 0}, 2000};
    ListNode node({{bit, shape.sectionBytes(4)}});
    Api api{node.cb, bit};
    const Text value = hasBytes(bit) ? "v" : registerOf(1);
    ASSERT_EQ(0u, api.create(shape.limits));
    for (uint64_t tag : {1, 2}) ASSERT_EQ(0u, api.add({tag, ""}, value));
    uint8_t* record = nullptr;
    ASSERT_EQ(0u, api.find({2, ""}, &record));
    const uint64_t start = static_cast<uint64_t>(record - node.at(0)) - linkBytes(bit);
    memcpy(node.at(start), &start, 8);  // the last list node leads to itself
    const uint32_t bounds = TREL_RC_BOUNDS_R + orderOf(bit);
    EXPECT_EQ(bounds, api.find({3, ""}, &record));
    EXPECT_EQ(bounds, api.add({3, ""}, value));
    EXPECT_EQ(bounds, api.remove({3, ""}));
    if (!hasId(bit)) continue;
    const uint64_t cell = start + 8;  // and in the chain of tags
    memcpy(node.at(cell), &cell, 8);
    uint64_t count = 0;
    EXPECT_EQ(bounds, api.countOfTag(1, &count));
  }
}

}  // namespace
