// The C++17 layer of libtrel: publish in ten lines, read what you have never seen.
//
//   auto tree = trel::Publisher(0x5401, "web");        // creates, or takes the key over from the
//   dead auto worker = tree.node("workers/3", "worker");    // and what is missing above it auto
//   requests = worker.counter("requests", "1", "requests served"); requests.add(1); tree.beat();
//
//   auto seen = trel::Reader(0x5401);
//   for (const auto& node : seen.nodes())
//     for (const auto& value : node.values())
//       std::cout << node.path() << ' ' << value.name() << ' ' << value.text() << '\n';
//
// What is published describes itself (trel/describe.h): values have names, units, kinds and help
// texts, stored once for each type of node. The values of a node lie packed in byte properties,
// each at an offset of its own, and change in place under the node's lock: 8 bytes for a number.
//
// Failures are thrown as trel::Error. Handles are cheap to copy and may be used by several threads;
// each change is one write section of its node. A handle keeps the tree's memory mapped, so it may
// outlive its Publisher; what it writes then nobody sees.
#ifndef TREL_TREL_HPP
#define TREL_TREL_HPP

#include <time.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "trel/trel.h"

namespace trel {

// ---- Errors ----

// Return codes as a category of std::error_code.
inline const std::error_category& category() {
  struct Category : std::error_category {
    const char* name() const noexcept override { return "trel"; }
    std::string message(int code) const override {
      return trelPrintrc(static_cast<uint32_t>(code));
    }
  };
  static const Category instance;
  return instance;
}

class Error : public std::system_error {
 public:
  Error(uint32_t code, const std::string& operation)
      : std::system_error(static_cast<int>(code), category(), operation),
        code_(code),
        operation_(operation) {}

  // A TREL_RC_ or PLAT_RC_ code.
  uint32_t trelCode() const noexcept { return code_; }
  const std::string& operation() const noexcept { return operation_; }

 private:
  uint32_t code_;
  std::string operation_;
};

namespace detail {

inline void check(uint32_t code, const char* operation) {
  if (code != 0) throw Error(code, operation);
}
#define TREL_CHECKED(operation, ...) ::trel::detail::check(operation(__VA_ARGS__), #operation)

// The library's life in this process: from the first use to the process's end.
inline void start() {
  struct Life {
    Life() {
      TREL_CHECKED(TRELOneTimeOnlyInitialization, TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION);
    }
    ~Life() { TRELCleanup(1); }
  };
  static const Life life;
}

inline const uint8_t* bytes(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}
constexpr uint64_t round8(uint64_t value) { return (value + 7) & ~uint64_t{7}; }

template <size_t N>
void setText(char (&to)[N], std::string_view from) {
  const size_t length = from.size() < N - 1 ? from.size() : N - 1;
  std::memset(to, 0, N);
  std::memcpy(to, from.data(), length);
}

}  // namespace detail

// ---- Values ----

enum class Kind : uint32_t {
  gauge = TREL_KIND_GAUGE,
  counter = TREL_KIND_COUNTER,
  state = TREL_KIND_STATE,
  info = TREL_KIND_INFO
};
constexpr Kind gauge = Kind::gauge, counter = Kind::counter, state = Kind::state, info = Kind::info;

// A moment, as values of TREL_VALUE_TIME hold it.
struct Time {
  uint64_t nanoseconds = 0;  // since 1970 in UTC
  static Time now() {
    timespec clock;
    clock_gettime(CLOCK_REALTIME, &clock);
    return {static_cast<uint64_t>(clock.tv_sec) * 1000000000u +
            static_cast<uint64_t>(clock.tv_nsec)};
  }
};

namespace detail {

// The value type of a C++ type.
template <class T>
constexpr uint32_t valueType() {
  using U = std::remove_cv_t<T>;
  if constexpr (std::is_same_v<U, bool>)
    return TREL_VALUE_BOOL;
  else if constexpr (std::is_same_v<U, Time>)
    return TREL_VALUE_TIME;
  else if constexpr (std::is_same_v<U, double>)
    return TREL_VALUE_F64;
  else if constexpr (std::is_integral_v<U> && sizeof(U) == 8)
    return std::is_signed_v<U> ? TREL_VALUE_I64 : TREL_VALUE_U64;
  else if constexpr (std::is_integral_v<U> && sizeof(U) == 4 && std::is_signed_v<U>)
    return TREL_VALUE_I32;
  else if constexpr (std::is_array_v<U> && std::is_same_v<std::remove_extent_t<U>, char>)
    return TREL_VALUE_TEXT;
  else
    return TREL_VALUE_OPAQUE;
}

template <class T>
constexpr bool isScalar =
    valueType<T>() >= TREL_VALUE_I32&& valueType<T>() <= TREL_VALUE_TIME&& valueType<T>() !=
    TREL_VALUE_TEXT;

}  // namespace detail

// A field of a record: its name, the member, and what it is.
template <class Struct>
struct Field {
  template <class Member>
  Field(std::string_view name, Member Struct::*member, Kind kind = gauge,
        std::string_view unit = "1", std::string_view help = "") {
    static_assert(detail::valueType<Member>() != TREL_VALUE_OPAQUE,
                  "a field is a bool, an i32, a 64-bit integer, a double, a Time or a char array");
    alignas(Struct) static unsigned char space[sizeof(Struct)];
    const auto* whole = reinterpret_cast<const Struct*>(space);
    const auto* part = reinterpret_cast<const unsigned char*>(&(whole->*member));
    description.offset = static_cast<uint32_t>(part - space);
    description.size = sizeof(Member);
    description.valueType = detail::valueType<Member>();
    description.valueKind = static_cast<uint32_t>(kind);
    detail::setText(description.name, name);
    detail::setText(description.unit, unit);
    detail::setText(description.help, help);
  }
  TrelDescription_t description{};
};

// ---- Publishing ----

struct Options {
  uint32_t size = 1u << 20;     // bytes of the segment
  std::string version;          // of the program
  uint32_t permissions = 0644;  // who may look; only the owner and, with 0660, the group may write
  // At the end of a Publisher's life the segment stays, for those who want to see what was last.
  bool keep = false;
  // A thread of the layer's own beats as often; 0: whoever publishes calls beat().
  std::chrono::milliseconds beatEvery{0};
  uint32_t children = 32;    // room for the children of a node
  uint32_t nodeBytes = 496;  // room for the values of a node, in each of `chunks` byte properties
  uint32_t chunks = 1;
  uint32_t longestName = 64;  // bytes of a node's identifier
};

namespace detail {

// What a type of node has: the places of its values, and the first place that is free.
struct Type {
  uint64_t tag = 0;
  std::map<std::string, TrelDescription_t, std::less<>> values;
  uint64_t chunk = 1;     // property tag of the last chunk in use
  uint32_t position = 0;  // of the first free byte in it
};

struct NodeState {
  SNodeCB_t* node = nullptr;
  std::string path;
  std::string type;
  std::vector<uint8_t*> chunks;  // where the bytes of each byte property lie
  std::map<std::string, std::shared_ptr<NodeState>, std::less<>> children;
};

class Tree : public std::enable_shared_from_this<Tree> {
 public:
  Tree(uint32_t key, std::string_view program, const Options& options)
      : key_{PLAT_STRUCTURE_TAG, key}, options_(options) {
    start();
    create();
    try {
      TREL_CHECKED(trelSetPublisher, segment_, std::string(program).c_str(),
                   options_.version.c_str());
      root_ = makeNode(nullptr, program, "");
      TREL_CHECKED(trelPutTopNodeInfoIntoDomainHeader, segment_->shmDomainHandle, root_->node->tag,
                   root_->node->nodeOffset,
                   static_cast<uint32_t>(segment_->shmPoolHandle->poolOffset));
    } catch (...) {
      trelDeleteStatusSegment(&segment_, 4, 2, 2);
      throw;
    }
  }
  Tree(const Tree&) = delete;
  Tree& operator=(const Tree&) = delete;

  // The publisher takes its leave. Handles that are still there write into memory of nobody.
  void end() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!segment_ || ended_) return;
    ended_ = true;
    trelEndPublisher(segment_);
    if (!options_.keep) trelRemoveStatusSegment(&key_, 2);
  }
  ~Tree() {
    end();
    if (segment_) trelDetachStatusSegment(&segment_, 1);
  }

  const std::shared_ptr<NodeState>& root() const { return root_; }
  ShmSegInfo_t* segment() const { return segment_; }
  void beat() {
    TREL_CHECKED(trelBeatTree, segment_);
    TREL_CHECKED(trelUpdateNodeStatus, root_->node);
  }

  // The node of a path below another, made with all that is missing on the way. Types of nodes on
  // the way are named as their elements.
  std::shared_ptr<NodeState> node(std::shared_ptr<NodeState> from, std::string_view path,
                                  std::string_view type) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::string whole(path);
    const char* rest = whole.c_str();
    std::array<uint8_t, TREL_MAX_ID_SIZE> id;
    for (;;) {
      uint64_t tag = 0, size = 0;
      const uint32_t rc = trelParsePathElement(rest, &tag, id.data(), &size, &rest);
      if (rc == TREL_RC_NOT_FOUND) return from;
      check(rc, "trelParsePathElement");
      if (size == 0 || tag != 0) throw Error(TREL_RC_PATH_SYNTAX, "a node needs a name");
      const std::string name(reinterpret_cast<const char*>(id.data()), size);
      const auto found = from->children.find(name);
      if (found != from->children.end()) {
        from = found->second;
        continue;
      }
      const bool isNamed = *rest == 0 && !type.empty();
      from = from->children[name] = makeNode(from.get(), name, std::string(isNamed ? type : ""));
    }
  }

  // The place of a value of a node's type, described now if it is new.
  TrelDescription_t place(NodeState* node, TrelDescription_t wanted,
                          const std::vector<TrelDescription_t>& fields) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Type& type = types_[node->type];
    const auto found = type.values.find(std::string_view(wanted.name));
    if (found != type.values.end()) {
      wanted.propertyTag = found->second.propertyTag;
      wanted.offset = found->second.offset;
    } else {
      if (wanted.size > options_.nodeBytes)
        throw Error(TREL_RC_VALUE_SIZE, "a value larger than Options::nodeBytes");
      wanted.propertyTag = type.chunk;
      wanted.offset = type.position;
      if (wanted.size > options_.nodeBytes - type.position) {
        ++wanted.propertyTag;
        wanted.offset = 0;
      }
    }
    wanted.nodeTag = type.tag;
    wanted.exportBit = TREL_EXPORT_V;
    wanted.fieldCount = static_cast<uint32_t>(fields.size());
    while (node->chunks.size() < wanted.propertyTag) addChunk(node);
    TREL_CHECKED(trelDescribe, segment_, &wanted, fields.data());
    if (found == type.values.end()) {
      type.chunk = wanted.propertyTag;
      type.position = static_cast<uint32_t>(wanted.offset + round8(wanted.size));
      type.values[wanted.name] = wanted;
    }
    return wanted;
  }

 private:
  // A segment of the key: a new one, in place of what the dead left under it.
  void create() {
    ShmDomainParam_t param{};
    param.accessMode = 1;
    param.permissions = options_.permissions;
    const auto make = [&] {
      return trelGetProtectedStatusSegment(&segment_, options_.size, &key_, 0, 0, &param, nullptr);
    };
    uint32_t rc = make();
    if (rc == TREL_RC_SEGMENT_EXISTS) {
      if (isPublished()) throw Error(rc, "another publisher lives under this key");
      check(trelRemoveStatusSegment(&key_, isKnownDead_ ? 2 : 1), "trelRemoveStatusSegment");
      rc = make();
    }
    check(rc, "trelGetProtectedStatusSegment");
  }

  // Whether a publisher lives that says so.
  bool isPublished() {
    ShmSegInfo_t* present = nullptr;
    SNodeCB_t* node = nullptr;
    TopNodeInfo_t top;
    if (trelConnectToATreeForReading(&present, &node, &top, &key_, 0, nullptr, nullptr) != 0)
      return false;
    TrelPublisher_t publisher{};
    const uint32_t rc = trelGetPublisher(present, &publisher);
    trelDetachStatusSegment(&present, 1);
    isKnownDead_ = rc == 0 && publisher.state >= TREL_PUBLISHER_ENDED;
    return rc == 0 && publisher.state == TREL_PUBLISHER_ALIVE;
  }

  // The tag of a type of node, described now if it is new.
  uint64_t tagOf(const std::string& name) {
    Type& type = types_[name];
    if (type.tag == 0) {
      TrelDescription_t description{};
      description.nodeTag = types_.size();
      setText(description.name, name);
      TREL_CHECKED(trelDescribe, segment_, &description, nullptr);
      type.tag = description.nodeTag;
    }
    return type.tag;
  }

  std::shared_ptr<NodeState> makeNode(NodeState* parent, std::string_view name, std::string type) {
    if (name.size() > options_.longestName)
      throw Error(TREL_RC_NODE_ID_SIZE, "a name longer than Options::longestName");
    auto made = std::make_shared<NodeState>();
    std::array<char, 3 * TREL_MAX_ID_SIZE + 16> element;
    TREL_CHECKED(trelFormatPathElement, 1, bytes(name), name.size(), 0, element.data(),
                 element.size());
    if (parent)
      made->path = parent->path.empty() ? element.data() : parent->path + "/" + element.data();
    // A name that is no name for a type stands for itself alone.
    if (type.empty()) type = strlen(element.data()) < TREL_NAME_SIZE ? element.data() : "node";
    made->type = std::move(type);
    const uint64_t tag = tagOf(made->type), room = round8(options_.longestName);
    std::array<uint64_t, TREL_SLOTS> sizes{};
    sizes[0] = 16 + room;
    sizes[3] = 64 + room;
    sizes[7] = 16 + options_.chunks * (420 + round8(options_.nodeBytes));
    sizes[10] = 8 + options_.children * (56 + room);
    sizes[11] = 240;
    uint64_t size = 0, offset = 0;
    SNodeInfo_t up{};
    if (parent)
      TREL_CHECKED(trelAddStatusNodeInfo, &up, segment_, segment_, parent->node->nodeOffset,
                   parent->node->tag, 0, nullptr, nullptr);
    TREL_CHECKED(trelCreateNode, segment_, &made->node,
                 TREL_EXPORT_ID | TREL_EXPORT_PARENT | TREL_EXPORT_V | TREL_EXPORT_CHANGE_LIST,
                 sizes.data(), &size, &offset);
    try {
      fill(made.get(), parent, up, name, tag, offset, room);
    } catch (...) {
      trelDisclaimNode(&made->node, segment_->shmPoolHandle, TREL_STRUCTURE_VERSION);
      throw;
    }
    return made;
  }

  void fill(NodeState* made, NodeState* parent, SNodeInfo_t up, std::string_view name, uint64_t tag,
            uint64_t offset, uint64_t room) {
    NodeOptions_t options{};
    options.updateMode = TREL_UPDATE_BY_TIME;
    TREL_CHECKED(trelInitNode, &made->node, offset, name.size(), bytes(name), &up, nullptr, room,
                 nullptr, nullptr, &options);
    TREL_CHECKED(trelSetNodeTag, made->node, tag, 0);
    TREL_CHECKED(trelCreateVPropertyList, made->node, nullptr, nullptr, nullptr, options_.nodeBytes,
                 0, options_.chunks, 0, 0);
    TREL_CHECKED(trelCreateDependentNodeList, made->node, nullptr, nullptr, nullptr, room, 0, 0);
    TREL_CHECKED(trelActivateNode, &made->node);
    if (!parent) return;
    SNodeInfo_t down{};
    TREL_CHECKED(trelAddStatusNodeInfo, &down, segment_, segment_, offset, tag, name.size(),
                 nullptr, nullptr);
    TREL_CHECKED(trelAddDependentNode, parent->node, &down, bytes(name), name.size(), 0, 0);
  }

  // One more byte property for the values of a node, all of its bytes 0.
  void addChunk(NodeState* node) {
    const uint64_t tag = node->chunks.size() + 1;
    const std::vector<uint8_t> zero(options_.nodeBytes);
    TREL_CHECKED(trelAddVProperty, node->node, tag, zero.size(), zero.data(), 0);
    VProperty_t* record = nullptr;
    TREL_CHECKED(trelGetAddressForVProperty, node->node, tag, &record);
    node->chunks.push_back(reinterpret_cast<uint8_t*>(node->node) + record->valueOffset);
  }

  PLATIPCResID key_;
  Options options_;
  ShmSegInfo_t* segment_ = nullptr;
  std::shared_ptr<NodeState> root_;
  std::map<std::string, Type, std::less<>> types_;
  std::mutex mutex_;
  bool isKnownDead_ = false, ended_ = false;
};

}  // namespace detail

namespace detail {

// Where a value lies, and what keeps it there.
class Place {
 public:
  Place(std::shared_ptr<Tree> tree, std::shared_ptr<NodeState> node, const TrelDescription_t& found)
      : tree_(std::move(tree)),
        node_(node->node),
        bytes_(node->chunks[found.propertyTag - 1] + found.offset) {}

  // Runs work(bytes) inside the node's write section.
  template <class Work>
  void change(Work&& work) const {
    TREL_CHECKED(trelEnterCriticalSectionBeforeWrite, node_, &node_->nodeLatchArea);
    work(bytes_);
    TREL_CHECKED(trelExitCriticalSectionAfterWrite, node_, &node_->nodeLatchArea);
  }
  template <class Work>
  void look(Work&& work) const {
    TREL_CHECKED(trelEnterCriticalSectionBeforeRead, node_, &node_->nodeLatchArea);
    work(static_cast<const uint8_t*>(bytes_));
    TREL_CHECKED(trelExitCriticalSectionAfterRead, node_, &node_->nodeLatchArea);
  }

 private:
  std::shared_ptr<Tree> tree_;
  SNodeCB_t* node_;
  uint8_t* bytes_;
};

}  // namespace detail

// One value of a node: a number, a bool or a Time.
template <class T>
class Value {
  static_assert(detail::isScalar<T>,
                "a value is a bool, an i32, a 64-bit integer, a double or a Time");

 public:
  explicit Value(detail::Place place) : place_(std::move(place)) {}

  void set(T value) const {
    place_.change([&](uint8_t* bytes) { std::memcpy(bytes, &value, sizeof value); });
  }
  // Adds, and gives the sum.
  T add(T by) const {
    T sum{};
    place_.change([&](uint8_t* bytes) {
      std::memcpy(&sum, bytes, sizeof sum);
      sum = static_cast<T>(sum + by);
      std::memcpy(bytes, &sum, sizeof sum);
    });
    return sum;
  }
  T get() const {
    T value{};
    place_.look([&](const uint8_t* bytes) { std::memcpy(&value, bytes, sizeof value); });
    return value;
  }
  const Value& operator=(T value) const {
    set(value);
    return *this;
  }

 private:
  detail::Place place_;
};

using Counter = Value<uint64_t>;

// A text of limited size; what is longer is cut.
class Text {
 public:
  Text(detail::Place place, uint32_t size) : place_(std::move(place)), size_(size) {}

  void set(std::string_view text) const {
    const size_t length = text.size() < size_ ? text.size() : size_;
    place_.change([&](uint8_t* bytes) {
      std::memcpy(bytes, text.data(), length);
      std::memset(bytes + length, 0, size_ - length);
    });
  }
  std::string get() const {
    std::string text(size_, 0);
    place_.look([&](const uint8_t* bytes) { std::memcpy(&text[0], bytes, size_); });
    text.resize(strnlen(text.data(), size_));
    return text;
  }

 private:
  detail::Place place_;
  uint32_t size_;
};

// A struct of several values, which change together.
template <class Struct>
class Record {
  static_assert(std::is_trivially_copyable_v<Struct>, "a record lies in shared memory");

 public:
  explicit Record(detail::Place place) : place_(std::move(place)) {}

  // Runs change(Struct&) on the record; readers see all of its changes or none.
  template <class Change>
  void update(Change&& change) const {
    place_.change([&](uint8_t* bytes) {
      Struct copy;
      std::memcpy(&copy, bytes, sizeof copy);
      change(copy);
      std::memcpy(bytes, &copy, sizeof copy);
    });
  }
  void set(const Struct& record) const {
    place_.change([&](uint8_t* bytes) { std::memcpy(bytes, &record, sizeof record); });
  }
  Struct get() const {
    Struct copy;
    place_.look([&](const uint8_t* bytes) { std::memcpy(&copy, bytes, sizeof copy); });
    return copy;
  }

 private:
  detail::Place place_;
};

// A node of the caller's own tree.
class Node {
 public:
  Node(std::shared_ptr<detail::Tree> tree, std::shared_ptr<detail::NodeState> at)
      : tree_(std::move(tree)), state_(std::move(at)) {}

  // A node below this one, made if it is not there, with what is missing on the way. Nodes of one
  // type share the descriptions of their values; without a type the name is the type.
  Node node(std::string_view path, std::string_view type = {}) const {
    return {tree_, tree_->node(state_, path, type)};
  }
  const std::string& path() const { return state_->path; }
  // The node as the C interface knows it.
  SNodeCB_t* handle() const { return state_->node; }

  Counter counter(std::string_view name, std::string_view unit = "1",
                  std::string_view help = "") const {
    return value<uint64_t>(name, unit, help, Kind::counter);
  }
  template <class T = double>
  Value<T> gauge(std::string_view name, std::string_view unit = "1",
                 std::string_view help = "") const {
    return value<T>(name, unit, help, Kind::gauge);
  }
  template <class T>
  Value<T> value(std::string_view name, std::string_view unit, std::string_view help,
                 Kind kind) const {
    return Value<T>(place(name, detail::valueType<T>(), sizeof(T), unit, help, kind));
  }
  Text text(std::string_view name, uint32_t size = 64, std::string_view help = "",
            Kind kind = Kind::info) const {
    return {place(name, TREL_VALUE_TEXT, size, "", help, kind), size};
  }
  template <class Struct>
  Record<Struct> record(std::string_view name, std::initializer_list<Field<Struct>> fields,
                        std::string_view help = "") const {
    std::vector<TrelDescription_t> described;
    for (const Field<Struct>& field : fields) described.push_back(field.description);
    return Record<Struct>(
        place(name, TREL_VALUE_RECORD, sizeof(Struct), "", help, Kind::gauge, described));
  }
  // This node's heartbeat, for readers that watch it apart from the tree's.
  void beat() const { TREL_CHECKED(trelUpdateNodeStatus, state_->node); }

 private:
  detail::Place place(std::string_view name, uint32_t valueType, uint32_t size,
                      std::string_view unit, std::string_view help, Kind kind,
                      const std::vector<TrelDescription_t>& fields = {}) const {
    if (name.size() >= TREL_NAME_SIZE)
      throw Error(TREL_RC_DESCRIPTION_NAME, "a name of 64 bytes and more");
    TrelDescription_t wanted{};
    wanted.valueType = valueType;
    wanted.valueKind = static_cast<uint32_t>(kind);
    wanted.size = size;
    detail::setText(wanted.name, name);
    detail::setText(wanted.unit, unit);
    detail::setText(wanted.help, help);
    return {tree_, state_, tree_->place(state_.get(), wanted, fields)};
  }

  std::shared_ptr<detail::Tree> tree_;
  std::shared_ptr<detail::NodeState> state_;
};

// A tree of the caller's own. Its key is free again when the object goes, unless Options::keep says
// otherwise.
class Publisher {
 public:
  // Makes the tree. Under the key there may be one whose publisher took its leave or died, or a
  // segment half made: it is removed, and its readers come over. TREL_RC_SEGMENT_EXISTS if its
  // publisher lives.
  explicit Publisher(uint32_t key, std::string_view program, const Options& options = {})
      : tree_(std::make_shared<detail::Tree>(key, program, options)) {
    if (options.beatEvery.count() > 0)
      beats_ = std::thread([this, every = options.beatEvery] {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!isEnding_) {
          tree_->beat();
          ending_.wait_for(lock, every, [this] { return isEnding_; });
        }
      });
  }
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;
  ~Publisher() {
    if (beats_.joinable()) {
      {
        const std::lock_guard<std::mutex> lock(mutex_);
        isEnding_ = true;
      }
      ending_.notify_all();
      beats_.join();
    }
    tree_->end();
  }

  Node root() const { return {tree_, tree_->root()}; }
  Node node(std::string_view path, std::string_view type = {}) const {
    return root().node(path, type);
  }
  // Shows readers that the program is at work. That it lives they see without.
  void beat() const { tree_->beat(); }
  // The segment as the C interface knows it.
  ShmSegInfo_t* segment() const { return tree_->segment(); }

 private:
  std::shared_ptr<detail::Tree> tree_;
  std::thread beats_;
  std::mutex mutex_;
  std::condition_variable ending_;
  bool isEnding_ = false;
};

// ---- Reading ----

// A value as it was at one look.
class SeenValue {
 public:
  // "requests"; of a record's field "http.bytes"; of what nobody described "R_7", "V_7".
  const std::string& name() const { return name_; }
  std::string_view unit() const { return description_.unit; }
  std::string_view help() const { return description_.help; }
  Kind kind() const { return static_cast<Kind>(description_.valueKind); }
  TrelValueType type() const { return static_cast<TrelValueType>(description_.valueType); }
  bool isDescribed() const { return description_.name[0] != 0; }
  const std::vector<uint8_t>& bytes() const { return bytes_; }

  bool isNumber() const {
    return type() != TREL_VALUE_OPAQUE && type() != TREL_VALUE_TEXT && type() != TREL_VALUE_RECORD;
  }
  // Of a value that is no number: 0.
  double number() const {
    switch (type()) {
      case TREL_VALUE_I32:
        return as<int32_t>();
      case TREL_VALUE_I64:
        return static_cast<double>(as<int64_t>());
      case TREL_VALUE_F64:
        return as<double>();
      case TREL_VALUE_BOOL:
        return as<uint8_t>() != 0;
      case TREL_VALUE_TIME:
        return static_cast<double>(as<uint64_t>()) / 1e9;
      case TREL_VALUE_U64:
        return static_cast<double>(as<uint64_t>());
      default:
        return 0;
    }
  }
  // As people write it: numbers in decimal, a Time in UTC as ISO 8601, opaque bytes in hex.
  std::string text() const;
  // The value's bytes as a T, as far as they go.
  template <class T>
  T as() const {
    static_assert(std::is_trivially_copyable_v<T>, "");
    T value{};
    std::memcpy(&value, bytes_.data(), bytes_.size() < sizeof value ? bytes_.size() : sizeof value);
    return value;
  }

 private:
  friend class SeenNode;
  SeenValue(std::string name, const TrelDescription_t& description, std::vector<uint8_t> bytes)
      : name_(std::move(name)), description_(description), bytes_(std::move(bytes)) {}

  std::string name_;
  TrelDescription_t description_;
  std::vector<uint8_t> bytes_;
};

inline std::string SeenValue::text() const {
  char number[64];
  switch (type()) {
    case TREL_VALUE_TEXT:
      return {reinterpret_cast<const char*>(bytes_.data()),
              strnlen(reinterpret_cast<const char*>(bytes_.data()), bytes_.size())};
    case TREL_VALUE_BOOL:
      return as<uint8_t>() ? "true" : "false";
    case TREL_VALUE_I32:
      return std::to_string(as<int32_t>());
    case TREL_VALUE_I64:
      return std::to_string(as<int64_t>());
    case TREL_VALUE_U64:
      return std::to_string(as<uint64_t>());
    case TREL_VALUE_F64:
      snprintf(number, sizeof number, "%.9g", as<double>());
      return number;
    case TREL_VALUE_TIME: {
      const auto time = as<uint64_t>();
      const auto seconds = static_cast<time_t>(time / 1000000000u);
      tm parts{};
      gmtime_r(&seconds, &parts);
      const size_t length = strftime(number, sizeof number, "%Y-%m-%dT%H:%M:%S", &parts);
      snprintf(number + length, sizeof number - length, ".%03uZ",
               static_cast<unsigned>(time / 1000000u % 1000u));
      return number;
    }
    default: {
      std::string hex;
      for (const uint8_t byte : bytes_) {
        hex += "0123456789abcdef"[byte >> 4];
        hex += "0123456789abcdef"[byte & 15];
      }
      return hex;
    }
  }
}

namespace detail {

// A tree that a reader is attached to, with what is known of its types.
class SeenTree {
 public:
  explicit SeenTree(uint32_t key) : key_{PLAT_STRUCTURE_TAG, key} {
    start();
    TREL_CHECKED(trelConnectToATreeForReading, &segment_, &top_, &topInfo_, &key_, 0, nullptr,
                 nullptr);
  }
  SeenTree(const SeenTree&) = delete;
  SeenTree& operator=(const SeenTree&) = delete;
  ~SeenTree() {
    if (segment_) trelDetachStatusSegment(&segment_, 1);
  }

  ShmSegInfo_t* segment() const { return segment_; }
  SNodeCB_t* top() const { return top_; }

  struct Described {
    TrelDescription_t value;
    std::vector<TrelDescription_t> fields;
  };
  struct Type {
    std::string name;
    std::vector<Described> values;
  };
  // What is described of the nodes of a tag.
  std::shared_ptr<const Type> typeOf(uint64_t tag) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const uint64_t version = trelDescriptionVersion(segment_);
    if (version != version_) {
      types_.clear();
      load();
      version_ = version;
    }
    const auto found = types_.find(tag);
    return found == types_.end() ? std::make_shared<const Type>() : found->second;
  }

 private:
  void load() {
    uint32_t count = 0, total = 0;
    TREL_CHECKED(trelListDescriptions, segment_, 0, nullptr, 0, &count, &total);
    std::vector<TrelDescription_t> all(total);
    TREL_CHECKED(trelListDescriptions, segment_, 0, all.data(), total, &count, &total);
    all.resize(count);
    for (const TrelDescription_t& d : all) {
      auto& type = types_[d.nodeTag];
      if (!type) type = std::make_shared<Type>();
      if (d.exportBit == 0) {
        type->name = d.name;
        continue;
      }
      Described described{d, std::vector<TrelDescription_t>(d.fieldCount)};
      if (d.fieldCount != 0)
        TREL_CHECKED(trelGetDescribedFields, segment_, d.nodeTag, d.exportBit, d.propertyTag,
                     d.offset, described.fields.data(), d.fieldCount, &count);
      type->values.push_back(std::move(described));
    }
  }

  PLATIPCResID key_;
  ShmSegInfo_t* segment_ = nullptr;
  SNodeCB_t* top_ = nullptr;
  TopNodeInfo_t topInfo_{};
  std::mutex mutex_;
  uint64_t version_ = 0;
  std::map<uint64_t, std::shared_ptr<Type>> types_;
};

// Runs look() until the node has stood still meanwhile, or for some tries.
template <class Look>
void lookAtOnce(SNodeCB_t* node, Look&& look) {
  const int32_t* count = PLATVAtomicSigned32::word(&node->nodeLatchArea.writeCounter);
  const int32_t* flag = PLATVAtomicSigned32::word(&node->nodeLatchArea.writeFlag);
  for (int tries = 0; tries < 100; ++tries) {
    const int32_t before = __atomic_load_n(count, __ATOMIC_ACQUIRE);
    const bool isQuiet = __atomic_load_n(flag, __ATOMIC_ACQUIRE) == 0;
    look();
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    if (isQuiet && __atomic_load_n(flag, __ATOMIC_RELAXED) == 0 &&
        __atomic_load_n(count, __ATOMIC_RELAXED) == before)
      return;
    std::this_thread::yield();
  }
}

}  // namespace detail

// A node of a tree that a Reader looks at. It is good as long as the tree is not changed around it.
class SeenNode {
 public:
  const std::string& path() const { return path_; }  // "" for the top
  uint64_t tag() const { return node_->tag; }
  std::string type() const { return tree_->typeOf(tag())->name; }
  // TREL_CONDITION_...
  uint32_t condition() const { return node_->condition; }
  SNodeCB_t* handle() const { return node_; }

  // All values, as they stood at one instant: first what is described, then what else there is.
  std::vector<SeenValue> values() const {
    std::vector<SeenValue> all;
    detail::lookAtOnce(node_, [&] {
      all.clear();
      const auto type = tree_->typeOf(tag());
      std::map<std::pair<uint32_t, uint64_t>, std::vector<uint8_t>> read;
      for (const auto& described : type->values) addDescribed(described, &read, &all);
      addOthers(read, &all);
    });
    return all;
  }
  // The value of that name. TREL_RC_NOT_DESCRIBED if there is none.
  SeenValue value(std::string_view name) const {
    for (SeenValue& value : values())
      if (value.name() == name) return value;
    throw Error(TREL_RC_NOT_DESCRIBED, std::string(name));
  }

  // The nodes below, one level down.
  std::vector<SeenNode> children() const {
    uint64_t live = 0, capacity = 0, returned = 0, room = 0;
    if (trelReturnNumberOfDependentNodes(node_, &live, &capacity, 0) != 0 || live == 0) return {};
    TREL_CHECKED(trelGetMaxIDSizeForDependentNode, node_, TREL_EXPORT_DEPENDENT, &room);
    std::vector<SNodeInfo_t> records(live);
    std::vector<uint8_t> ids(live * room + 1);
    const uint32_t rc = trelReturnDependentNodes(node_, records.data(), ids.data(), &returned,
                                                 &live, records.size(), room, 0);
    if (rc == TREL_RC_DEPENDENTS_EMPTY) return {};
    detail::check(rc, "trelReturnDependentNodes");
    std::map<std::string, int> names;
    for (uint64_t i = 0; i < returned; ++i) ++names[nameOf(records[i], &ids[i * room], false)];
    std::vector<SeenNode> below;
    for (uint64_t i = 0; i < returned; ++i) {
      SNodeCB_t* child = nullptr;
      if (trelAttachToNode(&records[i], &child) != 0 && !child) continue;  // it has just gone
      std::string name = nameOf(records[i], &ids[i * room], false);
      if (names[name] > 1) name = nameOf(records[i], &ids[i * room], true);
      below.push_back({tree_, child, path_.empty() ? name : path_ + "/" + name});
    }
    return below;
  }
  // The node at the end of a path from here. TREL_RC_NOT_FOUND if there is none.
  SeenNode node(std::string_view path) const {
    const std::string whole(path);
    const char* rest = whole.c_str();
    std::array<uint8_t, TREL_MAX_ID_SIZE> id;
    SeenNode here = *this;
    for (;;) {
      uint64_t tag = 0, size = 0;
      const char* const element = rest;
      const uint32_t rc = trelParsePathElement(element, &tag, id.data(), &size, &rest);
      if (rc == TREL_RC_NOT_FOUND) return here;
      detail::check(rc, "trelParsePathElement");
      const auto* const name = reinterpret_cast<const char*>(id.data());
      here = here.child(tag, {name, static_cast<size_t>(size)}, whole);
    }
  }
  // Waits until something has written to this node since the call, or the time is over. Looks every
  // 5 ms at most; publishers wake nobody.
  bool waitForChange(std::chrono::milliseconds longest) const {
    const int32_t* count = PLATVAtomicSigned32::word(&node_->nodeLatchArea.writeCounter);
    const int32_t before = __atomic_load_n(count, __ATOMIC_ACQUIRE);
    const auto end = std::chrono::steady_clock::now() + longest;
    while (__atomic_load_n(count, __ATOMIC_ACQUIRE) == before) {
      if (std::chrono::steady_clock::now() >= end) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }

 private:
  friend class Reader;
  SeenNode(std::shared_ptr<detail::SeenTree> tree, SNodeCB_t* node, std::string path)
      : tree_(std::move(tree)), node_(node), path_(std::move(path)) {}

  static std::string nameOf(const SNodeInfo_t& record, const uint8_t* id, bool withTag) {
    std::array<char, 3 * TREL_MAX_ID_SIZE + 16> text;
    TREL_CHECKED(trelFormatPathElement, record.nodeTag, id, record.idSize, withTag, text.data(),
                 text.size());
    return text.data();
  }

  SeenNode child(uint64_t tag, std::string_view id, const std::string& path) const {
    for (SeenNode& below : children()) {
      uint8_t* name = nullptr;
      uint64_t size = 0;
      if (trelGetNodeID(below.node_, &name, &size, 0) != 0) continue;
      if (std::string_view(reinterpret_cast<const char*>(name), size) == id &&
          (tag == 0 || tag == below.tag()))
        return below;
    }
    throw Error(TREL_RC_NOT_FOUND, path);
  }

  // The bytes of a property, none if the node lacks it.
  std::vector<uint8_t> bytesOf(uint32_t exportBit, uint64_t tag) const {
    std::vector<uint8_t> bytes;
    if (exportBit == TREL_EXPORT_R || exportBit == TREL_EXPORT_BASE_R) {
      int32_t value = 0;
      const uint32_t rc = exportBit == TREL_EXPORT_R
                              ? trelGetValueForRProperty(node_, tag, &value, 0)
                              : trelGetValueForBaseRProperty(node_, tag, &value, 0);
      if (rc != 0) return bytes;
      bytes.resize(sizeof value);
      std::memcpy(bytes.data(), &value, sizeof value);
    } else if (exportBit == TREL_EXPORT_V || exportBit == TREL_EXPORT_BASE_V) {
      const bool isBase = exportBit == TREL_EXPORT_BASE_V;
      VProperty_t* record = nullptr;
      uint8_t* address = nullptr;
      uint64_t size = 0, most = 0, rc64 = 0, noId = 0;
      if (trelCheckInputParameters(exportBit, node_, tag, 0, nullptr, 1, &noId, &most) != 0)
        return bytes;
      if ((isBase ? trelGetAddressForBaseVProperty(node_, tag, &record)
                  : trelGetAddressForVProperty(node_, tag, &record)) != 0)
        return bytes;
      bytes.resize(most);
      size = most;
      const uint32_t rc = isBase ? trelGetValueAndRCForBaseVProperty(node_, record, &size, &address,
                                                                     bytes.data(), &rc64, 0)
                                 : trelGetValueAndRCForVProperty(node_, record, &size, &address,
                                                                 bytes.data(), &rc64, 0);
      bytes.resize(rc == 0 && size <= most ? size : 0);
    }
    return bytes;
  }

  using Read = std::map<std::pair<uint32_t, uint64_t>, std::vector<uint8_t>>;

  void addDescribed(const detail::SeenTree::Described& described, Read* read,
                    std::vector<SeenValue>* all) const {
    const TrelDescription_t& d = described.value;
    const auto key = std::make_pair(d.exportBit, d.propertyTag);
    auto found = read->find(key);
    if (found == read->end()) found = read->emplace(key, bytesOf(d.exportBit, d.propertyTag)).first;
    const std::vector<uint8_t>& bytes = found->second;
    const auto add = [&](const TrelDescription_t& part, uint64_t offset, std::string name) {
      const uint64_t size = part.size ? part.size : bytes.size() - offset;
      if (offset >= bytes.size() || size > bytes.size() - offset) return;
      const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(offset);
      all->push_back({std::move(name), part, {first, first + static_cast<std::ptrdiff_t>(size)}});
    };
    if (d.valueType != TREL_VALUE_RECORD) add(d, d.offset, d.name);
    for (const TrelDescription_t& field : described.fields)
      add(field, uint64_t{d.offset} + field.offset, std::string(d.name) + "." + field.name);
  }

  void addOthers(const Read& read, std::vector<SeenValue>* all) const {
    const auto add = [&](uint32_t bit, const char* kind, uint32_t type, uint64_t tag) {
      if (read.count({bit, tag}) != 0) return;
      std::vector<uint8_t> bytes = bytesOf(bit, tag);
      if (bytes.empty()) return;
      TrelDescription_t description{};
      description.valueType = type;
      all->push_back({kind + std::to_string(tag), description, std::move(bytes)});
    };
    uint64_t current = 0, most = 0;
    if (trelGetNumberOfRProperties(node_, &current, &most, 0) == 0 && current != 0) {
      std::vector<uint64_t> tags(current);
      if (trelReturnRProperties(node_, tags.data(), 0, current, 0) == 0)
        for (const uint64_t tag : tags) add(TREL_EXPORT_R, "R_", TREL_VALUE_I32, tag);
    }
    if (trelGetNumberOfVProperties(node_, &current, &most, 0) == 0 && current != 0) {
      std::vector<uint64_t> tags(current), sizes(current);
      if (trelReturnVProperties(node_, tags.data(), sizes.data(), 0, current, 0) == 0)
        for (const uint64_t tag : tags) add(TREL_EXPORT_V, "V_", TREL_VALUE_OPAQUE, tag);
    }
  }

  std::shared_ptr<detail::SeenTree> tree_;
  SNodeCB_t* node_;
  std::string path_;
};

// Looks at a tree, without a latch and without the right to write.
class Reader {
 public:
  // Throws with a code that tells no segment, no permission, no tree and foreign segments apart.
  explicit Reader(uint32_t key) : key_(key), tree_(std::make_shared<detail::SeenTree>(key)) {}

  SeenNode root() const { return {tree_, tree().top(), ""}; }
  SeenNode node(std::string_view path) const { return root().node(path); }
  // All nodes, each before those below it.
  std::vector<SeenNode> nodes() const {
    std::vector<SeenNode> all{root()};
    for (size_t i = 0; i < all.size(); ++i) {
      std::vector<SeenNode> below = all[i].children();
      all.insert(all.begin() + static_cast<std::ptrdiff_t>(i) + 1, below.begin(), below.end());
    }
    return all;
  }

  TrelPublisher_t publisher() const {
    TrelPublisher_t found{};
    TREL_CHECKED(trelGetPublisher, tree().segment(), &found);
    return found;
  }
  bool isAlive() const { return publisher().state == TREL_PUBLISHER_ALIVE; }
  // Connects anew, to the tree that is now found under the key. False if there is none; what else
  // is asked of the reader then throws, until a later call succeeds. Nodes that were seen before
  // must be gone: as long as one is there, the tree of before stays mapped, and this is false.
  bool reconnect() {
    tree_.reset();
    try {
      tree_ = std::make_shared<detail::SeenTree>(key_);
    } catch (const Error&) {
    }
    return tree_ != nullptr;
  }
  ShmSegInfo_t* segment() const { return tree().segment(); }

 private:
  detail::SeenTree& tree() const {
    if (!tree_) throw Error(TREL_RC_NO_TREE, "trel::Reader");
    return *tree_;
  }

  uint32_t key_;
  std::shared_ptr<detail::SeenTree> tree_;
};

#undef TREL_CHECKED

}  // namespace trel
#endif
