// Tree copies whose n-th call of the platform fails, for every n: the code says truly what has
// become of the source, of the copy and of the temporary segment, and a whole tree is always left.
#include "copy_fixture.h"
#include "faulty.h"

namespace {

using namespace copies;

// A tree in process memory, taken to a segment in order to be looked at, and freed.
Text pictureOfRescued(SNodeCB_t* top, Segment& segment) {
  const uint64_t none = 0, maxIdSize = kIdRoom;
  SNodeCB_t* rescued = nullptr;
  SNodeInfo_t info = {};
  uint64_t idSizeOut, maxIdSizeOut, bytes = 0;
  uint32_t marker = 0;
  EXPECT_EQ(0u, trelCopyTreeRecursively(top, &rescued, nullptr, segment.info, segment.info, 0, 1,
                                        TREL_COPY_PM_TO_SHM, TREL_COPY_LIMITS_KEEP, 0, 0, 0, 0,
                                        nullptr, &none, &none, &maxIdSize, nullptr, &info, nullptr,
                                        &idSizeOut, &maxIdSizeOut, &marker, &bytes, 1, 0));
  std::vector<SNodeCB_t*> nodes{top};
  for (size_t i = 0; i < nodes.size(); ++i) {
    SNodeInfo_t record = {};
    uint8_t id[kIdRoom];
    uint64_t returned = 0, live = 0;
    trelReturnDependentNodes(nodes[i], &record, id, &returned, &live, 1, kIdRoom, 0);
    nodes.resize(nodes.size() + returned);
    if (returned) trelGetControlBlockPtrFromSNodeInfoInPM(&record, &nodes.back());
  }
  for (void* node : nodes) _platMemFree(&node, 0, 0, __FILE__, __LINE__);
  trelDeleteHDMPMLList();
  return TreePicture(rescued, true).text;
}

// Conditions aside, which a failed abandoning may have changed.
Text withoutConditions(Text text) {
  for (size_t at = 0; (at = text.find("condition ", at)) != Text::npos; at += 10)
    text[at + 10] = '*';
  return text;
}

struct Attempt {
  const Life life;
  Segment source{0x20000};
  Key key;
  SNodeCB_t* const top = smallTree(source);
  const Text before = TreePicture(top).text;
  TreeCopy copy{top, &source.info, key};

  explicit Attempt(uint32_t method) {
    source.publish(top);
    copy.method = method;
    copy.size = 0x20000;
  }
  ~Attempt() { source.info = copy.dst = nullptr; }  // cleanup and the keys see to the rest

  bool sourceIsWhole() {
    return source.info && source.key.exists() && TreePicture(top).text == before;
  }
  // Where a reader finds the tree that the method left behind.
  void expectTreeUnder(const Key& where) {
    Tree tree;
    ASSERT_EQ(0u, tree.connect(where));
    EXPECT_EQ(before, TreePicture(tree.node, true).text);
  }
};

// The outcome in a few words, after it has been checked.
Text judge(Attempt& a, uint32_t rc) {
  const uint32_t method = a.copy.method;
  const bool viaSegment = method == TREL_TREE_COPY_VIA_SEGMENT;
  const Key& home = viaSegment ? a.source.key : a.key;
  EXPECT_EQ(0u, trelSegAttachLatch);
  if (rc == 0 || rc == TREL_RC_TREE_COPY_CLEANUP) {
    EXPECT_NE(nullptr, a.copy.dst);
    EXPECT_EQ(nullptr, a.source.info);
    EXPECT_EQ(a.before, TreePicture(a.copy.newTop, true).text);
    a.expectTreeUnder(home);
    const bool cleaned = viaSegment ? !a.key.exists() : !a.source.key.exists();
    EXPECT_TRUE(cleaned || rc);
    return rc == 0 ? "done" : cleaned ? "stands" : "stands beside the old";
  }
  EXPECT_EQ(nullptr, a.copy.dst);
  if (rc == TREL_RC_TREE_NOT_COPIED) {
    EXPECT_TRUE(a.sourceIsWhole());
    EXPECT_FALSE(a.key.exists());
    EXPECT_EQ(nullptr, a.copy.newTop);
    a.copy.newTop = nullptr;
    EXPECT_EQ(0u, a.copy.run()) << "again";
    return "not copied";
  }
  if (a.copy.newTop) {
    EXPECT_EQ(TREL_TREE_COPY_VIA_PM, method);
    EXPECT_EQ(nullptr, a.source.info);
    EXPECT_FALSE(a.key.exists());
    Segment segment;
    EXPECT_EQ(a.before, pictureOfRescued(a.copy.newTop, segment));
    return "in process memory";
  }
  if (viaSegment && a.key.exists()) {
    a.expectTreeUnder(a.key);
    return "under the temporary key";
  }
  EXPECT_FALSE(a.key.exists());
  EXPECT_TRUE(a.source.info && a.source.key.exists());
  EXPECT_EQ(withoutConditions(a.before), withoutConditions(TreePicture(a.top).text));
  return a.sourceIsWhole() ? "source whole" : "source abandoned";
}

TEST(TreeCopyFaults, SayWhatHasBecomeOfTheTree) {
  const std::set<Text> ways[] = {
      {"done", "not copied", "source whole", "stands", "stands beside the old"},
      {"done", "not copied", "source whole", "source abandoned", "in process memory"},
      {"done", "not copied", "source whole", "source abandoned", "stands", "stands beside the old",
       "under the temporary key"}};
  for (const uint32_t method :
       {TREL_TREE_COPY_DIRECT, TREL_TREE_COPY_VIA_PM, TREL_TREE_COPY_VIA_SEGMENT}) {
    std::set<Text> outcomes;
    // Kind by kind: what a process keeps for later changes the number of allocations alone.
    for (const uint32_t kinds : std::initializer_list<uint32_t>{kFaultyAllocation, kFaultySegment,
                                                                kFaultyGet | kFaultyRelease}) {
      bool failed = true;
      for (uint32_t n = 1; failed && !testing::Test::HasFailure(); ++n) {
        SCOPED_TRACE("method " + std::to_string(method) + " call " + std::to_string(n) +
                     " of kind " + std::to_string(kinds));
        alarm(60);
        Attempt attempt(method);
        attempt.copy.dst = attempt.source.info;  // is always written
        faultyArm(kinds, n);
        const uint32_t rc = attempt.copy.run();
        failed = faultyDisarm();
        outcomes.insert(judge(attempt, rc));
      }
    }
    EXPECT_EQ(ways[method - 1], outcomes);
  }
}

}  // namespace
