// Properties of all kinds and forms: against a model, at their limits, and in damaged sections.
#include <gtest/gtest.h>

#include <array>
#include <random>

#include "platsvc/platsvc.h"
#include "section_walker.h"

namespace {

using walker::Content;
using walker::Name;
using walker::Section;

constexpr uint32_t kKinds[] = {TREL_EXPORT_R, TREL_EXPORT_IR, TREL_EXPORT_V, TREL_EXPORT_IV};
int orderOf(uint32_t bit) { return static_cast<int>(std::find(kKinds, kKinds + 4, bit) - kKinds); }
bool hasId(uint32_t bit) { return bit & (TREL_EXPORT_IR | TREL_EXPORT_IV); }
bool hasBytes(uint32_t bit) { return bit & (TREL_EXPORT_V | TREL_EXPORT_IV); }

const uint8_t* bytes(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }
int32_t number(const std::string& s) {
  int32_t n;
  memcpy(&n, s.data(), 4);
  return n;
}
std::string registerOf(int32_t n) { return {reinterpret_cast<const char*>(&n), 4}; }

// An active node whose one property section has `size` bytes. Odd sizes in front of it let it start
// at any byte; what lies behind it is watched.
struct Node {
  SNodeCB_t* cb = nullptr;
  uint64_t size = 0, offset = 0;

  Node(uint64_t exports, std::map<uint32_t, uint64_t> sections, uint64_t lead = 13) {
    std::array<uint64_t, 64> sizes{};
    sizes[1] = lead;
    for (auto [bit, bytesOf] : sections) sizes[__builtin_ctz(bit) - 1] = bytesOf;
    sizes[20] = 64;
    EXPECT_EQ(0u, trelCreateNodeInPM(&cb, exports, sizes.data(), &size, &offset,
                                     TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION));
    memset(reinterpret_cast<uint8_t*>(cb) + 2908, 0xa5, size - 2908);
    EXPECT_EQ(
        0u, trelInitNode(&cb, offset, 0, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr));
    EXPECT_EQ(0u, trelActivateNode(&cb));
  }
  ~Node() {
    void* block = cb;
    _platMemFree(&block, 0, 0, __FILE__, __LINE__);
  }
  ExportSlot_t* slot(uint32_t bit) { return &cb->exportTable[__builtin_ctz(bit) - 1]; }
  uint64_t used(uint32_t bit) { return slot(bit)->used; }
  uint8_t* at(uint64_t position) { return reinterpret_cast<uint8_t*>(cb) + position; }
  // Slots and sections.
  std::string image() {
    return {reinterpret_cast<char*>(at(1372)), static_cast<size_t>(size - 1372)};
  }
  int32_t changes() {
    uint64_t counter = 0;
    EXPECT_EQ(0u, trelGetNodeReconfigCounter(cb, &counter));
    return static_cast<int32_t>(counter);
  }
};

// The address of a record pointer of any kind.
struct Out {
  void** record;
  Out(void** r) : record(r) {}
  template <class Record>
  operator Record**() const {
    return reinterpret_cast<Record**>(record);
  }
};

// One interface to the four kinds.
struct Api {
  SNodeCB_t* cb;
  uint32_t bit;

  uint32_t create(const std::vector<std::pair<Name, std::string>>& entries, uint64_t d, uint64_t m,
                  uint64_t h2, uint64_t h3, uint64_t maxCount, uint64_t hashed) {
    std::vector<uint64_t> tags, idSizes, sizes;
    std::vector<int32_t> numbers;
    std::string ids = "", values;
    const uint64_t stride = (m + 7) / 8 * 8;
    for (const auto& [name, value] : entries) {
      tags.push_back(name.tag);
      idSizes.push_back(name.id.size());
      ids += name.id;
      sizes.push_back(value.size());
      if (!hasBytes(bit)) numbers.push_back(number(value));
      values += value;
      values.resize(tags.size() * stride);
    }
    const uint64_t n = entries.size();
    switch (bit) {
      case TREL_EXPORT_R:
        return trelCreateRPropertyList(cb, tags.data(), numbers.data(), n, maxCount, hashed, 0);
      case TREL_EXPORT_V:
        return trelCreateVPropertyList(cb, tags.data(), bytes(values), sizes.data(), m, n, maxCount,
                                       hashed, 0);
      case TREL_EXPORT_IR:
        return trelCreateIRPropertyList(cb, tags.data(), numbers.data(), idSizes.data(), bytes(ids),
                                        d, n, h2, h3, maxCount, hashed, 0);
      default:
        return trelCreateIVPropertyList(cb, tags.data(), idSizes.data(), bytes(ids), d,
                                        bytes(values), sizes.data(), m, n, h2, h3, maxCount, hashed,
                                        0);
    }
  }
// By kind: r, v, ir, iv are argument lists.
#define EACH(name, suffix, r, v, ir, iv)               \
  (bit == TREL_EXPORT_R    ? trel##name##R##suffix r   \
   : bit == TREL_EXPORT_V  ? trel##name##V##suffix v   \
   : bit == TREL_EXPORT_IR ? trel##name##IR##suffix ir \
                           : trel##name##IV##suffix iv)
#define ALIKE(name, suffix, ...) \
  EACH(name, suffix, (__VA_ARGS__), (__VA_ARGS__), (__VA_ARGS__), (__VA_ARGS__))
#define BY_NAME(name, suffix, ...)                                       \
  EACH(name, suffix, (cb, n.tag, __VA_ARGS__), (cb, n.tag, __VA_ARGS__), \
       (cb, n.tag, n.id.size(), bytes(n.id), __VA_ARGS__),               \
       (cb, n.tag, n.id.size(), bytes(n.id), __VA_ARGS__))
#define BY_VALUE(name, suffix)                                                        \
  EACH(name, suffix, (cb, n.tag, number(v), in), (cb, n.tag, v.size(), bytes(v), in), \
       (cb, n.tag, n.id.size(), bytes(n.id), number(v), in),                          \
       (cb, n.tag, n.id.size(), bytes(n.id), v.size(), bytes(v), in))
  using Text = std::string;

  uint32_t add(const Name& n, const Text& v, uint64_t in = 0) { return BY_VALUE(Add, Property); }
  uint32_t addHashed(const Name& n, const Text& v, uint64_t in = 0) {
    return BY_VALUE(Add, PropertyToHashTable);
  }
  uint32_t set(const Name& n, const Text& v, uint64_t in = 0) {
    return BY_VALUE(SetValueFor, Property);
  }
  uint32_t remove(const Name& n, uint64_t in = 0) { return BY_NAME(Delete, Property, in); }
  uint32_t removeHashed(const Name& n) {
    return EACH(Delete, PropertyFromHashTable, (cb, n.tag), (cb, n.tag),
                (cb, n.tag, n.id.size(), bytes(n.id)), (cb, n.tag, n.id.size(), bytes(n.id)));
  }
  uint32_t getRc(const Name& n, uint64_t* rc) { return BY_NAME(GetRCFor, Property, rc, 0); }
  uint32_t setRc(const Name& n, uint64_t rc) { return BY_NAME(SetRCFor, Property, rc, 0); }
  uint32_t countOf(uint64_t tag, uint64_t* count) {
    return ALIKE(Return, PropertyCount, cb, tag, count, 0);
  }
  uint32_t countOfTag(uint64_t tag, uint64_t* count) {
    return ALIKE(Get, PropertiesNoForGivenTag, cb, tag, count, 0);
  }
  uint32_t numberOf(uint64_t* current, uint64_t* maximum) {
    return ALIKE(GetNumberOf, Properties, cb, current, maximum, 0);
  }
  uint32_t address(const Name& n, Out record) { return BY_NAME(GetAddressFor, Property, record); }
  uint32_t find(const Name& n, Out record) { return BY_NAME(Find, PropertyInHashTable, record); }
  uint32_t first(Out record, uint64_t* count, uint64_t* capacity) {
    return ALIKE(GetFirst, PropertyLocation, cb, record, count, capacity);
  }
  uint32_t next(const ExportSlot_t* slot, Out record) {
    return ALIKE(GetNext, PropertyLocation, cb, slot, record);
  }
  uint32_t getNumber(const Name& n, int32_t* value) {
    return hasId(bit) ? trelGetValueForIRProperty(cb, n.tag, n.id.size(), bytes(n.id), value, 0)
                      : trelGetValueForRProperty(cb, n.tag, value, 0);
  }
  uint32_t getBytes(const Name& n, uint64_t* size, uint8_t** place, uint8_t* buffer) {
    return hasId(bit) ? trelGetValueForIVProperty(cb, n.tag, n.id.size(), bytes(n.id), size, place,
                                                  buffer, 0)
                      : trelGetValueForVProperty(cb, n.tag, size, place, buffer, 0);
  }
  uint32_t get(const Name& n, std::string* value) {
    if (!hasBytes(bit)) {
      int32_t got = 0;
      const uint32_t rc = getNumber(n, &got);
      *value = registerOf(got);
      return rc;
    }
    uint64_t size = 0;
    uint8_t* place = nullptr;
    const uint32_t rc = getBytes(n, &size, &place, nullptr);
    if (rc) return rc;
    value->assign(size, '\0');
    EXPECT_EQ(0u, getBytes(n, &size, &place, reinterpret_cast<uint8_t*>(&(*value)[0])));
    EXPECT_EQ(*value, std::string(reinterpret_cast<char*>(place), size));
    return 0;
  }
  // Value and RC through the record's address, there and back.
  uint32_t swapHeld(void* record, std::string* value, uint64_t* rc, const std::string& newValue,
                    uint64_t newRc) {
    uint32_t failure;
    if (!hasBytes(bit)) {
      int32_t got = 0;
      auto* r = static_cast<RProperty_t*>(record);
      auto* ir = static_cast<IRProperty_t*>(record);
      failure = hasId(bit) ? trelGetValueAndRCForIRProperty(cb, ir, &got, rc, 0)
                           : trelGetValueAndRCForRProperty(cb, r, &got, rc, 0);
      *value = registerOf(got);
      if (failure) return failure;
      return hasId(bit) ? trelSetValueAndRCForIRProperty(cb, ir, number(newValue), newRc, 0)
                        : trelSetValueAndRCForRProperty(cb, r, number(newValue), newRc, 0);
    }
    auto* v = static_cast<VProperty_t*>(record);
    auto* iv = static_cast<IVProperty_t*>(record);
    uint64_t size = 1;
    uint8_t* place = nullptr;
    uint8_t firstByte = 0;
    failure = hasId(bit) ? trelGetValueAndRCForIVProperty(cb, iv, &size, &place, &firstByte, rc, 0)
                         : trelGetValueAndRCForVProperty(cb, v, &size, &place, &firstByte, rc, 0);
    if (failure) return failure;
    value->assign(reinterpret_cast<char*>(place), size);
    EXPECT_EQ(static_cast<uint8_t>((*value)[0]), firstByte);
    return hasId(bit)
               ? trelSetValueAndRCForIVProperty(cb, iv, newValue.size(), bytes(newValue), newRc, 0)
               : trelSetValueAndRCForVProperty(cb, v, newValue.size(), bytes(newValue), newRc, 0);
  }
  // All of a tag, or all; names with an empty identifier and no value in R.
  uint32_t list(uint64_t tag, uint64_t count, uint64_t stride, std::vector<Name>* names,
                std::vector<uint64_t>* sizes) {
    std::vector<uint64_t> tags(count, 77), idSizes(count, 77);
    std::vector<uint8_t> ids(count * stride + 1);
    sizes->assign(count, 77);
    uint32_t rc = 0;
    switch (bit) {
      case TREL_EXPORT_R:
        rc = trelReturnRProperties(cb, tags.data(), tag, count, 0);
        break;
      case TREL_EXPORT_V:
        rc = trelReturnVProperties(cb, tags.data(), sizes->data(), tag, count, 0);
        break;
      case TREL_EXPORT_IR:
        rc = trelReturnIRProperties(cb, tags.data(), idSizes.data(), ids.data(), tag, count, stride,
                                    0);
        break;
      default:
        rc = trelReturnIVProperties(cb, tags.data(), idSizes.data(), ids.data(), sizes->data(), tag,
                                    count, stride, 0);
    }
    names->clear();
    for (uint64_t i = 0; i < count; ++i) {
      const bool whole = hasId(bit) && rc == 0 && idSizes[i] <= stride;
      names->push_back(
          {tags[i], whole ? std::string(reinterpret_cast<char*>(&ids[i * stride]), idSizes[i])
                          : std::string()});
    }
    return rc;
  }
};

// ------------------------------------------------------------------------------------------------

struct Shape {
  uint32_t bit;
  uint64_t d, m, maxCount, h2, h3, extra;
  bool hashed;
  uint64_t roundedD() const { return hasId(bit) ? (d + 7) / 8 * 8 : 0; }
  uint64_t roundedM() const { return hasBytes(bit) ? (m + 7) / 8 * 8 : 0; }
  uint64_t sectionBytes(uint64_t records) const {
    const uint64_t limits = 8 * (hasId(bit) + hasBytes(bit));
    const uint64_t record =
        (hasId(bit) ? (hasBytes(bit) ? 436 : 548) : (hasBytes(bit) ? 420 : 144)) + roundedD() +
        roundedM();
    if (!hashed) return limits + 8 + record * records + extra;
    uint64_t h[3] = {};
    trelGetPrimeNumber(maxCount, &h[0]);
    if (hasId(bit)) trelGetPrimeNumber(h2, &h[1]), trelGetPrimeNumber(h3, &h[2]);
    const uint64_t tables = hasId(bit) ? 3 : 1;
    return limits + 8 * tables + 8 * (h[0] + h[1] + h[2]) + 16 +
           (record + (hasId(bit) ? 40 : 8)) * std::max(records, h[0]) + extra;
  }
};

// Random operations on one list, beside a map. What fails must fail with the code that the state
// before it calls for, and change nothing.
class Model {
 public:
  Model(const Shape& s, uint64_t seed)
      : shape(s),
        node(s.bit, {{s.bit, s.sectionBytes(s.maxCount)}}, 1 + seed % 17),
        api{node.cb, s.bit},
        random(seed) {}

  void run(int steps) {
    std::vector<std::pair<Name, std::string>> entries;
    for (uint64_t i = 0; i < shape.maxCount / 3; ++i) {
      const Name name = anyName(!shape.hashed);
      if (!model.count(name) && name.tag) {
        model[name] = {anyValue(), 0};
        entries.push_back({name, model[name].value});
      }
    }
    ASSERT_EQ(0u, api.create(entries, shape.d, shape.m, shape.h2, shape.h3, shape.maxCount,
                             shape.hashed));
    changes = static_cast<int32_t>(entries.size());
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
  std::string anyBytes(uint64_t least, uint64_t most) {
    std::string s(least + below(most - least + 1), '\0');
    for (char& c : s) c = static_cast<char>(random());
    return s;
  }
  std::string anyValue() {
    return hasBytes(shape.bit) ? anyBytes(1, shape.roundedM())
                               : registerOf(static_cast<int32_t>(random()));
  }
  // Few tags and identifiers, so that they meet again; identifiers of each size.
  Name anyName(bool flat) {
    Name name{flat ? 1 + below(shape.maxCount) : below(shape.maxCount) * 11 % 1000, ""};
    if (hasId(shape.bit)) {
      name.tag = (name.tag + 2) / 3;
      name.id.assign(below(std::min<uint64_t>(shape.roundedD(), 3) + 1), 'a');
      if (!name.id.empty()) name.id[0] = static_cast<char>('a' + below(3));
      if (below(8) == 0) name.id.assign(shape.roundedD(), 'z');
      if (flat && name.tag == 0) name.tag = 1;
    }
    return name;
  }
  Name someName() {
    if (model.empty() || below(3) == 0) return anyName(!shape.hashed);
    auto it = model.begin();
    std::advance(it, static_cast<long>(below(model.size())));
    return it->first;
  }

  uint32_t code(uint32_t ofR) const { return ofR + static_cast<uint32_t>(orderOf(shape.bit)); }
  uint32_t absentFromDelete() const {
    return code(shape.hashed ? TREL_RC_ABSENT_R : TREL_RC_KEY_ABSENT_R);
  }

  uint32_t expectedOfAdd(const Name& name, const Section& before) {
    const ExportSlot_t slot = *node.slot(shape.bit);
    if (model.count(name)) return code(TREL_RC_PRESENT_R);
    if (!shape.hashed)
      return slot.used + before.recordBytes > slot.size ? code(TREL_RC_FLAT_FULL_R) : 0;
    return !before.freed && slot.size - slot.used < before.nodeBytes
               ? uint32_t{TREL_RC_NO_LIST_NODE}
               : 0;
  }
  uint32_t expectedOfDelete(const Name& name, const Section& before) {
    const ExportSlot_t slot = *node.slot(shape.bit);
    if (!model.count(name)) return absentFromDelete();
    if (!shape.hashed) return 0;
    const uint64_t entry = slot.offset + slot.size - 16 - 8 * before.freed - 8;
    return slot.size - slot.used < 8 || entry < before.nextFree ? uint32_t{TREL_RC_STACK_FULL} : 0;
  }

  void step() {
    const Section before(node.cb, shape.bit);
    const std::string image = node.image();
    uint32_t rc = 0;
    switch (below(10)) {
      case 0:
      case 1:
      case 2: {
        const Name name = anyName(!shape.hashed);
        const std::string value = anyValue();
        const uint32_t expected = expectedOfAdd(name, before);
        rc = shape.hashed && below(2) ? api.addHashed(name, value) : api.add(name, value);
        ASSERT_EQ(expected, rc);
        if (rc == 0) model[name] = {value, 0}, ++changes;
        break;
      }
      case 3:
      case 4: {
        const Name name = someName();
        const uint32_t expected = expectedOfDelete(name, before);
        const uint64_t inside = below(2);
        if (shape.hashed && below(3) == 0) {
          rc = api.removeHashed(name);
        } else {
          LatchArea_t* area = &node.cb->nodeLatchArea;
          if (inside) {
            ASSERT_EQ(0u, trelEnterCriticalSectionBeforeWrite(node.cb, area));
          }
          rc = api.remove(name, inside);
          if (inside) {
            ASSERT_EQ(0u, trelExitCriticalSectionAfterWrite(node.cb, area));
          }
        }
        ASSERT_EQ(expected, rc);
        if (rc == 0) model.erase(name), ++changes;
        break;
      }
      case 5: {
        const Name name = someName();
        const std::string value = anyValue();
        rc = api.set(name, value);
        ASSERT_EQ(model.count(name) ? 0 : code(TREL_RC_KEY_ABSENT_R), rc);
        if (rc == 0) model[name].value = value;
        break;
      }
      case 6: {
        const Name name = someName();
        const uint64_t field = random();
        rc = api.setRc(name, field);
        ASSERT_EQ(model.count(name) ? 0 : code(TREL_RC_KEY_ABSENT_R), rc);
        if (rc == 0) model[name].rc = field;
        break;
      }
      case 7: {
        const Name name = someName();
        Content got{};
        rc = api.get(name, &got.value);
        ASSERT_EQ(model.count(name) ? 0 : code(TREL_RC_KEY_ABSENT_R), rc);
        ASSERT_EQ(rc, api.getRc(name, &got.rc));
        if (rc == 0) {
          ASSERT_TRUE(got == model[name]);
        }
        break;
      }
      case 8: {
        const Name name = someName();
        void *record = nullptr, *found = nullptr;
        rc = api.address(name, &record);
        ASSERT_EQ(model.count(name) ? 0 : code(TREL_RC_KEY_ABSENT_R), rc);
        if (shape.hashed) {
          ASSERT_EQ(rc ? code(TREL_RC_ABSENT_R) : 0, api.find(name, &found));
          if (rc == 0) {
            ASSERT_EQ(record, found);
          }
        }
        if (rc) break;
        Content got{}, next{anyValue(), random()};
        ASSERT_EQ(0u, api.swapHeld(record, &got.value, &got.rc, next.value, next.rc));
        ASSERT_TRUE(got == model[name]);
        model[name] = next;
        break;
      }
      default:
        enumerate(before);
    }
    if (rc) {
      ASSERT_EQ(image, node.image());
    }
  }

  void enumerate(const Section& before) {
    const uint64_t tag = someName().tag;
    uint64_t number = 99, current = 99, maximum = 99, ofTag = 0;
    for (const auto& entry : model) ofTag += entry.first.tag == tag;
    ASSERT_EQ(0u, api.numberOf(&current, &maximum));
    ASSERT_EQ(model.size(), current);
    ASSERT_GE(maximum, current);
    ASSERT_EQ(0u, api.countOf(0, &number));
    ASSERT_EQ(model.size(), number);
    if (tag) {
      ASSERT_EQ(ofTag ? 0 : code(TREL_RC_ABSENT_R), api.countOfTag(tag, &number));
      ASSERT_EQ(ofTag, number);
    }
    if (!shape.hashed) {
      void* record = nullptr;
      uint64_t count = 0, capacity = 0;
      ASSERT_EQ(0u, api.first(&record, &count, &capacity));
      ASSERT_EQ(model.size(), count);
      ASSERT_EQ(shape.maxCount + shape.extra / before.recordBytes, capacity);
      for (uint64_t seen = 0; seen < count;) {
        uint64_t here;
        memcpy(&here, record, 8);
        if (here) {
          ASSERT_EQ(before.inOrder[seen++].tag, here);
        }
        ASSERT_EQ(0u, api.next(node.slot(shape.bit), &record));
      }
    }
    std::vector<Name> names;
    std::vector<uint64_t> sizes;
    const uint64_t stride = shape.roundedD();
    for (const uint64_t count : {model.size() + 2, std::max<size_t>(1, model.size() / 2)}) {
      const uint32_t rc = api.list(0, count, stride, &names, &sizes);
      ASSERT_EQ(model.empty() ? code(TREL_RC_ABSENT_R) : 0, rc);
      for (uint64_t i = 0; rc == 0 && i < count; ++i) {
        const Name name = i < before.inOrder.size() ? before.inOrder[i] : Name{0, ""};
        ASSERT_EQ(name.tag, names[i].tag);
        ASSERT_EQ(name.id, i < before.inOrder.size() ? names[i].id : name.id);
        if (hasBytes(shape.bit)) {
          ASSERT_EQ(i < before.inOrder.size() ? model[name].value.size() : 0, sizes[i]);
        }
      }
    }
    if (tag == 0 || model.empty()) return;
    ASSERT_EQ(ofTag || !shape.hashed ? 0 : code(TREL_RC_ABSENT_R),
              api.list(tag, ofTag + 1, stride, &names, &sizes));
    if (ofTag == 0) return;
    std::set<Name> distinct(names.begin(), names.begin() + static_cast<long>(ofTag));
    ASSERT_EQ(ofTag, distinct.size());
    for (const Name& name : distinct) ASSERT_TRUE(model.count(name) && name.tag == tag);
  }

  const Shape shape;
  Node node;
  Api api;
  std::mt19937_64 random;
  std::map<Name, Content> model;
  int32_t changes = 0;
};

TEST(Properties, BehaveAsAMap) {
  const uint64_t seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int round = 0; round < 10; ++round)
    for (const uint32_t bit : kKinds)
      for (const bool hashed : {false, true}) {
        // Smallest maxima first, then odd ones; with room for the stack of freed nodes or without.
        Shape shape{bit,          1 + random() % 20, 1 + random() % 50, 1 + random() % 30,
                    random() % 9, random() % 9,      random() % 300,    hashed};
        if (round == 0) shape.d = shape.m = shape.maxCount = 1, shape.h2 = shape.h3 = 0;
        SCOPED_TRACE(testing::Message()
                     << "kind " << bit << " hashed " << hashed << " d " << shape.d << " m "
                     << shape.m << " max " << shape.maxCount);
        Model(shape, random()).run(250);
        if (HasFailure()) return;
      }
}

TEST(Properties, ChainsAreSortedAndPlacesUsedAgain) {
  Node node(TREL_EXPORT_R, {{TREL_EXPORT_R, 8 + 8 + 16 + 3 * 152 + 16}});
  ASSERT_EQ(0u, trelCreateRPropertyList(node.cb, nullptr, nullptr, 0, 0, 1, 0));  // H is 1
  for (uint64_t tag : {5, 3, 4}) ASSERT_EQ(0u, trelAddRProperty(node.cb, tag, 50, 0));
  Section section(node.cb, TREL_EXPORT_R);
  EXPECT_EQ("", section.error);
  EXPECT_EQ((std::vector<Name>{{3, ""}, {4, ""}, {5, ""}}), section.inOrder);
  EXPECT_EQ(TREL_RC_NO_LIST_NODE, trelAddRProperty(node.cb, 6, 0, 0));
  const uint64_t used = node.used(TREL_EXPORT_R), nextFree = section.nextFree;
  ASSERT_EQ(0u, trelDeleteRProperty(node.cb, 4, 0));
  EXPECT_EQ(used + 8 - 152, node.used(TREL_EXPORT_R));
  ASSERT_EQ(0u, trelAddRProperty(node.cb, 0, 7, 0));  // a tag like any other here
  EXPECT_EQ(used, node.used(TREL_EXPORT_R));
  EXPECT_EQ(nextFree, Section(node.cb, TREL_EXPORT_R).nextFree);
  int32_t value = 0;
  EXPECT_EQ(0u, trelGetValueForRProperty(node.cb, 0, &value, 0));
  EXPECT_EQ(7, value);
}

TEST(Properties, FlatListsKeepBlankRecordsAndReuseTheFirst) {
  Node node(TREL_EXPORT_R | TREL_EXPORT_IR,
            {{TREL_EXPORT_R, 8 + 5 * 144}, {TREL_EXPORT_IR, 16 + 5 * 556}});
  const uint64_t tags[] = {9, 8};
  const int32_t values[] = {-9, -8};
  const uint64_t idSizes[] = {2, 1};
  ASSERT_EQ(0u, trelCreateRPropertyList(node.cb, tags, values, 2, 5, 0, 0));
  EXPECT_EQ(8u + 288, node.used(TREL_EXPORT_R));
  for (uint64_t k = 2; k < 5; ++k)
    EXPECT_EQ(0u,
              Section(node.cb, TREL_EXPORT_R).word(node.slot(TREL_EXPORT_R)->offset + 8 + 144 * k));
  ASSERT_EQ(0u, trelCreateIRPropertyList(node.cb, tags, values, idSizes, bytes("abc"), 8, 2, 0, 0,
                                         5, 0, 0));
  EXPECT_EQ(16u + 2 * 556, node.used(TREL_EXPORT_IR));
  RProperty_t *first = nullptr, *again = nullptr;
  ASSERT_EQ(0u, trelGetAddressForRProperty(node.cb, 9, &first));
  ASSERT_EQ(0u, trelDeleteRProperty(node.cb, 9, 0));
  uint64_t list[4] = {1, 1, 1, 1};
  ASSERT_EQ(0u, trelReturnRProperties(node.cb, list, 0, 4, 0));  // no zero for the hole
  EXPECT_EQ(8u, list[0]);
  EXPECT_EQ(0u, list[1] | list[2] | list[3]);
  ASSERT_EQ(0u, trelAddRProperty(node.cb, 6, 1, 0));
  ASSERT_EQ(0u, trelAddRProperty(node.cb, 5, 1, 0));
  ASSERT_EQ(0u, trelDeleteRProperty(node.cb, 6, 0));
  ASSERT_EQ(0u, trelDeleteRProperty(node.cb, 8, 0));  // two holes in front of the last
  ASSERT_EQ(0u, trelAddRProperty(node.cb, 7, 1, 0));
  ASSERT_EQ(0u, trelGetAddressForRProperty(node.cb, 7, &again));
  EXPECT_EQ(first, again);
  EXPECT_EQ(TREL_RC_TAG_RANGE, trelAddRProperty(node.cb, 0, 1, 0));
  // Blank records that would leave the section are refused; one entry too many as well.
  EXPECT_EQ(TREL_RC_BOUNDS_R, trelCreateRPropertyList(node.cb, tags, values, 2, 6, 0, 0));
}

TEST(Properties, WithoutIdentifierRoomAreReportedAsNone) {
  for (const bool hashed : {false, true}) {
    const Shape shape{TREL_EXPORT_IR, 0, 0, 3, 2, 2, 40, hashed};
    Node node(shape.bit, {{shape.bit, shape.sectionBytes(3)}});
    Api api{node.cb, shape.bit};
    ASSERT_EQ(0u, api.create({}, 0, 0, 2, 2, 3, hashed));
    ASSERT_EQ(0u, api.add({1, ""}, registerOf(1)));
    ASSERT_EQ(0u, api.add({2, ""}, registerOf(2)));
    EXPECT_EQ(TREL_RC_PROPERTY_ID_SIZE, api.add({3, "x"}, registerOf(3)));
    uint64_t current = 9, maximum = 9;
    EXPECT_EQ(0u, api.numberOf(&current, &maximum));
    EXPECT_EQ(0u, current + maximum);
    const Section section(node.cb, shape.bit);
    EXPECT_EQ("", section.error);
    EXPECT_EQ(2u, section.properties.size());  // the second did not overwrite the first
    std::string value;
    EXPECT_EQ(hashed ? 0u : uint32_t{TREL_RC_KEY_ABSENT_IR}, api.get({1, ""}, &value));
  }
}

TEST(Properties, ReachTheirLargestLimits) {
  const uint64_t n = TREL_MAX_PROPERTIES;
  Node node(TREL_EXPORT_R | TREL_EXPORT_V | TREL_EXPORT_BASE_V,
            {{TREL_EXPORT_R, 8 + 8 * 32771 + 16 + 152 * 32771 + 8 * n},
             {TREL_EXPORT_V, 16 + 420 + TREL_MAX_VALUE_SIZE},
             {TREL_EXPORT_BASE_V, 428}});
  std::vector<uint64_t> tags(n), listed(n);
  std::vector<int32_t> values(n);
  for (uint64_t i = 0; i < n; ++i) tags[i] = TREL_MAX_TAG - 31 * i, values[i] = static_cast<int>(i);
  ASSERT_EQ(0u, trelCreateRPropertyList(node.cb, tags.data(), values.data(), n, n, 1, 0));
  Section section(node.cb, TREL_EXPORT_R);
  EXPECT_EQ("", section.error);
  EXPECT_EQ(n, section.properties.size());
  ASSERT_EQ(0u, trelReturnRProperties(node.cb, listed.data(), 0, n, 0));
  std::sort(listed.rbegin(), listed.rend());
  EXPECT_EQ(tags, listed);
  for (uint64_t tag : tags) ASSERT_EQ(0u, trelDeleteRProperty(node.cb, tag, 0));
  EXPECT_EQ(n, Section(node.cb, TREL_EXPORT_R).freed);
  EXPECT_EQ("", Section(node.cb, TREL_EXPORT_R).error);

  const uint64_t tag = TREL_MAX_TAG, size = TREL_MAX_VALUE_SIZE, tooLarge = size + 1;
  const std::string value(size, 'v');
  const auto create = [&](const uint64_t* m, const uint64_t* s) {
    return trelCreateVPropertyList(node.cb, &tag, bytes(value), s, *m, 1, 1, 0, 0);
  };
  EXPECT_EQ(TREL_RC_VALUE_MAX, create(&tooLarge, &size));
  EXPECT_EQ(TREL_RC_VALUE_SIZE, create(&size, &tooLarge));
  ASSERT_EQ(0u, create(&size, &size));
  std::string got;
  EXPECT_EQ(0u, (Api{node.cb, TREL_EXPORT_V}.get({tag, ""}, &got)));
  EXPECT_TRUE(got == value);
  uint64_t prime = 0;
  for (auto [number, expected] : std::map<uint64_t, uint64_t>{{0, 1},
                                                              {1, 1},
                                                              {2, 3},
                                                              {4, 5},
                                                              {7, 7},
                                                              {8, 11},
                                                              {9, 11},
                                                              {15, 17},
                                                              {25, 29},
                                                              {32768, 32771},
                                                              {100000, 100003},
                                                              {100003, 100003},
                                                              {100004, 100019}}) {
    trelGetPrimeNumber(number, &prime);
    EXPECT_EQ(expected, prime);
  }
  for (uint64_t tooMany : {uint64_t{100004}, ~uint64_t{0}})
    EXPECT_EQ(TREL_RC_TABLE_SIZE,
              trelCreateRPropertyList(node.cb, nullptr, nullptr, 0, tooMany, 1, 0));
}

TEST(Properties, HashAsAgreed) {
  uint64_t index = 0, second = 0, third = 0, size = 99;
  uint8_t key[20] = {};
  trelConvertNumberToKey(1234, key, &size);
  EXPECT_EQ("4321", std::string(reinterpret_cast<char*>(key), size));
  trelConvertNumberToKey(~uint64_t{0}, key, &size);
  EXPECT_EQ("51615590737044764481", std::string(reinterpret_cast<char*>(key), size));
  trelConvertNumberToKey(0, key, &size);
  EXPECT_EQ("0", std::string(reinterpret_cast<char*>(key), size));
  for (auto [tag, hash] : std::map<uint64_t, uint64_t>{{1234, 0x6d4cb6}, {0, 49}, {7, 56}}) {
    EXPECT_EQ(0u, trelGetHTIndexForTag(tag, 100003, &index));
    EXPECT_EQ(hash % 100003, index);
  }
  for (uint64_t tag = 1; tag; tag = tag > ~0ull / 3 ? 0 : 3 * tag + tag % 2) {
    EXPECT_EQ(0u, trelGetHTIndexForTag(tag, ~0ull, &index));
    EXPECT_EQ(walker::hashOf(walker::digitsOf(tag), 0) % ~0ull, index);
  }
  EXPECT_EQ(TREL_RC_TABLE_SIZE, trelGetHTIndexForTag(1, 0, &index));
  EXPECT_EQ(0u, trelGetHTIndex(1234, nullptr, 0, 7, 13, 5, &index, &second, &third));
  EXPECT_EQ(1234u % 7, index);
  EXPECT_EQ(10u, second);
  EXPECT_EQ(0u, third);
}

TEST(BaseProperties, HoldOneProperty) {
  Node node(TREL_EXPORT_BASE_R | TREL_EXPORT_BASE_V,
            {{TREL_EXPORT_BASE_R, 144}, {TREL_EXPORT_BASE_V, 452}});
  uint64_t tag = 99, size = 99, rc = 99;
  int32_t value = 0;
  EXPECT_EQ(TREL_RC_KEY_ABSENT_BASE_R, trelGetValueForBaseRProperty(node.cb, 0, &value, 0));
  EXPECT_EQ(TREL_RC_KEY_ABSENT_BASE_V, trelGetRCForBaseVProperty(node.cb, 0, &rc, 0));
  EXPECT_EQ(TREL_RC_FLAT_FIT_BASE_V, trelCreateBaseVProperty(node.cb, 3, bytes("abc"), 3, 25, 0));
  ASSERT_EQ(0u, trelCreateBaseVProperty(node.cb, 3, bytes("abc"), 3, 20, 0));
  EXPECT_EQ(452u, node.used(TREL_EXPORT_BASE_V));
  ASSERT_EQ(0u, trelCreateBaseRProperty(node.cb, 5, -5, 0));
  ASSERT_EQ(0u, trelCreateBaseRProperty(node.cb, 6, -6, 0));  // over the first
  EXPECT_EQ(3, node.changes());
  EXPECT_EQ(TREL_RC_KEY_ABSENT_BASE_R, trelDeleteBaseRProperty(node.cb, 5, 0));
  EXPECT_EQ(0u, trelGetValueForBaseRProperty(node.cb, 6, &value, 0));
  EXPECT_EQ(-6, value);
  ASSERT_EQ(0u, trelDeleteBaseRProperty(node.cb, 6, 0));
  EXPECT_EQ(0u, node.used(TREL_EXPORT_BASE_R));
  EXPECT_EQ(0u, trelReturnBaseRProperty(node.cb, &tag, 0));
  EXPECT_EQ(0u, tag);
  EXPECT_EQ(TREL_RC_KEY_ABSENT_BASE_R, trelSetValueForBaseRProperty(node.cb, 0, 1, 0));

  EXPECT_EQ(TREL_RC_KEY_ABSENT_BASE_V, trelSetValueForBaseVProperty(node.cb, 4, 2, bytes("de"), 0));
  EXPECT_EQ(TREL_RC_VALUE_SIZE, trelSetValueForBaseVProperty(node.cb, 3, 25, bytes("de"), 0));
  EXPECT_EQ(0u, trelSetValueForBaseVProperty(node.cb, 3, 2, bytes("de"), 0));
  EXPECT_EQ(0u, trelReturnBaseVProperty(node.cb, &tag, &size, 0));
  EXPECT_EQ(3u, tag);
  EXPECT_EQ(2u, size);
  VProperty_t* record = nullptr;
  uint8_t *place = nullptr, *held = nullptr, buffer[4] = {};
  EXPECT_EQ(0u, trelGetAddressForBaseVProperty(node.cb, 3, &record));
  EXPECT_EQ(0u, trelSetValueAndRCForBaseVProperty(node.cb, record, 1, bytes("f"), 8, 0));
  size = 3;  // the old end of the longer value stays
  EXPECT_EQ(0u, trelGetValueAndRCForBaseVProperty(node.cb, record, &size, &held, buffer, &rc, 0));
  EXPECT_EQ(0u, trelGetAddressForBaseVPropertyValue(node.cb, 3, &place));
  EXPECT_EQ("fec", std::string(reinterpret_cast<char*>(buffer), 3));
  EXPECT_EQ(place, held);
  EXPECT_EQ(8u, rc);
  EXPECT_EQ(1u, size);
  size = 25;
  EXPECT_EQ(TREL_RC_VALUE_SIZE,
            trelGetValueAndRCForBaseVProperty(node.cb, record, &size, &held, buffer, &rc, 0));
  EXPECT_EQ(0u, trelDeleteBaseVProperty(node.cb, 3, 0));
  EXPECT_EQ(0u, node.used(TREL_EXPORT_BASE_V));
}

// ------------------------------------------------------------------------------------------------

TEST(PropertyCodes, UncreatedListsAreEmptyAndFull) {
  for (const uint32_t bit : kKinds) {
    const uint32_t order = static_cast<uint32_t>(orderOf(bit));
    Node node(bit, {{bit, 2000}});
    Api api{node.cb, bit};
    const std::string image = node.image();
    const Name name{1, ""};
    const std::string value = hasBytes(bit) ? "v" : registerOf(0);
    void* record = nullptr;
    uint64_t a = 9, b = 9;
    std::string got;
    std::vector<Name> names;
    std::vector<uint64_t> sizes;
    EXPECT_EQ(TREL_RC_FLAT_FULL_R + order, api.add(name, value));
    EXPECT_EQ(TREL_RC_KEY_ABSENT_R + order, api.get(name, &got));
    EXPECT_EQ(TREL_RC_KEY_ABSENT_R + order, api.set(name, value));
    EXPECT_EQ(TREL_RC_KEY_ABSENT_R + order, api.remove(name));
    EXPECT_EQ(TREL_RC_TABLE_SIZE, api.addHashed(name, value));
    EXPECT_EQ(TREL_RC_TABLE_SIZE, api.removeHashed(name));
    EXPECT_EQ(TREL_RC_TABLE_SIZE, api.find(name, &record));
    EXPECT_EQ(0u, api.numberOf(&a, &b));
    EXPECT_EQ(0u, a + b);
    EXPECT_EQ(0u, api.first(&record, &a, &b));
    EXPECT_EQ(0u, a + b);
    EXPECT_EQ(bit == TREL_EXPORT_R ? uint32_t{TREL_RC_ABSENT_R} : 0u, api.countOfTag(1, &a));
    EXPECT_EQ(TREL_RC_ABSENT_R + order, api.list(0, 1, 0, &names, &sizes));
    EXPECT_EQ(image, node.image());
  }
}

TEST(PropertyCodes, ComeInOrder) {
  Node node(TREL_EXPORT_R | TREL_EXPORT_V | TREL_EXPORT_IR | TREL_EXPORT_IV,
            {{TREL_EXPORT_R, 1000},
             {TREL_EXPORT_V, 3000},
             {TREL_EXPORT_IR, 4000},
             {TREL_EXPORT_IV, 5000}});
  SNodeCB_t* cb = node.cb;
  const uint64_t tags[] = {3, 3, TREL_MAX_TAG + 1}, sizes[] = {9, 1, 1}, idSizes[] = {9, 0, 0};
  const int32_t values[] = {1, 2, 3};
  const uint64_t big = 32769;
  // Create: each argument mended uncovers the next code.
  EXPECT_EQ(TREL_RC_NODE_NULL, trelCreateRPropertyList(nullptr, nullptr, nullptr, big, big, 2, 0));
  EXPECT_EQ(TREL_RC_COUNT_R, trelCreateRPropertyList(cb, nullptr, nullptr, big, big, 2, 0));
  EXPECT_EQ(TREL_RC_COUNT_R, trelCreateRPropertyList(cb, nullptr, nullptr, 3, big, 2, 0));
  EXPECT_EQ(TREL_RC_TAGS_NULL, trelCreateRPropertyList(cb, nullptr, nullptr, 3, 3, 2, 0));
  EXPECT_EQ(TREL_RC_REGISTERS_NULL, trelCreateRPropertyList(cb, tags, nullptr, 3, 3, 2, 0));
  EXPECT_EQ(TREL_RC_HASH_FLAG, trelCreateRPropertyList(cb, tags, values, 3, 3, 2, 0));
  EXPECT_EQ(TREL_RC_PRESENT_R, trelCreateRPropertyList(cb, tags, values, 3, 3, 0, 0));
  EXPECT_EQ(TREL_RC_TAG_RANGE, trelCreateRPropertyList(cb, tags + 1, values, 2, 3, 0, 0));
  EXPECT_EQ(TREL_RC_FLAT_FIT_R, trelCreateRPropertyList(cb, tags, values, 7, 7, 0, 0));
  EXPECT_EQ(TREL_RC_COUNT_ABOVE_TABLE, trelCreateRPropertyList(cb, tags, values, 4, 3, 1, 0));
  EXPECT_EQ(TREL_RC_HASH_FIT_R, trelCreateRPropertyList(cb, tags, values, 3, 7, 1, 0));
  EXPECT_EQ(TREL_RC_HASH_FIT_R, trelCreateRPropertyList(cb, nullptr, nullptr, 0, big, 1, 0));
  EXPECT_EQ(0u, node.used(TREL_EXPORT_R));
  EXPECT_EQ(TREL_RC_VALUE_MAX,
            trelCreateVPropertyList(cb, nullptr, nullptr, nullptr, 0, 1, big, 2, 0));
  EXPECT_EQ(TREL_RC_COUNT_V,
            trelCreateVPropertyList(cb, nullptr, nullptr, nullptr, 8, 1, big, 2, 0));
  EXPECT_EQ(TREL_RC_VALUE_SIZES_NULL,
            trelCreateVPropertyList(cb, tags, nullptr, nullptr, 8, 1, 1, 2, 0));
  EXPECT_EQ(TREL_RC_VALUES_NULL, trelCreateVPropertyList(cb, tags, nullptr, sizes, 8, 1, 1, 2, 0));
  EXPECT_EQ(TREL_RC_VALUE_SIZE,
            trelCreateVPropertyList(cb, tags, bytes("v"), sizes, 8, 1, 1, 0, 0));
  const auto ir = [&](const uint64_t* t, const uint64_t* s, const uint8_t* i, uint64_t d,
                      uint64_t h2, uint64_t h3, uint64_t max, uint64_t hash) {
    return trelCreateIRPropertyList(cb, t, values, s, i, d, 2, h2, h3, max, hash, 0);
  };
  EXPECT_EQ(TREL_RC_PROPERTY_ID_MAX, ir(nullptr, nullptr, nullptr, 4097, 0, 0, big, 2));
  EXPECT_EQ(TREL_RC_ID_SIZES_NULL, ir(tags, nullptr, nullptr, 8, 0, 0, big, 2));
  EXPECT_EQ(TREL_RC_ID_NULL, ir(tags, idSizes, nullptr, 8, 0, 0, big, 2));
  EXPECT_EQ(TREL_RC_COUNT_IR, ir(tags, idSizes, bytes("i"), 8, TREL_MAX_TAG + 1, 0, big, 1));
  EXPECT_EQ(TREL_RC_TAG_TABLE, ir(tags, idSizes, bytes("i"), 8, TREL_MAX_TAG + 1, ~0ull, 2, 1));
  EXPECT_EQ(TREL_RC_ID_TABLE, ir(tags, idSizes, bytes("i"), 8, TREL_MAX_TAG, ~0ull, 2, 1));
  EXPECT_EQ(TREL_RC_TABLE_SIZE, ir(tags, idSizes, bytes("i"), 8, TREL_MAX_TAG, 0, 2, 1));
  EXPECT_EQ(TREL_RC_PROPERTY_ID_SIZE, ir(tags, idSizes, bytes("i"), 8, 0, 0, big, 0));
  EXPECT_EQ(TREL_RC_PRESENT_IR, ir(tags, idSizes + 1, bytes("i"), 8, 0, 0, 2, 0));
  // The condition is tested behind the arguments, and in front of the work.
  ASSERT_EQ(0u, trelCreateRPropertyList(cb, tags + 1, values, 1, 1, 0, 0));
  ASSERT_EQ(0u, trelAbandonNode(&node.cb));
  EXPECT_EQ(TREL_RC_ABANDONED, trelCreateRPropertyList(cb, tags, values, 3, 3, 0, 0));
  EXPECT_EQ(TREL_RC_PRESENT_V,  // V tests its entries in front of the section
            trelCreateVPropertyList(cb, tags, bytes("v"), sizes, 8, 2, 2, 0, 0));
  int32_t value = 0;
  EXPECT_EQ(TREL_RC_TAG_RANGE, trelGetValueForRProperty(cb, TREL_MAX_TAG + 1, nullptr, 0));
  EXPECT_EQ(TREL_RC_OUT_VALUE_R, trelGetValueForRProperty(cb, 99, nullptr, 0));
  EXPECT_EQ(TREL_RC_ABANDONED, trelGetValueForRProperty(cb, 99, &value, 0));
  ASSERT_EQ(0u, trelActivateNode(&node.cb));
  EXPECT_EQ(TREL_RC_KEY_ABSENT_R, trelGetValueForRProperty(cb, 99, &value, 0));
  // Listings.
  uint64_t list[2] = {};
  uint8_t ids[2] = {};
  EXPECT_EQ(TREL_RC_COUNT_R, trelReturnRProperties(cb, nullptr, TREL_MAX_TAG + 1, 0, 0));
  EXPECT_EQ(TREL_RC_TAGS_NULL, trelReturnRProperties(cb, nullptr, TREL_MAX_TAG + 1, 1, 0));
  EXPECT_EQ(TREL_RC_TAG_RANGE, trelReturnRProperties(cb, list, TREL_MAX_TAG + 1, 1, 0));
  EXPECT_EQ(TREL_RC_TAG_RANGE, trelReturnVProperties(cb, nullptr, nullptr, TREL_MAX_TAG + 1, 0, 0));
  EXPECT_EQ(TREL_RC_COUNT_V, trelReturnVProperties(cb, nullptr, nullptr, 1, 0, 0));
  EXPECT_EQ(TREL_RC_ID_SIZES_NULL,
            trelReturnIRProperties(cb, nullptr, nullptr, nullptr, 1, 0, 9, 0));
  EXPECT_EQ(TREL_RC_TAGS_NULL, trelReturnIRProperties(cb, nullptr, list, ids, 1, 0, 9, 0));
  EXPECT_EQ(TREL_RC_COUNT_IR, trelReturnIRProperties(cb, list, list, ids, 1, 0, 9, 0));
  EXPECT_EQ(TREL_RC_ID_STRIDE, trelReturnIRProperties(cb, list, list, ids, 1, 1, 9, 0));
  // Names.
  int32_t order = 0;
  EXPECT_EQ(TREL_RC_EXPORT_BIT,
            trelCompareTagID(~0ull, nullptr, 9999, 0, nullptr, 0, 0x10, nullptr));
  EXPECT_EQ(TREL_RC_COMPARE_ID_SIZE, trelCompareID(ids, 4097, ids, 0, 0x10, nullptr));
  EXPECT_EQ(TREL_RC_OUT_COMPARISON, trelCompareTagID(~0ull, ids, 4097, 0, ids, 0, 0x200, nullptr));
  EXPECT_EQ(0u, trelCompareTagID(5, ids, 1, 4, ids, 2, 0x2, &order));
  EXPECT_EQ(1, order);
  EXPECT_EQ(0u, trelCompareID(bytes("b"), 1, bytes("aa"), 2, 0x800, &order));
  EXPECT_EQ(-1, order);
}

// ------------------------------------------------------------------------------------------------

// Words of a list become anything. Every operation must return, and leave alone what lies outside
// of the section; the sanitizers see to what lies outside of the node.
TEST(DamagedSections, YieldCodes) {
  const uint64_t seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  const auto below = [&](uint64_t n) { return random() % n; };
  uint64_t refused = 0;
  for (int round = 0; round < 1500; ++round) {
    const uint32_t bit = kKinds[round % 4];
    const Shape shape{bit, 8, 16, 5, 3, 2, 64, round % 8 >= 4};
    Node node(bit, {{bit, shape.sectionBytes(8)}}, 1 + below(16));
    Api api{node.cb, bit};
    const auto nameOf = [&](uint64_t i) {
      return Name{1 + i % 5, hasId(bit) ? std::string(i % 3, 'i') : ""};
    };
    const std::string value = hasBytes(bit) ? std::string(9, 'v') : registerOf(9);
    ASSERT_EQ(0u, api.create({}, 8, 16, 3, 2, 5, shape.hashed));
    for (uint64_t i = 0; i < 7; ++i) api.add(nameOf(i), value);
    api.remove(nameOf(1));

    ExportSlot_t* slot = node.slot(bit);
    const uint64_t offset = slot->offset, size = slot->size;
    for (uint64_t n = 1 + below(3); n; --n) {
      const uint64_t interesting[] = {0,
                                      1,
                                      offset - 1,
                                      offset,
                                      offset + size - 1,
                                      offset + size,
                                      offset + below(size),
                                      below(20),
                                      ~0ull,
                                      1ull << 63,
                                      32769};
      const uint64_t word = interesting[below(sizeof interesting / sizeof *interesting)];
      const uint64_t where[] = {below(12) * 8, size - 8 - 8 * below(4), 8 * below(size / 8),
                                40 + 64 + 8 * below(20)};
      memcpy(node.at(offset + std::min(where[below(4)], size - 8)), &word, 8);
      if (below(6) == 0) slot->used = below(size + 2);
    }
    const std::string before = node.image();
    const uint64_t start = offset - 1372;
    const auto checkOutside = [&] {
      std::string now = node.image();
      const size_t used = reinterpret_cast<uint8_t*>(slot) + 8 - node.at(1372);
      now.replace(used, 8, before, used, 8);
      now.replace(start, size, before, start, size);
      ASSERT_EQ(before, now);
    };
    std::vector<Name> names;
    std::vector<uint64_t> sizes;
    std::string got;
    uint64_t a = 0, b = 0, rc = 0;
    void* record = nullptr;
    for (uint64_t i = 0; i < 8; ++i) {
      const Name name = nameOf(i);
      const uint32_t codes[] = {api.get(name, &got),
                                api.getRc(name, &a),
                                api.set(name, value),
                                api.find(name, &record),
                                api.countOf(name.tag, &a),
                                api.countOfTag(name.tag, &a),
                                api.list(name.tag, 8, 8, &names, &sizes),
                                api.list(0, 40, 8, &names, &sizes),
                                api.numberOf(&a, &b),
                                api.first(&record, &a, &b),
                                api.add({name.tag + 9, name.id}, value),
                                api.remove(name),
                                api.addHashed(name, value),
                                api.removeHashed(name),
                                trelGetFreeSpaceOffsetForProperty(node.cb, bit, &rc)};
      for (uint32_t code : codes) refused += code == TREL_RC_BOUNDS_R + orderOf(bit);
      checkOutside();
      if (HasFailure()) return;
    }
  }
  EXPECT_GT(refused, 100u);  // the damage did reach the walks
}

TEST(DamagedSections, BaseMaximumsDoNotWrap) {
  Node node(TREL_EXPORT_BASE_V, {{TREL_EXPORT_BASE_V, 428 + 24}});
  ASSERT_EQ(0u, trelCreateBaseVProperty(node.cb, 3, bytes("abc"), 3, 24, 0));
  ExportSlot_t* slot = node.slot(TREL_EXPORT_BASE_V);
  const uint64_t maximum = 100 - sizeof(VProperty_t), size = 5000;  // the record: 100 bytes
  memcpy(node.at(slot->offset), &maximum, 8);
  const std::string before = node.image(), value(size, 'v');
  EXPECT_EQ(TREL_RC_BOUNDS_BASE_V, trelSetValueForBaseVProperty(node.cb, 3, size, bytes(value), 0));
  EXPECT_EQ(before, node.image());
  memcpy(node.at(slot->offset + 8 + 24), &size, 8);
  uint64_t got = 0;
  uint8_t *place = nullptr, buffer[24];
  EXPECT_EQ(TREL_RC_BOUNDS_BASE_V,
            trelGetValueForBaseVProperty(node.cb, 3, &got, &place, buffer, 0));
}

// A flat list of one tag is examined to its end, also when the caller's arrays are full before.
TEST(DamagedSections, FlatListingsOfATagSeeAll) {
  Node node(TREL_EXPORT_R, {{TREL_EXPORT_R, 8 + 2 * 144}});
  const uint64_t tags[] = {4, 5}, damaged = TREL_MAX_TAG + 1;
  const int32_t values[] = {1, 2};
  ASSERT_EQ(0u, trelCreateRPropertyList(node.cb, tags, values, 2, 2, 0, 0));
  memcpy(node.at(node.slot(TREL_EXPORT_R)->offset + 8 + 144), &damaged, 8);
  uint64_t list = 0;
  EXPECT_EQ(TREL_RC_TAG_RANGE, trelReturnRProperties(node.cb, &list, 4, 1, 0));
  EXPECT_EQ(0u, trelReturnRProperties(node.cb, &list, 0, 1, 0));
  EXPECT_EQ(4u, list);
}

TEST(DamagedSections, CirclesEnd) {
  for (const uint32_t bit : kKinds) {
    const Shape shape{bit, 8, 8, 1, 0, 0, 2000, true};
    Node node(bit, {{bit, shape.sectionBytes(4)}});
    Api api{node.cb, bit};
    const std::string value = hasBytes(bit) ? "v" : registerOf(1);
    ASSERT_EQ(0u, api.create({}, 8, 8, 0, 0, 1, 1));
    ASSERT_EQ(0u, api.add({1, ""}, value));
    ASSERT_EQ(0u, api.add({2, ""}, value));
    void* record = nullptr;
    ASSERT_EQ(0u, api.find({2, ""}, &record));
    const uint64_t links = hasId(bit) ? 40 : 8;
    const uint64_t start =
        static_cast<uint64_t>(static_cast<uint8_t*>(record) - node.at(0)) - links;
    memcpy(node.at(start), &start, 8);  // the last list node leads to itself
    const uint32_t bounds = TREL_RC_BOUNDS_R + static_cast<uint32_t>(orderOf(bit));
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
