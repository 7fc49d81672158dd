// One interface to the properties of the four kinds that have lists.
#pragma once

#include <gtest/gtest.h>

#include "section_walker.h"

namespace walker {

using Text = std::string;

constexpr uint32_t kKinds[] = {TREL_EXPORT_R, TREL_EXPORT_IR, TREL_EXPORT_V, TREL_EXPORT_IV};
// Where the code of a kind lies behind that of R.
inline uint32_t orderOf(uint32_t bit) {
  return static_cast<uint32_t>(std::find(kKinds, kKinds + 4, bit) - kKinds);
}

inline int32_t number(const Text& s) {
  int32_t n = 0;
  memcpy(&n, s.data(), std::min<size_t>(4, s.size()));
  return n;
}
inline Text registerOf(int32_t n) { return {reinterpret_cast<const char*>(&n), 4}; }

struct ListLimits {
  uint64_t maximum = 0, hashed = 0, maxId = 0, maxValue = 8, tagTable = 3, idTable = 5;
};

// A pointer to a record of any kind, or to such a pointer.
struct Any {
  void* pointer;
  Any(void* p) : pointer(p) {}
  template <class T>
  operator T*() const {
    return static_cast<T*>(pointer);
  }
};

struct Api {
  SNodeCB_t* cb;
  uint32_t bit;
  using Entries = std::vector<std::pair<Name, Text>>;

// By kind: r, v, ir, iv are argument lists.
#define EACH(name, suffix, r, v, ir, iv)               \
  (bit == TREL_EXPORT_R    ? trel##name##R##suffix r   \
   : bit == TREL_EXPORT_V  ? trel##name##V##suffix v   \
   : bit == TREL_EXPORT_IR ? trel##name##IR##suffix ir \
                           : trel##name##IV##suffix iv)
#define SPREAD(...) __VA_ARGS__
#define ALIKE(name, suffix, ...) \
  EACH(name, suffix, (__VA_ARGS__), (__VA_ARGS__), (__VA_ARGS__), (__VA_ARGS__))
// Where registers and bytes differ: in what comes behind the name n, or behind a record.
#define BY_VALUE(name, suffix, registers, bytes_)                               \
  EACH(name, suffix, (cb, n.tag, SPREAD registers), (cb, n.tag, SPREAD bytes_), \
       (cb, n.tag, n.id.size(), bytes(n.id), SPREAD registers),                 \
       (cb, n.tag, n.id.size(), bytes(n.id), SPREAD bytes_))
#define BY_NAME(name, suffix, ...) BY_VALUE(name, suffix, (__VA_ARGS__), (__VA_ARGS__))
#define BY_RECORD(name, registers, bytes_)                                          \
  EACH(name, Property, (cb, record, SPREAD registers), (cb, record, SPREAD bytes_), \
       (cb, record, SPREAD registers), (cb, record, SPREAD bytes_))

  uint32_t create(const ListLimits& l, const Entries& entries = {}) {
    std::vector<uint64_t> tags, idSizes, sizes;
    std::vector<int32_t> numbers;
    Text ids, values;
    for (const auto& [name, value] : entries) {
      tags.push_back(name.tag);
      idSizes.push_back(name.id.size());
      ids += name.id;
      sizes.push_back(value.size());
      numbers.push_back(number(value));
      values += value;
      values.resize(tags.size() * ((l.maxValue + 7) / 8 * 8));
    }
    const uint64_t n = entries.size();
    return EACH(
        Create, PropertyList, (cb, tags.data(), numbers.data(), n, l.maximum, l.hashed, 0),
        (cb, tags.data(), bytes(values), sizes.data(), l.maxValue, n, l.maximum, l.hashed, 0),
        (cb, tags.data(), numbers.data(), idSizes.data(), bytes(ids), l.maxId, n, l.tagTable,
         l.idTable, l.maximum, l.hashed, 0),
        (cb, tags.data(), idSizes.data(), bytes(ids), l.maxId, bytes(values), sizes.data(),
         l.maxValue, n, l.tagTable, l.idTable, l.maximum, l.hashed, 0));
  }

  uint32_t add(const Name& n, const Text& v) {
    return BY_VALUE(Add, Property, (number(v), 0), (v.size(), bytes(v), 0));
  }
  uint32_t addHashed(const Name& n, const Text& v) {
    return BY_VALUE(Add, PropertyToHashTable, (number(v), 0), (v.size(), bytes(v), 0));
  }
  uint32_t set(const Name& n, const Text& v) {
    return BY_VALUE(SetValueFor, Property, (number(v), 0), (v.size(), bytes(v), 0));
  }
  uint32_t remove(const Name& n, uint64_t in = 0) { return BY_NAME(Delete, Property, in); }
  uint32_t removeHashed(const Name& n) {
    return EACH(Delete, PropertyFromHashTable, (cb, n.tag), (cb, n.tag),
                (cb, n.tag, n.id.size(), bytes(n.id)), (cb, n.tag, n.id.size(), bytes(n.id)));
  }
  uint32_t getRc(const Name& n, uint64_t* rc) { return BY_NAME(GetRCFor, Property, rc, 0); }
  uint32_t setRc(const Name& n, uint64_t rc) { return BY_NAME(SetRCFor, Property, rc, 0); }
  uint32_t address(const Name& n, Any record) { return BY_NAME(GetAddressFor, Property, record); }
  uint32_t find(const Name& n, Any record) { return BY_NAME(Find, PropertyInHashTable, record); }

  uint32_t countOf(uint64_t tag, uint64_t* count) {
    return ALIKE(Return, PropertyCount, cb, tag, count, 0);
  }
  uint32_t countOfTag(uint64_t tag, uint64_t* count) {
    return ALIKE(Get, PropertiesNoForGivenTag, cb, tag, count, 0);
  }
  uint32_t numberOf(uint64_t* current, uint64_t* maximum) {
    return ALIKE(GetNumberOf, Properties, cb, current, maximum, 0);
  }
  uint32_t first(Any record, uint64_t* count, uint64_t* capacity) {
    return ALIKE(GetFirst, PropertyLocation, cb, record, count, capacity);
  }
  uint32_t next(Any record) {
    const ExportSlot_t* slot = &cb->exportTable[slotOf(bit)];
    return ALIKE(GetNext, PropertyLocation, cb, slot, record);
  }

  // Bytes are got twice, in place and copied.
  uint32_t get(const Name& n, Text* value) {
    int32_t held = 0;
    uint64_t size = 0;
    uint8_t* place = nullptr;
    const auto read = [&](uint8_t* buffer) {
      return BY_VALUE(GetValueFor, Property, (&held, 0), (&size, &place, buffer, 0));
    };
    if (const uint32_t rc = read(nullptr)) return rc;
    *value = registerOf(held);
    if (!hasBytes(bit)) return 0;
    value->assign(size, '\0');
    EXPECT_EQ(0u, read(reinterpret_cast<uint8_t*>(&(*value)[0])));
    EXPECT_EQ(*value, Text(place, place + size));
    return 0;
  }
  // The same through a record: of the bytes the first alone is copied.
  uint32_t getHeld(Any record, Text* value, uint64_t* rc) {
    int32_t held = 0;
    uint64_t size = 1;
    uint8_t *place = nullptr, start = 0;
    const uint32_t failure =
        BY_RECORD(GetValueAndRCFor, (&held, rc, 0), (&size, &place, &start, rc, 0));
    *value = hasBytes(bit) ? Text(place, place + size) : registerOf(held);
    EXPECT_TRUE(!hasBytes(bit) || start == *place);
    return failure;
  }
  uint32_t setHeld(Any record, const Text& v, uint64_t rc) {
    return BY_RECORD(SetValueAndRCFor, (number(v), rc, 0), (v.size(), bytes(v), rc, 0));
  }

  // All of a tag, or all; the sizes are those of bytes.
  uint32_t list(uint64_t tag, uint64_t count, uint64_t stride, std::vector<Name>* names,
                std::vector<uint64_t>* sizes) {
    std::vector<uint64_t> tags(count, 77), idSizes(count, hasId(bit) ? 77 : 0);
    Text ids(count * stride + 1, '?');
    auto* packed = reinterpret_cast<uint8_t*>(&ids[0]);
    sizes->assign(count, hasBytes(bit) ? 77 : 0);
    const uint32_t rc =
        EACH(Return, Properties, (cb, tags.data(), tag, count, 0),
             (cb, tags.data(), sizes->data(), tag, count, 0),
             (cb, tags.data(), idSizes.data(), packed, tag, count, stride, 0),
             (cb, tags.data(), idSizes.data(), packed, sizes->data(), tag, count, stride, 0));
    names->clear();
    for (uint64_t i = 0; i < count; ++i)
      names->push_back({tags[i], ids.substr(i * stride, std::min(idSizes[i], stride))});
    return rc;
  }
#undef EACH
#undef SPREAD
#undef ALIKE
#undef BY_VALUE
#undef BY_NAME
#undef BY_RECORD
};

}  // namespace walker
