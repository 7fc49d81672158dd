// Reads a property section from its bytes alone, and finds whatever does not agree with whatever.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "trel/trel.h"

namespace walker {

// In the order of names: tag, size of the identifier, its bytes.
struct Name {
  uint64_t tag;
  std::string id;
  bool operator<(const Name& o) const {
    return std::make_tuple(tag, id.size(), std::cref(id)) <
           std::make_tuple(o.tag, o.id.size(), std::cref(o.id));
  }
  bool operator==(const Name& o) const { return tag == o.tag && id == o.id; }
};

struct Content {
  std::string value;  // bytes, or the four of a register
  uint64_t rc;
  bool operator==(const Content& o) const { return value == o.value && rc == o.rc; }
};

inline uint64_t hashOf(const std::string& bytes, uint64_t start) {
  uint64_t x = start, s = start, p = start;
  for (unsigned char b : bytes) x ^= b, s += b, p = (p + 1) * (b + 1ull);
  return x ^ s ^ p;
}

inline std::string digitsOf(uint64_t tag) {
  const std::string text = std::to_string(tag);
  return {text.rbegin(), text.rend()};
}

inline const uint8_t* bytes(const std::string& s) {
  return reinterpret_cast<const uint8_t*>(s.data());
}

constexpr int slotOf(uint64_t bit) { return __builtin_ctzll(bit) - 1; }
constexpr bool hasId(uint32_t bit) { return bit & (TREL_EXPORT_IR | TREL_EXPORT_IV); }
constexpr bool hasBytes(uint32_t bit) { return bit & (TREL_EXPORT_V | TREL_EXPORT_IV); }
// Bytes of a record, identifier and value apart, and of what chains it.
constexpr uint64_t fixedBytes(uint32_t bit) {
  return hasId(bit) ? (hasBytes(bit) ? 436 : 548) : (hasBytes(bit) ? 420 : 144);
}
constexpr uint64_t linkBytes(uint32_t bit) { return hasId(bit) ? 40 : 8; }

struct Section {
  std::multimap<Name, Content> properties;
  std::vector<Name> inOrder;  // as a listing of all gives them
  uint64_t recordBytes = 0, nodeBytes = 0, nextFree = 0, freed = 0;
  uint64_t nextPlace = 0;  // of the record that comes next
  uint64_t idMax = 0, valueMax = 0;
  uint64_t tables[3] = {};
  std::string error;  // the first disagreement; empty if all is well

  Section(SNodeCB_t* cb, uint32_t bit)
      : node(reinterpret_cast<const uint8_t*>(cb)),
        slot(cb->exportTable[slotOf(bit)]),
        withId(hasId(bit)),
        withBytes(hasBytes(bit)),
        fixed(fixedBytes(bit)),
        links(linkBytes(bit)) {
    uint64_t header = slot.offset;
    if (withId) idMax = word(header), header += 8;
    if (withBytes) valueMax = word(header), header += 8;
    recordBytes = fixed + idMax + valueMax;
    nodeBytes = links + recordBytes;
    expect(slot.used <= slot.size, "used above size");
    tables[0] = word(header);
    if (tables[0] == 0) {
      walkFlat(header + 8);
      return;
    }
    for (int i = 1; withId && i < 3; ++i) tables[i] = word(header + 8 * i);
    walkHashed(header + 8 * (withId ? 3 : 1));
  }

  uint64_t word(uint64_t offset) const {
    uint64_t value;
    memcpy(&value, node + offset, 8);
    return value;
  }

 private:
  const uint8_t* node;
  const ExportSlot_t slot;
  const bool withId, withBytes;
  const uint64_t fixed, links;

  bool expect(bool holds, const std::string& text) {
    if (!holds && error.empty()) error = text;
    return holds;
  }

  Name takeRecord(uint64_t at) {
    Name name{word(at), ""};
    Content content{"", word(at + 8)};
    uint64_t field = at + 16;
    expect(name.tag <= TREL_MAX_TAG, "tag");
    if (withId) {
      expect(word(field) == at + fixed, "idOffset");
      if (expect(word(field + 8) <= idMax, "idSize"))
        name.id.assign(reinterpret_cast<const char*>(node + at + fixed), word(field + 8));
      field += 16;
    }
    if (withBytes) {
      expect(word(field) == at + fixed + idMax, "valueOffset");
      if (expect(word(field + 8) >= 1 && word(field + 8) <= valueMax, "valueSize"))
        content.value.assign(reinterpret_cast<const char*>(node + at + fixed + idMax),
                             word(field + 8));
    } else {
      auto* cell = reinterpret_cast<PLATVAtomicSigned32*>(const_cast<uint8_t*>(node + field));
      content.value.assign(reinterpret_cast<const char*>(PLATVAtomicSigned32::word(cell)), 4);
    }
    if (withId || withBytes)
      expect(
          static_cast<uint32_t>(word(at + fixed - sizeof(LatchArea_t))) == TREL_STRUCTURE_VERSION,
          "propertyLatchArea");
    properties.insert({name, content});
    inOrder.push_back(name);
    return name;
  }

  void walkFlat(uint64_t first) {
    const uint64_t header = first - slot.offset;
    const uint64_t count = (slot.used - header) / recordBytes;
    expect((slot.used - header) % recordBytes == 0, "used of a flat list");
    uint64_t at = first;
    for (; inOrder.size() < count; at += recordBytes) {
      if (!expect(at + recordBytes <= slot.offset + slot.size, "flat list leaves its section"))
        return;
      if (word(at)) {
        takeRecord(at);
      } else if (!nextPlace) {
        nextPlace = at;
      }
    }
    if (!nextPlace) nextPlace = at;
  }

  void walkHashed(uint64_t buckets) {
    const uint64_t end = slot.offset + slot.size, sum = tables[0] + tables[1] + tables[2];
    const uint64_t area = buckets + 8 * sum;
    nextFree = word(end - 16);
    freed = word(end - 8);
    nextPlace = links + (freed ? word(end - 16 - 8 * freed) : nextFree);
    if (!expect(nextFree >= area && nextFree <= end - 16 - 8 * freed, "nextFreeOffset")) return;
    expect((nextFree - area) % nodeBytes == 0, "nextFreeOffset between list nodes");
    const auto isPlace = [&](uint64_t at) {
      return expect(at >= area && at < nextFree && (at - area) % nodeBytes == 0, "list node place");
    };

    std::map<uint64_t, Name> live;
    for (uint64_t i = 0; i < tables[0]; ++i) {
      const Name* last = nullptr;
      for (uint64_t at = word(buckets + 8 * i); at; at = word(at)) {
        if (!isPlace(at)) return;
        const auto added = live.emplace(at, takeRecord(at + links));
        if (!expect(added.second, "list node on first chains twice")) return;
        const Name& name = added.first->second;
        expect(!last || *last < name, "order of a first chain");
        const uint64_t hash = withId ? hashOf(name.id, name.tag) : hashOf(digitsOf(name.tag), 0);
        expect(hash % tables[0] == i, "first table's bucket");
        last = &name;
      }
    }
    uint64_t bucket = buckets + 8 * tables[0];
    for (int table = 1; withId && table < 3; ++table) {
      const uint64_t link = 16 * table - 8;
      std::set<uint64_t> seen;
      for (uint64_t i = 0; i < tables[table]; ++i, bucket += 8) {
        uint64_t from = bucket;
        for (uint64_t cell = word(bucket); cell; from = cell, cell = word(cell)) {
          const auto found = live.find(cell - link);
          if (!expect(found != live.end(), "cell of no live list node")) return;
          if (!expect(seen.insert(cell).second, "list node on further chains twice")) return;
          expect(word(cell + 8) == from, "prev cell");
          const Name& name = found->second;
          const uint64_t hash = table == 1 ? hashOf(digitsOf(name.tag), 0) : hashOf(name.id, 0);
          expect(hash % tables[table] == i, "further table's bucket");
        }
      }
      expect(seen.size() == live.size(), "further chains miss a list node");
    }

    std::set<uint64_t> stack;
    for (uint64_t i = 0; i < freed; ++i) {
      const uint64_t at = word(end - 24 - 8 * i);
      if (!isPlace(at)) return;
      expect(stack.insert(at).second && !live.count(at), "freed list node twice or live");
    }
    expect((live.size() + freed) * nodeBytes == nextFree - area,
           "list nodes neither live nor freed");
    expect(slot.used == area - slot.offset + 16 + live.size() * nodeBytes + 8 * freed,
           "used of a hashed list");
  }
};

}  // namespace walker
