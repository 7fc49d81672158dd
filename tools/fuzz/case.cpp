#include "case.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace fuzz {
namespace {

const char* const kModes[] = {"before", "after", "race"};
const char kTruncated[] = "truncated";

uint64_t least(uint32_t width) { return uint64_t{1} << (8 * width - 1); }

struct Mutation {
  const char* name;
  uint64_t (*apply)(const Word& word, uint64_t value);
};
// "size" is what the word is held against: its node, its heap or the segment.
const Mutation kMutations[] = {
    {"zero", [](const Word&, uint64_t) { return uint64_t{0}; }},
    {"one", [](const Word&, uint64_t) { return uint64_t{1}; }},
    {"less", [](const Word&, uint64_t v) { return v - 1; }},
    {"more", [](const Word&, uint64_t v) { return v + 1; }},
    {"less8", [](const Word&, uint64_t v) { return v - 8; }},
    {"more8", [](const Word&, uint64_t v) { return v + 8; }},
    {"double", [](const Word&, uint64_t v) { return v * 2; }},
    {"half", [](const Word&, uint64_t v) { return v / 2; }},
    {"flip", [](const Word&, uint64_t v) { return ~v; }},
    {"size-8", [](const Word& w, uint64_t) { return w.bound - 8; }},
    {"size-1", [](const Word& w, uint64_t) { return w.bound - 1; }},
    {"size", [](const Word& w, uint64_t) { return w.bound; }},
    {"size+1", [](const Word& w, uint64_t) { return w.bound + 1; }},
    {"page", [](const Word&, uint64_t v) { return v + 4096; }},
    {"beyond", [](const Word& w, uint64_t) { return w.bound + 0x20000; }},
    {"large", [](const Word&, uint64_t) { return uint64_t{0x3000000}; }},
    {"huge", [](const Word& w, uint64_t) { return least(w.width) - 1; }},
    {"sign", [](const Word& w, uint64_t v) { return v ^ least(w.width); }},
    {"negative", [](const Word&, uint64_t) { return ~uint64_t{0}; }},
    {"negative8", [](const Word&, uint64_t) { return ~uint64_t{7}; }},
    {"carry", [](const Word&, uint64_t v) { return v + (uint64_t{1} << 32); }},
    {"self", [](const Word& w, uint64_t) { return w.offset - w.origin; }},
};

std::string hex(uint64_t value) {
  std::ostringstream out;
  out << "0x" << std::hex << value;
  return out.str();
}

template <class List>
const auto& anyOf(const List& list, Random& random) {
  return list[random.below(std::size(list))];
}

class Drawer {
 public:
  Drawer(const Words& words, Mode mode, uint64_t seed) : words_(words), random_(seed) {
    drawn_ = {mode, seed, {}};
  }

  Case draw() {
    if (drawn_.mode == Mode::before && random_.below(40) == 0)
      drawn_.changes.push_back({kTruncated, 0, hex(random_.below(0x20000))});
    chooseObject();
    for (uint64_t count = 1 + random_.below(4); count; --count) change();
    return drawn_;
  }

 private:
  // Mostly all damage is in one node, heap or list, and often its own bounds lie.
  void chooseObject() {
    static const char* const kHeaps[] = {"domain.", "pool."};
    static const char* const kBounds[] = {"heapSize", "lists.slSpaceSize", "lists.slNextNode"};
    static const char* const kRaised[] = {"beyond", "large", "huge", "0x1000000"};
    const uint64_t kind = random_.below(8);
    if (kind > 5) return;
    const bool lies = random_.below(2);
    if (kind < 4) {
      const auto& sizes = words_.at("node.nodeSize");
      const uint64_t index = random_.below(sizes.size());
      from_ = sizes[index].origin;
      to_ = from_ + sizes[index].bound;
      if (lies) drawn_.changes.push_back({"node.nodeSize", index, anyOf(kRaised, random_)});
    } else {
      prefix_ = anyOf(kHeaps, random_);
      for (const char* bound : kBounds)
        if (lies && random_.below(2))
          drawn_.changes.push_back({prefix_ + bound, 0, anyOf(kRaised, random_)});
    }
    reachesOut_ = lies;
  }

  // A word by class, each class as likely as any other.
  void change() {
    for (int tries = 0; tries < 1000; ++tries) {
      const auto& [name, all] =
          *std::next(words_.begin(), static_cast<int64_t>(random_.below(words_.size())));
      const uint64_t index = random_.below(all.size());
      if (name.compare(0, prefix_.size(), prefix_) != 0 || all[index].offset < from_ ||
          all[index].offset >= to_)
        continue;
      return changeTo(name, all, index);
    }
  }
  void changeTo(const std::string& name, const std::vector<Word>& all, uint64_t index) {
    const uint64_t other = random_.below(all.size());
    const auto add = [&](uint64_t which, const std::string& value) {
      drawn_.changes.push_back({name, which, value});
    };
    if (reachesOut_ && random_.below(2)) return add(index, random_.below(2) ? "beyond" : "large");
    switch (random_.below(8)) {
      case 0:  // any number
        return add(index, hex(random_.next() >> random_.below(64)));
      case 1:  // a link to another of its kind
        return add(index, hex(all[other].offset - all[index].origin));
      case 2:  // two of a kind change places
        add(index, "of#" + std::to_string(other));
        return add(other, "of#" + std::to_string(index));
      default:
        return add(index, anyOf(kMutations, random_).name);
    }
  }

  const Words& words_;
  Random random_;
  Case drawn_;
  std::string prefix_;
  uint64_t from_ = 0, to_ = UINT64_MAX;
  bool reachesOut_ = false;
};

const Word& findWord(const Words& words, const std::string& name, uint64_t index) {
  const auto found = words.find(name);
  if (found == words.end() || index >= found->second.size())
    throw std::runtime_error("no word " + name + "#" + std::to_string(index));
  return found->second[index];
}

uint64_t valueOf(const Change& change, const Word& word, const Words& words, const Image& image) {
  for (const Mutation& mutation : kMutations)
    if (change.value == mutation.name)
      return mutation.apply(word, load(&image[word.offset], word.width));
  if (change.value.compare(0, 3, "of#") == 0) {
    const Word& other = findWord(words, change.word, std::stoull(change.value.substr(3)));
    return load(&image[other.offset], other.width);
  }
  return std::stoull(change.value, nullptr, 0);
}

}  // namespace

uint64_t Random::next() {
  uint64_t z = state_ += 0x9e3779b97f4a7c15;
  z = (z ^ z >> 30) * 0xbf58476d1ce4e5b9;
  z = (z ^ z >> 27) * 0x94d049bb133111eb;
  return z ^ z >> 31;
}

const char* nameOf(Mode mode) { return kModes[static_cast<int>(mode)]; }

Case drawCase(const Words& words, Mode mode, uint64_t seed) {
  return Drawer(words, mode, seed).draw();
}

std::string textOf(const Case& drawn) {
  std::string text = std::string(nameOf(drawn.mode)) + " " + std::to_string(drawn.seed);
  for (const Change& change : drawn.changes)
    text += " " + change.word + "#" + std::to_string(change.index) + "=" + change.value;
  return text;
}

Case parseCase(const std::string& text) {
  std::istringstream in(text);
  Case parsed;
  std::string mode, item;
  if (!(in >> mode >> parsed.seed)) throw std::runtime_error("no case: " + text);
  const auto found = std::find(std::begin(kModes), std::end(kModes), mode);
  if (found == std::end(kModes)) throw std::runtime_error("no mode: " + mode);
  parsed.mode = static_cast<Mode>(found - kModes);
  while (in >> item) {
    const size_t equals = item.find('='), count = item.find('#');
    if (equals == std::string::npos) throw std::runtime_error("no change: " + item);
    const bool counted = count < equals;
    parsed.changes.push_back({item.substr(0, counted ? count : equals),
                              counted ? std::stoull(item.substr(count + 1)) : 0,
                              item.substr(equals + 1)});
  }
  return parsed;
}

std::vector<Patch> patchesOf(const Case& drawn, const Words& words, const Image& image) {
  std::vector<Patch> patches;
  for (const Change& change : drawn.changes) {
    if (change.word == kTruncated) continue;
    const Word& word = findWord(words, change.word, change.index);
    patches.push_back({word, valueOf(change, word, words, image)});
  }
  return patches;
}

uint64_t sizeLeft(const Case& drawn, uint64_t size) {
  for (const Change& change : drawn.changes)
    if (change.word == kTruncated) size = std::stoull(change.value, nullptr, 0) % size;
  return std::max<uint64_t>(size, 1);
}

}  // namespace fuzz
