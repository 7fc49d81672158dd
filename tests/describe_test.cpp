// Descriptions of values against a map, the publisher's life, paths there and back.
#include <map>
#include <random>

#include "tree_fixture.h"

namespace {

struct Describe : Library {
  Segment segment{0x100000};

  static TrelDescription_t make(uint64_t nodeTag, uint32_t bit, uint64_t tag, uint32_t offset,
                                const std::string& name) {
    TrelDescription_t d{};
    d.nodeTag = nodeTag;
    d.exportBit = bit;
    d.propertyTag = tag;
    d.offset = offset;
    d.valueType = bit == 0               ? TREL_VALUE_OPAQUE
                  : bit == TREL_EXPORT_R ? TREL_VALUE_I32
                                         : TREL_VALUE_U64;
    snprintf(d.name, sizeof d.name, "%s", name.c_str());
    snprintf(d.unit, sizeof d.unit, "bytes");
    snprintf(d.help, sizeof d.help, "what %s means", name.c_str());
    return d;
  }
  uint32_t describe(const TrelDescription_t& d) { return trelDescribe(segment.info, &d, nullptr); }
};

// Random descriptions in a small space of keys and names, so that many clash, until the block has
// grown several times; then all of it as another process reads it.
TEST_F(Describe, AgreesWithAMap) {
  using DescribedKey = std::tuple<uint64_t, uint32_t, uint64_t, uint32_t>;
  std::map<DescribedKey, std::string> model;
  std::map<std::pair<uint64_t, std::string>, DescribedKey> names;
  const ShmPoolInfo_t before = segment.poolInfo();
  std::mt19937 random(7);
  for (int i = 0; i < 3000; ++i) {
    const uint32_t bit = random() % 20 == 0 ? 0 : random() % 2 ? TREL_EXPORT_R : TREL_EXPORT_V;
    const uint32_t offset = bit == TREL_EXPORT_V ? random() % 3 * 8 : 0;
    const DescribedKey key{random() % 20, bit, bit ? random() % 20 : 0, offset};
    const std::string name = "value_" + std::to_string(random() % 60);
    const std::pair<uint64_t, std::string> scope{bit ? std::get<0>(key) : ~uint64_t{0}, name};
    const bool isKeyFree = model.count(key) == 0, isNameFree = names.count(scope) == 0;
    const bool isSame = !isKeyFree && model[key] == name;
    ASSERT_EQ(isSame || (isKeyFree && isNameFree) ? 0u : TREL_RC_DESCRIPTION_CLASH,
              describe(make(std::get<0>(key), bit, std::get<2>(key), offset, name)));
    if (isKeyFree && isNameFree) {
      model[key] = name;
      names[scope] = key;
    }
  }
  const ShmPoolInfo_t behind = segment.poolInfo();
  EXPECT_EQ(before.allocNodeCount + 1, behind.allocNodeCount) << "a block that grew was not freed";

  EXPECT_EQ(
      0, inOtherProcess([&] {
        ShmSegInfo_t* info = nullptr;
        const uint32_t pool = static_cast<uint32_t>(segment.pool()->poolOffset);
        ASSERT_EQ(0u, trelAttachStatusSegment(&info, segment.key, 0, pool, 0, nullptr, nullptr));
        std::vector<TrelDescription_t> all(model.size());
        uint32_t count = 0, total = 0;
        ASSERT_EQ(0u, trelListDescriptions(info, 0, all.data(), static_cast<uint32_t>(all.size()),
                                           &count, &total));
        EXPECT_EQ(model.size(), count);
        EXPECT_EQ(model.size(), total);
        for (const auto& [key, name] : model) {
          const auto [nodeTag, bit, tag, offset] = key;
          TrelDescription_t d;
          ASSERT_EQ(0u, trelGetDescription(info, nodeTag, bit, tag, offset, &d));
          const TrelDescription_t wanted = make(nodeTag, bit, tag, offset, name);
          EXPECT_EQ(0, memcmp(&wanted, &d, sizeof d)) << name;
        }
        TrelDescription_t d;
        EXPECT_EQ(TREL_RC_NOT_DESCRIBED, trelGetDescription(info, 30, TREL_EXPORT_R, 0, 0, &d));
      }));
}

TEST_F(Describe, RecordsHaveFields) {
  TrelDescription_t fields[] = {make(0, 0, 0, 0, "hits"), make(0, 0, 0, 8, "state")};
  fields[0].valueType = TREL_VALUE_U64;
  fields[0].size = 8;
  fields[1].valueType = TREL_VALUE_TEXT;
  fields[1].size = 16;
  TrelDescription_t type = make(7, 0, 0, 0, "worker"),
                    record = make(7, TREL_EXPORT_V, 1, 0, "http");
  record.valueType = TREL_VALUE_RECORD;
  record.fieldCount = 2;
  record.size = 20;
  EXPECT_EQ(TREL_RC_DESCRIPTION_FIELD, trelDescribe(segment.info, &record, fields));
  record.size = 24;
  EXPECT_EQ(0u, trelDescribe(segment.info, &record, fields));
  EXPECT_EQ(0u, describe(type));
  fields[0].valueKind = TREL_KIND_COUNTER;
  EXPECT_EQ(TREL_RC_DESCRIPTION_CLASH, trelDescribe(segment.info, &record, fields));
  TrelDescription_t read[2], found;
  uint32_t count = 0;
  EXPECT_EQ(0u, trelGetDescribedFields(segment.info, 7, TREL_EXPORT_V, 1, 0, read, 2, &count));
  EXPECT_EQ(2u, count);
  EXPECT_STREQ("state", read[1].name);
  EXPECT_EQ(8u, read[1].offset);
  EXPECT_EQ(0u, trelFindDescription(segment.info, "worker", "http", &found));
  EXPECT_EQ(2u, found.fieldCount);
  EXPECT_EQ(TREL_RC_NOT_DESCRIBED, trelFindDescription(segment.info, "worker", "hits", &found));
  for (const char* bad : {"", "2x", "a-b", "a b"})
    EXPECT_EQ(TREL_RC_DESCRIPTION_NAME, describe(make(8, TREL_EXPORT_R, 1, 0, bad))) << bad;
}

// Each way of copying a tree takes its description and its publisher along.
TEST_F(Describe, GoesWithTheTree) {
  for (const uint32_t method :
       {TREL_TREE_COPY_DIRECT, TREL_TREE_COPY_VIA_PM, TREL_TREE_COPY_VIA_SEGMENT}) {
    Segment from;
    Key key;
    SNodeCB_t *top = makeNode(from, 0, "top", 2), *copy = nullptr;
    from.publish(top);
    for (uint32_t i = 0; i < 300; ++i) {
      const TrelDescription_t d = make(i % 7, TREL_EXPORT_R, i, 0, "v" + std::to_string(i));
      ASSERT_EQ(0u, trelDescribe(from.info, &d, nullptr));
    }
    ASSERT_EQ(0u, trelSetPublisher(from.info, "web", "1"));
    ShmSegInfo_t* to = nullptr;
    uint64_t size = 0;
    ASSERT_EQ(0u, trelCopyTreeIntoSingleShmSegment(top, &copy, &from.info, &to, 0x100000, key, 0, 0,
                                                   nullptr, nullptr, TREL_TREE_COPY_ALL, method,
                                                   TREL_COPY_LIMITS_KEEP, 0, &size));
    TrelDescription_t d;
    for (uint32_t i = 0; i < 300; ++i) {
      ASSERT_EQ(0u, trelGetDescription(to, i % 7, TREL_EXPORT_R, i, 0, &d));
      EXPECT_EQ("v" + std::to_string(i), d.name);
    }
    TrelPublisher_t publisher;
    EXPECT_EQ(0u, trelGetPublisher(to, &publisher));
    EXPECT_STREQ("web", publisher.program);
    EXPECT_EQ(0u, trelDeleteStatusSegment(&to, 4, 2, 2));
  }
}

TEST_F(Describe, APublisherLivesEndsAndDies) {
  const auto stateOf = [&] {
    TrelPublisher_t publisher;
    EXPECT_EQ(0u, trelGetPublisher(segment.info, &publisher));
    return publisher.state;
  };
  EXPECT_EQ(TREL_PUBLISHER_UNKNOWN, stateOf());
  EXPECT_EQ(TREL_RC_NOT_DESCRIBED, trelBeatTree(segment.info));
  EXPECT_EQ(0u, trelSetPublisher(segment.info, "web", "2.1"));
  EXPECT_EQ(TREL_PUBLISHER_ALIVE, stateOf());
  TrelPublisher_t before, behind;
  EXPECT_EQ(0u, trelGetPublisher(segment.info, &before));
  EXPECT_EQ(0u, trelBeatTree(segment.info));
  EXPECT_EQ(0u, trelEndPublisher(segment.info));
  EXPECT_EQ(TREL_PUBLISHER_ENDED, stateOf());
  EXPECT_EQ(0u, trelGetPublisher(segment.info, &behind));
  EXPECT_LT(before.lastBeat, behind.lastBeat);
  EXPECT_STREQ("web", behind.program);
  EXPECT_EQ(0, inOtherProcess([&] {
              ShmSegInfo_t* info = nullptr;
              const uint32_t pool = static_cast<uint32_t>(segment.pool()->poolOffset);
              ASSERT_EQ(0u,
                        trelAttachStatusSegment(&info, segment.key, 0, pool, 0, nullptr, nullptr));
              EXPECT_EQ(0u, trelSetPublisher(info, nullptr, nullptr));
            }));
  EXPECT_EQ(TREL_PUBLISHER_DEAD, stateOf());
}

// Any name comes back from its text, and the text is one element of a path.
TEST(Paths, GoThereAndBack) {
  std::mt19937 random(3);
  for (int i = 0; i < 2000; ++i) {
    std::string id(random() % 12, 0);
    for (char& c : id) c = random() % 2 ? "/#%:a b"[random() % 7] : static_cast<char>(random());
    const uint64_t tag = random() % 3 ? 1 + random() % TREL_MAX_TAG : 5;
    const uint32_t withTag = random() % 2;
    const auto* bytes = reinterpret_cast<const uint8_t*>(id.data());
    char text[64] = {};
    ASSERT_EQ(0u, trelFormatPathElement(tag, bytes, id.size(), withTag, text, sizeof text));
    EXPECT_EQ(nullptr, strchr(text, '/')) << text;
    uint64_t foundTag = 0, size = 0;
    std::array<uint8_t, TREL_MAX_ID_SIZE> found;
    const char* rest = nullptr;
    const std::string path = "/" + std::string(text) + "//next";
    ASSERT_EQ(0u, trelParsePathElement(path.c_str(), &foundTag, found.data(), &size, &rest))
        << path;
    EXPECT_STREQ("next", rest);
    EXPECT_EQ(id, std::string(found.begin(), found.begin() + static_cast<long>(size)));
    EXPECT_EQ(withTag || id.empty() ? tag : 0, foundTag);
    EXPECT_EQ(TREL_RC_PATH_SIZE,
              trelFormatPathElement(tag, bytes, id.size(), withTag, text, strlen(text)));
  }
  for (const char* bad : {"#", "#0", "#x", "#5x", "#5:", "%", "%g0", "a\tb", "#99999999"}) {
    uint64_t tag = 0, size = 0;
    std::array<uint8_t, TREL_MAX_ID_SIZE> id;
    const char* rest = nullptr;
    EXPECT_EQ(TREL_RC_PATH_SYNTAX, trelParsePathElement(bad, &tag, id.data(), &size, &rest)) << bad;
  }
}

}  // namespace
