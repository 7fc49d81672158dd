// Library state, status segments, attach and detach, the road from records to nodes.
#include <grp.h>

#include <thread>
#include <vector>

#include "segment_fixture.h"

namespace {

constexpr uint32_t kVersion = TREL_STRUCTURE_VERSION;

uint32_t create(ShmSegInfo_t** info, const PLATIPCResID* key, uint32_t size = 0x20000,
                uint32_t poolSize = 0) {
  return trelGetProtectedStatusSegment(info, size, key, 0, poolSize, nullptr, nullptr);
}
uint32_t drop(ShmSegInfo_t** info) { return trelDeleteStatusSegment(info, 4, 2, 2); }
uint32_t detach(ShmSegInfo_t** info) { return trelDetachStatusSegment(info, 1); }

TEST(LibraryState, LastCleanupForgetsWhatIsAttached) {
  Key key;
  ShmSegInfo_t* info = nullptr;
  EXPECT_EQ(TREL_RC_NOT_INITIALISED, TRELCleanup(1));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0u, TRELOneTimeOnlyInitialization(kVersion, kVersion));
  ASSERT_EQ(0u, create(&info, key));
  void* const base = info->shmDomainHandle->base;
  EXPECT_EQ(0u, TRELCleanup(1));
  EXPECT_EQ(2u, trelAPIInitRefCount);
  EXPECT_NE(nullptr, *pSegAttachList);
  EXPECT_EQ(0u, TRELCleanup(2));
  EXPECT_EQ(TREL_RC_NOT_INITIALISED, TRELCleanup(1));
  EXPECT_EQ(0, shmdt(base)) << "it was still mapped";
  ASSERT_EQ(0u, TRELOneTimeOnlyInitialization(kVersion, kVersion));
  EXPECT_EQ(nullptr, *pSegAttachList);
  EXPECT_EQ(0u, TRELCleanup(1));
}

// A published segment.
struct Attach : Library {
  Segment segment;
  SNodeCB_t* const top = segment.makeNode(5);
  HeapHeader_t* const heap = segment.heap();
  Tree tree;

  Attach() { segment.publish(top); }
};

TEST_F(Attach, ThreadsShareOneAttachment) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int round = 0; round < 200; ++round) {
        Tree own;
        EXPECT_EQ(0u, own.connect(segment.key));
        EXPECT_EQ(segment.info, own.info);
        EXPECT_EQ(0u, detach(&own.info));
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(1u, segment.attachCount());
}

TEST_F(Attach, CountsPerProcess) {
  for (uint32_t count = 2; count <= 5; ++count) {
    EXPECT_EQ(0u, tree.connect(segment.key));
    EXPECT_EQ(top, tree.node);
    EXPECT_EQ(count, segment.attachCount());
  }
  EXPECT_EQ(1u, heap->connectionCount);
  SNodeCB_t* abandoned = top;
  EXPECT_EQ(0u, trelAbandonNode(&abandoned));
  Tree refused;
  EXPECT_EQ(TREL_RC_ABANDONED, refused.attach(segment.key));
  EXPECT_EQ(TREL_RC_CONNECT, refused.connect(segment.key));
  EXPECT_EQ(5u, segment.attachCount());
  EXPECT_EQ(0u, detach(&tree.info));
  EXPECT_EQ(0u, trelDeleteStatusSegment(&tree.info, 4, 2, 1)) << "only counts down";
  EXPECT_EQ(3u, segment.attachCount());
  for (const auto& [operation, count] :
       Rows<uint32_t, uint32_t>{{1, 4}, {2, 3}, {2, 2}, {2, 1}, {2, 1}, {1, 2}}) {
    EXPECT_EQ(0u, trelUpdateShmAttachRefCount(segment.info, operation));
    EXPECT_EQ(count, segment.attachCount());
  }
  EXPECT_EQ(0u, trelDetachStatusSegment(&segment.info, 2));
  EXPECT_EQ(nullptr, *pSegAttachList);
  EXPECT_TRUE(segment.key.exists());
}

TEST_F(Library, MemoryOfTheCallerUsesTheSlot) {
  constexpr uint32_t kSize = 0x20000;
  const Shared<std::array<uint8_t, kSize>> memory;
  const auto address = reinterpret_cast<uintptr_t>(memory->data());
  ShmDomainParam_t param{};
  param.accessMode = 3;
  Tree tree;
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, tree.attach(nullptr, &param, address));
  EXPECT_EQ(TREL_GA_SLOT_EMPTY, trelGASegInfo.state);
  Segment segment(kSize, &param, address);
  ShmSegInfo_t* info = segment.info;
  ASSERT_EQ(&trelGASegInfo.segInfo, info);
  EXPECT_EQ(TREL_RC_SEGMENT_EXISTS,
            trelGetProtectedStatusSegment(&info, kSize, nullptr, address, 0, &param, nullptr));
  SNodeCB_t* node = segment.makeNode(9);
  segment.publish(node);
  EXPECT_EQ(0, inOtherProcess([&] {  // the memory is this process's too, at the same address
              EXPECT_EQ(0u, tree.attach(nullptr, &param, address));
              EXPECT_EQ(2u, segment.heap()->connectionCount);
              const SNodeInfo_t record = segment.recordOf(node, segment);
              SNodeCB_t* found = nullptr;
              EXPECT_EQ(0u, trelAttachToNode(&record, &found));
              EXPECT_EQ(node, found);
              EXPECT_EQ(0u, trelDetachFromNode(&record, 1));
              EXPECT_EQ(TREL_RC_SLOT_EMPTY, trelAttachToNode(&record, &found));
            }));
  EXPECT_EQ(0u, tree.attach(nullptr, &param, 8)) << "the address of a further attach is ignored";
  EXPECT_EQ(2u, trelGARefCount);
  EXPECT_EQ(0u, detach(&tree.info));
  EXPECT_EQ(0u, trelDeleteStatusSegment(&segment.info, 4, 2, 1));
  EXPECT_EQ(TREL_GA_SLOT_EMPTY, trelGASegInfo.state);
}

TEST_F(Attach, RefusesWhatIsNoStatusSegment) {
  Key key;
  EXPECT_EQ(TREL_RC_SEGMENT_ABSENT, tree.connect(key));
  for (size_t size : {size_t{100}, size_t{4096}, size_t{65536}}) {
    const int id = shmget(static_cast<key_t>(key.id().key), size, IPC_CREAT | IPC_EXCL | 0600);
    EXPECT_EQ(TREL_RC_SEGMENT_HALF_MADE, tree.connect(key)) << size;
    *static_cast<char*>(shmat(id, nullptr, 0)) = 'x';
    EXPECT_EQ(TREL_RC_SEGMENT_FOREIGN, tree.connect(key)) << size;
    shmid_ds state;
    EXPECT_EQ(0, shmctl(id, IPC_STAT, &state));
    EXPECT_EQ(1u, state.shm_nattch) << "the test's own";
    EXPECT_EQ(TREL_RC_SEGMENT_FOREIGN, trelRemoveStatusSegment(key, 2));
    key.remove();
  }
  EXPECT_EQ(nullptr, (*pSegAttachList)->next);
}

TEST_F(Attach, AccessIsGrantedByTheOwner) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const auto attachAsNobody = [&] {
    EXPECT_EQ(0, setgid(65534) | setuid(65534));
    return Tree().attach(segment.key);
  };
  EXPECT_EQ(0, inOtherProcess([&] { EXPECT_EQ(TREL_RC_SEGMENT_FORBIDDEN, attachAsNobody()); }));
  const SegSecurity_t forAll = {65534, 65534, 0600};
  EXPECT_EQ(0u, trelAuthorizeStatusSegment(segment.info, &forAll));
  EXPECT_EQ(0, inOtherProcess([&] { EXPECT_EQ(0u, attachAsNobody()); }));
}

// Each word of a header in turn holds nonsense: a reader gets a code, or what it gets is sound.
TEST_F(Attach, DamagedHeadersDoNoHarm) {
  auto* words = reinterpret_cast<TrelU64*>(heap + 1);
  int refused = 0;
  const auto probe = [&] {
    if (tree.attach(segment.key) != 0) return ++refused;
    EXPECT_EQ(5u, tree.node->tag);
    EXPECT_EQ(0u, trelDetachFromTopNode(&tree.info, 1));
    return 0;
  };
  for (TrelU64* field : {&heap->heapSize, &heap->userAreaSize, &heap->topPool, &words[0],
                         &heap->heapOffset, &heap->heapState, &top->nodeSize}) {
    const uint64_t sound = *field;
    for (uint64_t nonsense : {uint64_t{0}, uint64_t{8}, uint64_t{0xffff8}, uint64_t{0x100000},
                              uint64_t{0x7fffffff0}, ~uint64_t{7}, ~uint64_t{0}}) {
      *field = nonsense;
      probe();
      EXPECT_EQ(0, inOtherProcess(probe));
    }
    *field = sound;
  }
  EXPECT_GT(refused, 25);
  EXPECT_EQ(0, probe());
  EXPECT_EQ(1u, heap->connectionCount);
  words[0] = 0x100000 - sizeof *top + 8;
  EXPECT_EQ(TREL_RC_TOP_NODE_BOUNDS, tree.attach(segment.key));
  words[0] = top->nodeOffset;
  words[1] = 6;
  EXPECT_EQ(TREL_RC_TOP_TAG_DIFFERS, tree.attach(segment.key));
  EXPECT_EQ(1u, segment.attachCount());
}

TEST_F(Library, TopNodeFieldsMoveWithTheUserArea) {
  ShmDomainParam_t param{};
  param.userAreaSize = 12;
  Segment segment(0x100000, &param);
  SNodeCB_t* top = segment.makeNode(5);
  segment.publish(top);
  segment.recordOf(top, segment);
  const auto* header = reinterpret_cast<const uint8_t*>(segment.heap());
  const auto word = [&](int at) { return *reinterpret_cast<const TrelU64*>(header + at); };
  EXPECT_EQ(top->nodeOffset, word(260));
  EXPECT_EQ(5u, word(268));
  EXPECT_NE(0u, word(280));
  EXPECT_EQ(0u, word(288));
  for (const auto& [tag, offset, pool, code] : Rows<uint64_t, uint64_t, uint32_t, uint32_t>{
           {0, 0x100000, 0x100000, 0},
           {0, 0x100001, 0x100001, TREL_RC_TOP_NODE_BOUNDS},
           {0, 0x100000, 0x100001, TREL_RC_TOP_POOL_BOUNDS},
           {TREL_MAX_TAG + 1, ~uint64_t{0}, 0, TREL_RC_TAG_RANGE}})
    EXPECT_EQ(code, trelPutTopNodeInfoIntoDomainHeader(segment.domain(), tag, offset, pool));
  EXPECT_EQ(0x100000u, word(260)) << "the refused ones have written nothing";
}

TEST_F(Library, SegmentDeletedByAnotherProcess) {
  for (const bool byDetach : {true, false}) {
    Segment segment;
    segment.publish(segment.makeNode(5));
    EXPECT_EQ(0, inOtherProcess([&] {
                Tree tree;
                EXPECT_EQ(0u, tree.attach(segment.key));
                EXPECT_EQ(TREL_RC_POOL_CONNECTED, trelDeleteStatusSegment(&tree.info, 3, 1, 2));
                EXPECT_EQ(0u, drop(&tree.info));
              }));
    EXPECT_FALSE(segment.key.exists());
    ShmSegInfo_t* successor = nullptr;
    EXPECT_EQ(TREL_RC_SEGMENT_EXISTS, create(&successor, segment.key));
    EXPECT_FALSE(segment.key.exists());
    EXPECT_NE(0u, detach(&segment.info));
    ASSERT_NE(nullptr, segment.info);
    EXPECT_EQ(0u, byDetach ? trelDetachStatusSegment(&segment.info, 2) : drop(&segment.info));
    EXPECT_EQ(nullptr, *pSegAttachList);
  }
}

// A reader that finds no tree, and has to leave a segment that was deleted while it looked.
TEST_F(Library, RefusedInASegmentThatGoes) {
  Segment segment;
  SNodeCB_t* node = segment.makeNode(5);
  segment.publish(node);
  EXPECT_EQ(0u, trelAbandonNode(&node));
  Child holder(
      [&] {
        EXPECT_EQ(0u, trelEnterCriticalSectionBeforeWrite(node, &node->nodeLatchArea));
        pause();
      },
      false);
  int32_t writing = 0;
  while (writing == 0) PLATVAtomicSigned32::add(&node->nodeLatchArea.writeFlag, 0, &writing);
  Child reader([&] {
    Tree tree;
    EXPECT_EQ(TREL_RC_ABANDONED, tree.attach(segment.key));
    EXPECT_EQ(nullptr, *pSegAttachList);
  });
  while (segment.heap()->connectionCount < 2) usleep(1000);
  EXPECT_EQ(0u, drop(&segment.info));
  holder.end();
  EXPECT_EQ(0, reader.wait());
}

struct TwoSegments : Library {
  Segment home, away;
  SNodeCB_t* near = home.makeNode(1);
  SNodeCB_t* far = away.makeNode(2);
  SNodeInfo_t nearRecord = home.recordOf(near, home);
  SNodeInfo_t farRecord = home.recordOf(far, away);
  SNodeCB_t* node = nullptr;
  ShmSegInfo_t* info = nullptr;
  uint32_t other = 7;

  TwoSegments() {
    home.publish(near);
    away.publish(far);
  }
  uint32_t attach(const SNodeInfo_t& record, ShmSegInfo_t* current, uint32_t options) {
    return trelAttachToNodeAndGetSegInfo(&record, &node, &info, current, &other, options);
  }
};

TEST_F(TwoSegments, AttachToNodeAttachesOnce) {
  EXPECT_EQ(0u, trelAttachToNode(&nearRecord, &node));
  EXPECT_EQ(near, node);
  EXPECT_EQ(1u, home.attachCount());
  EXPECT_EQ(0u, attach(farRecord, home.info, 64));
  EXPECT_EQ(far, node);
  EXPECT_EQ(away.info, info);
  EXPECT_EQ(0u, trelDetachStatusSegment(&away.info, 2));
  EXPECT_EQ(TREL_RC_NOT_ATTACHED, trelGetControlBlockPtrFromSNodeInfo(&farRecord, &node));
  EXPECT_EQ(far, node) << "left alone";
  EXPECT_EQ(0u, attach(farRecord, home.info, 64));
  EXPECT_EQ(nullptr, node);
  EXPECT_EQ(1u, other);
  EXPECT_EQ(nullptr, (*pSegAttachList)->next) << "nothing was attached";
  EXPECT_EQ(0u, trelDetachFromNode(&farRecord, 1)) << "not attached is a success";
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(0u, attach(farRecord, nullptr, 0));
    ASSERT_NE(nullptr, node);
    EXPECT_EQ(2u, node->tag);
  }
  uint32_t count = 0;
  EXPECT_EQ(0u, trelGetShmAttachRefCount(info, &count));
  EXPECT_EQ(1u, count);
  EXPECT_EQ(0u, trelDetachFromNode(&farRecord, 1));
  EXPECT_EQ(TREL_RC_NOT_ATTACHED, trelGetControlBlockPtrFromSNodeInfo(&farRecord, &node));
}

TEST_F(TwoSegments, RefusedNodesStayOnlyWhereHeld) {
  far->condition = near->condition = TREL_CONDITION_DISASSOCIATED;
  EXPECT_EQ(TREL_RC_DISASSOCIATED, trelAttachToNode(&nearRecord, &node));
  EXPECT_EQ(near, node);
  EXPECT_EQ(1u, home.attachCount());
  near->condition = TREL_CONDITION_ACTIVE;
  EXPECT_EQ(0, inOtherProcess([&] {
              Tree tree;
              EXPECT_EQ(0u, tree.attach(home.key));
              SNodeInfo_t record = farRecord;
              record.segBase = reinterpret_cast<uintptr_t>(tree.info->shmDomainHandle->base);
              EXPECT_EQ(TREL_RC_DISASSOCIATED, attach(record, nullptr, 0));
              EXPECT_EQ(nullptr, node);
              EXPECT_EQ(nullptr, info);
              node = tree.node;
              EXPECT_EQ(TREL_RC_DISASSOCIATED, trelAttachToNode(&record, &node));
              EXPECT_EQ(nullptr, node);
              EXPECT_EQ(nullptr, (*pSegAttachList)->next);
            }));
  EXPECT_EQ(1u, away.heap()->connectionCount);
}

// Nothing of `away` is held at the beginning and the end.
struct Unheld : TwoSegments {
  SNodeCB_t* idle = away.makeNode(3);
  const SNodeInfo_t idleRecord = home.recordOf(idle, away);
  std::vector<std::thread> threads;

  Unheld() {
    EXPECT_EQ(0u, trelDisassociateNode(&idle));
    EXPECT_EQ(0u, trelDetachStatusSegment(&away.info, 2));
  }
  void TearDown() override {
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(nullptr, (*pSegAttachList)->next);
    Tree tree;
    EXPECT_EQ(0u, tree.attach(away.key));
    shmid_ds state{};
    EXPECT_EQ(0u, tree.info->shmDomainHandle->ipcMemory->getInfo(&state));
    EXPECT_EQ(1u, state.shm_nattch);
    EXPECT_EQ(0u, drop(&tree.info));
  }
  template <class Work>
  void run(int rounds, Work&& work) {
    threads.emplace_back([=] {
      for (int round = 0; round < rounds; ++round) work();
    });
  }
};

TEST_F(Unheld, ThreadsAttachAndLook) {
  for (int i = 0; i < 2; ++i) {
    run(500, [this] {
      Tree own;
      EXPECT_EQ(0u, own.attach(away.key));
      EXPECT_EQ(2u, own.node->tag);
      EXPECT_EQ(0u, detach(&own.info));
    });
    run(500, [this] {
      SNodeCB_t* found = nullptr;
      EXPECT_EQ(TREL_RC_DISASSOCIATED, trelAttachToNode(&idleRecord, &found));
    });
  }
}

TEST_F(Unheld, ThreadsLookAtWhatOthersDetach) {
  for (int i = 0; i < 2; ++i)
    run(500, [this] {
      SNodeCB_t* found = nullptr;
      EXPECT_EQ(0u, trelAttachToNode(&farRecord, &found));
      EXPECT_EQ(TREL_RC_DISASSOCIATED, trelAttachToNode(&idleRecord, &found));
    });
  run(2000, [this] { EXPECT_EQ(0u, trelDetachFromNode(&farRecord, 2)); });
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  EXPECT_EQ(0u, trelDetachFromNode(&farRecord, 2));
}

// Deleted and made anew under its key, while this process holds the old one.
TEST_F(Unheld, DeletedSegmentsAreNoticed) {
  const auto makeAnew = [&] {
    Tree old;
    EXPECT_EQ(0u, old.attach(away.key));
    EXPECT_EQ(0u, drop(&old.info));
    ShmSegInfo_t* made = nullptr;
    EXPECT_EQ(0u, create(&made, away.key, 0x100000));
    std::swap(away.info, made);
    far = away.makeNode(2);
    far->optionWord1 = 77;
    away.publish(far);
    EXPECT_EQ(0u, trelDetachStatusSegment(&away.info, 2));
  };
  Tree held;
  EXPECT_EQ(0u, trelAttachToNode(&farRecord, &node));  // by a walk
  EXPECT_EQ(0, inOtherProcess(makeAnew));
  EXPECT_EQ(0u, trelAttachToNode(&farRecord, &node));
  EXPECT_EQ(77u, node->optionWord1) << "of the new one";
  EXPECT_EQ(0u, held.attach(away.key));
  EXPECT_EQ(0, inOtherProcess(makeAnew));
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, trelAttachToNode(&farRecord, &node));
  EXPECT_EQ(TREL_RC_DOMAIN_STATE, Tree().attach(away.key));
  EXPECT_EQ(0u, trelDetachStatusSegment(&held.info, 2));
}

TEST_F(Attach, CountsDoNotWrap) {
  (*pSegAttachList)->refCount = UINT32_MAX;
  EXPECT_EQ(TREL_RC_ATTACH_COUNT_FULL, tree.attach(segment.key));
  EXPECT_EQ(TREL_RC_ATTACH_COUNT_FULL, trelUpdateShmAttachRefCount(segment.info, 1));
  (*pSegAttachList)->refCount = 1;
  trelAPIInitRefCount = UINT32_MAX;
  EXPECT_EQ(TREL_RC_ATTACH_COUNT_FULL, TRELOneTimeOnlyInitialization(kVersion, kVersion));
  trelAPIInitRefCount = 1;
}

// A monitor of another user, who may only read.
TEST_F(TwoSegments, LookingNeedsNoRightToWrite) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  constexpr uint32_t kGroup = 4711;
  const auto connect = [&](Tree* tree, const PLATIPCResID* key) {
    return trelConnectToATreeForReading(&tree->info, &tree->node, &tree->top, key, 0, nullptr,
                                        nullptr);
  };
  const auto look = [&](uint32_t group) {
    EXPECT_EQ(0, setgroups(0, nullptr) | setgid(group) | setuid(65534));
    Tree tree;
    EXPECT_NE(0u, tree.attach(home.key));
    ASSERT_EQ(0u, connect(&tree, home.key));
    SNodeInfo_t record = farRecord;
    record.segBase = reinterpret_cast<uintptr_t>(tree.info->shmDomainHandle->base);
    ASSERT_EQ(0u, trelAttachToNode(&record, &node));
    uint32_t word = 0;
    uint64_t size = 0;
    uint8_t *id = nullptr, byte = 0;
    for (SNodeCB_t* const found : {tree.node, node}) {
      EXPECT_EQ(0u, trelGetNodeCondition(found, &word));
      EXPECT_EQ(uint32_t{TREL_CONDITION_ACTIVE}, word);
      EXPECT_EQ(0u, trelGetNodeID(found, &id, &size, 0));
      EXPECT_EQ("node", std::string(reinterpret_cast<char*>(id), size));
      EXPECT_EQ(0u, trelGetNodeReconfigCounter(found, &size));
      SNodeCB_t* changed = found;
      for (const uint32_t code :
           {trelSetNodeTag(found, 9, 0), trelSetNodeTag(found, 9, 1), trelAbandonNode(&changed),
            trelUpdateNodeStatus(found), trelSetConcurrencyModel(found, 2),
            trelInitializeLatches(found, &found->nodeLatchArea, kVersion),
            trelEnterCriticalSectionBeforeRead(found, &found->nodeLatchArea),
            trelExitCriticalSectionAfterWrite(found, &found->nodeLatchArea)})
        EXPECT_EQ(TREL_RC_READING_ONLY, code);
    }
    ShmDomainHandle_t* domain = tree.info->shmDomainHandle;
    void* block = nullptr;
    for (const uint32_t code :
         {_trelAllocateShmBlock(&block, tree.info->shmPoolHandle, 8, 0, 0, 0, "test"),
          trelLatchShmDomain(domain), trelMarkStatusSegmentForDeletion(tree.info),
          trelPutTopNodeInfoIntoDomainHeader(domain, 1, near->nodeOffset, 4096),
          trelSetDomainUserAppData(domain, 0, &byte), drop(&tree.info),
          trelFreeShmDomain(&domain, 2)})
      EXPECT_EQ(TREL_RC_READING_ONLY, code) << word++;
    EXPECT_EQ(0u, trelDetachFromNode(&record, 1));
    EXPECT_EQ(0u, detach(&tree.info));
    EXPECT_EQ(nullptr, *pSegAttachList);
  };
  const SegSecurity_t forGroup = {0, kGroup, 0640}, forAll = {0, 0, 0644};
  for (const auto& [security, group] :
       Rows<SegSecurity_t, uint32_t>{{forGroup, kGroup}, {forAll, 65534}}) {
    for (const Segment* segment : {&home, &away})
      EXPECT_EQ(0u, trelAuthorizeStatusSegment(segment->info, &security));
    EXPECT_EQ(0, inOtherProcess([&, by = group] { look(by); }));
    EXPECT_EQ(1u, home.heap()->connectionCount);
  }
  // What is held for writing serves; held for reading, it is mapped once more for writing.
  Tree reader, writer;
  EXPECT_EQ(0u, connect(&reader, home.key));
  EXPECT_EQ(home.info, reader.info);
  EXPECT_EQ(0u, detach(&reader.info));
  EXPECT_EQ(0, inOtherProcess([&] {
              EXPECT_EQ(0u, connect(&reader, home.key));
              EXPECT_EQ(0u, writer.attach(home.key));
              EXPECT_NE(reader.info, writer.info);
              EXPECT_EQ(0u, trelSetNodeTag(writer.node, 1, 0));
              EXPECT_EQ(TREL_RC_READING_ONLY, trelSetNodeTag(reader.node, 1, 0));
              EXPECT_EQ(0u, detach(&reader.info));
              EXPECT_EQ(0u, detach(&writer.info));
              EXPECT_EQ(nullptr, *pSegAttachList);
            }));
}

// A record in process memory with nonsense in each field, and a stored one that misstates its
// place.
TEST_F(TwoSegments, DamagedRecordsGiveCodes) {
  void* block = nullptr;
  ASSERT_EQ(0u, _trelAllocateShmBlock(&block, home.pool(), sizeof nearRecord, 0, 0, 0, "test"));
  auto* const stored = static_cast<SNodeInfo_t*>(block);
  *stored = nearRecord;
  stored->selfOffset = home.offsetOf(stored);
  stored->segBase = 1;  // not read
  for (TrelU64* field : {&nearRecord.nodeOffset, &nearRecord.segInfoOffset, &stored->selfOffset}) {
    const SNodeInfo_t* const record = field == &stored->selfOffset ? stored : &nearRecord;
    const uint64_t sound = *field;
    for (uint64_t nonsense :
         {uint64_t{0}, uint64_t{1}, uint64_t{8}, uint64_t{0xfffff}, uint64_t{0x100000},
          uint64_t{0x7fffffff0}, uint64_t{0xfffffff0}, ~uint64_t{0}, ~uint64_t{55}}) {
      *field = nonsense;
      EXPECT_NE(0u, trelAttachToNode(record, &node)) << nonsense;
    }
    *field = sound;
    EXPECT_EQ(0u, trelAttachToNode(record, &node));
  }
  nearRecord.nodeTag = 2;
  EXPECT_EQ(TREL_RC_RECORD_TAG_DIFFERS, trelAttachToNode(&nearRecord, &node));
}

struct Creation : Library {
  Key key;
  ShmSegInfo_t* info = nullptr;
};

TEST_F(Creation, PoolSizesAndTheirLimits) {
  constexpr uint32_t kSize = 0x100000;
  uint64_t count = 0, level = 7, header = 0, listHeader = 0, space = 0;
  trelGetHHeaderInfo(kSize, TREL_HEAP_DOMAIN, &count, &level, 0, &header, &listHeader, &space);
  const auto managed = static_cast<uint32_t>(kSize - header - space);
  count = 0, level = 10;
  trelGetHHeaderInfo(managed, TREL_HEAP_POOL, &count, &level, 0, &header, &listHeader, &space);
  const auto margin = static_cast<uint32_t>(header + space + 216);
  const uint32_t sure = managed - margin;
  for (const auto& [poolSize, code, atLeast] :
       Rows<uint32_t, uint32_t, uint32_t>{{0, 0, sure},
                                          {1, 0, 1 + margin},
                                          {sure, TREL_RC_DOMAIN_ABOVE_FREE, 0},
                                          {sure + 1, 0, sure + 1 - margin},
                                          {managed, 0, sure},
                                          {managed + 1, TREL_RC_DOMAIN_ABOVE_HEAP, 0}}) {
    EXPECT_EQ(code, create(&info, key, kSize, poolSize)) << poolSize;
    EXPECT_EQ(code == 0, key.exists());
    if (!info) continue;
    ShmPoolInfo_t pool;
    EXPECT_EQ(0u, trelGetShmPoolInfo(info->shmPoolHandle, &pool));
    EXPECT_GE(pool.freeBytes, atLeast);
    EXPECT_LT(pool.freeBytes, atLeast + 8);
    EXPECT_EQ(0u, trelDeleteStatusSegment(&info, 3, 1, 1));
    EXPECT_EQ(nullptr, info);
  }
  EXPECT_EQ(nullptr, *pSegAttachList);
}

// The largest pool fits at every size, also just above the steps by which pools are sized.
TEST_F(Creation, LargestPoolFitsAtEverySize) {
  for (uint32_t size = 1; size < 0x1400000; size += size / 37 + 61) {
    const uint32_t rc = create(&info, key, size);
    EXPECT_EQ(rc == 0, key.exists());
    EXPECT_TRUE(rc == 0 || size < 0x8000u) << size << " " << std::hex << rc;
    if (rc == 0) {
      EXPECT_EQ(0u, drop(&info));
    }
  }
}

TEST_F(Attach, NodesAboveThePool) {
  const uint64_t freeBytes = segment.poolInfo().freeBytes;
  uint64_t sizes[64] = {}, size = 0, offset = 0;
  SNodeCB_t* node = nullptr;
  const auto make = [&](uint64_t bytes) {
    sizes[0] = bytes;
    return trelCreateNode(segment.info, &node, 0, sizes, &size, &offset);
  };
  EXPECT_EQ(TREL_RC_NODE_ABOVE_POOL, make(freeBytes));
  EXPECT_EQ(0u, size);
  // It passes the first look, but leaves no room for the pads.
  EXPECT_EQ(TREL_RC_NODE_ALLOCATION, make(freeBytes - TREL_NODE_HEADER_SIZE));
}

}  // namespace
