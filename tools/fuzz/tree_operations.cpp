#include "operations.h"

namespace fuzz {
namespace {

constexpr uint64_t kListed = 6, kDepth = 8;
constexpr size_t kDependentSlot = 10;

// An entry of a list of dependents, as the library hands it out.
SNodeInfo_t* anyEntry(Stage& s) {
  auto* entry = s.out<SNodeInfo_t*>();
  SNodeCB_t* const parent = s.random.below(2) ? s.top : s.middle;
  return trelFindDependentNode(entry, parent, s.nodeTag, s.idSize(), s.nodeIdBytes(), 0) == 0
             ? *entry
             : nullptr;
}

TraverseInfo_t* makePath(Stage& s) {
  const char* const texts[] = {"middle", s.nodeId};
  const uint64_t tags[] = {3, s.nodeTag};
  TraverseInfo_t* path = nullptr;
  trelCreateTraverseInfoArray(&path, tags, texts, 16, 2, s.seg);
  return path;
}

// A record in process memory by which a deletion finds an entry.
SNodeInfo_t nameOf(const Stage& s) {
  SNodeInfo_t name = {};
  name.nodeTag = s.nodeTag;
  name.idSize = s.idSize();
  return name;
}

// What trelCopyNode and its second half have in common.
struct CopyNames {
  uint64_t tag = 9, idSize = 4, maxIdSize = kIdRoom;
  SNodeInfo_t* info;
  uint8_t* id;
  uint64_t *idSizeOut, *maxIdSizeOut;
  explicit CopyNames(Stage& s)
      : info(s.out<SNodeInfo_t>()),
        id(s.outs.take(kIdRoom)),
        idSizeOut(s.out<uint64_t>()),
        maxIdSizeOut(s.out<uint64_t>()) {}
};

SNodeCB_t* copyOf(Stage& s, ShmSegInfo_t* to, uint32_t direction) {
  const CopyNames names(s);
  SNodeCB_t* copy = nullptr;
  auto* size = s.out<uint64_t>();
  trelCopyNode(s.seg, to, s.node, &copy, 0, 0, 0, 0, &s.module, &names.tag, &names.idSize,
               &names.maxIdSize, asBytes("copy"), names.info, names.id, names.idSizeOut,
               names.maxIdSizeOut, size, direction, static_cast<uint32_t>(1 + s.random.below(2)),
               static_cast<uint32_t>(TREL_COPY_DEPENDENTS_EMPTY + s.random.below(2)));
  return copy;
}

void freeBlock(void* block) {
  if (block) _platMemFree(&block, 0, 0, "", 0);
}

const Operation kRows[] = {
    WORK(read, trelReturnDependentNodes,
         {
           trelReturnDependentNodes(s.node, s.out<SNodeInfo_t>(kListed),
                                    s.outs.take(kListed * kIdRoom), s.out<uint64_t>(),
                                    s.out<uint64_t>(), kListed, kIdRoom, 0);
         }),
    CALL(read, trelReturnNumberOfDependentNodes, s.node, s.out<uint64_t>(), s.out<uint64_t>(), 0),
    WORK(read, trelFindDependentNode, { s.look(anyEntry(s)); }),
    CALL(read, trelGetMaxIDSizeForDependentNode, s.node, TREL_EXPORT_DEPENDENT, s.out<uint64_t>()),
    WORK(read, trelGetDependentNodesLocation,
         {
           auto* entry = s.out<SNodeInfo_t*>();
           auto *live = s.out<uint64_t>(), *capacity = s.out<uint64_t>();
           if (trelGetDependentNodesLocation(s.node, entry, live, capacity)) return;
           ExportSlot_t* slot = &s.node->exportTable[kDependentSlot];
           for (uint64_t seen = 0; seen < *live && seen < 8 && *entry; ++seen) {
             s.look(*entry);
             if (trelGetNextDependentNodeLocation(s.node, slot, entry)) return;
           }
         }),
    WORK(read, trelGetNextDependentNodeLocation,
         {
           auto* entry = s.out<SNodeInfo_t*>();
           *entry = anyEntry(s);
           if (*entry)
             trelGetNextDependentNodeLocation(s.top, &s.top->exportTable[kDependentSlot], entry);
         }),
    WORK(read, trelFindNodeSoft,
         {
           auto* found = s.out<SNodeInfo_t*>();
           if (trelFindNodeSoft(found, s.top, s.nodeTag, s.idSize(), s.nodeIdBytes(), 0) == 0)
             s.look(*found);
         }),
    CALL(read, trelSearchForNodeSoft, s.out<SNodeInfo_t*>(), s.top, s.out<uint64_t>(), s.nodeTag,
         s.idSize(), s.nodeIdBytes(), 1, kDepth),
    WORK(read, trelFindNodeHard,
         {
           auto* found = s.out<SNodeInfo_t*>();
           TraverseInfo_t* path = makePath(s);
           if (trelFindNodeHard(found, s.top, 2, path, kDepth) == 0) s.look(*found);
           trelDeleteTraverseInfoArray(&path, 2, s.seg);
         }),
    WORK(read, trelSearchForNodeHard,
         {
           auto* child = s.out<SNodeCB_t*>();
           if (SNodeInfo_t* entry = anyEntry(s))
             if (trelSearchForNodeHard(entry, child, s.out<ExportSlot_t*>(), s.out<uint64_t>(),
                                       s.nodeTag, s.idSize(), s.nodeIdBytes()) == 0)
               s.look(*child);
         }),
    CALL(read, trelFindNodesByTag, s.top, s.nodeTag, 0, kListed, s.out<SNodeInfo_t*>(kListed),
         s.out<uint64_t>(), s.out<uint64_t>()),
    CALL(read, trelSearchForNodeByTag, s.out<SNodeInfo_t*>(kListed), s.top, s.nodeTag, kListed, 1,
         kDepth, s.out<uint64_t>(), s.out<uint64_t>()),
    CALL(read, trelGetTreeInfo, s.top, s.seg, TREL_WALK_ALL, s.nodeTag, 0, s.out<TreeInfo_t>()),
    CALL(read, trelGetTreeInfoRecursively, s.top, s.seg, s.seg, 0, TREL_WALK_ALL, s.nodeTag, 1,
         kDepth, s.out<TreeInfo_t>()),
    CALL(read, trelGetMaxIDSizeForStatusNode, s.node, 1u << s.random.below(13), s.out<uint64_t>()),

    WORK(write, trelAddStatusNodeInfo,
         {
           trelAddStatusNodeInfo(s.out<SNodeInfo_t>(), s.seg, s.seg, s.world.nodes[s.target],
                                 s.nodeTag, s.idSize(), nullptr, &s.module);
         }),
    CALL(write, trelAddDependentNode, s.node, &s.record, s.nodeIdBytes(), s.idSize(),
         s.random.below(2) * TREL_ADD_REPLACE, 0),
    CALL(write, trelAddParentNode, s.node, &s.record, s.idSize(), s.nodeIdBytes()),
    WORK(write, trelDeleteDependentNode,
         {
           const SNodeInfo_t name = nameOf(s);
           trelDeleteDependentNode(s.top, &name, s.nodeIdBytes(), 0);
         }),
    CALL(write, trelSetStatusForEachNodeInATree, s.top, s.seg, 0, TREL_STATUS_UPDATE,
         1u << TREL_CONDITION_ACTIVE),
    CALL(write, trelSetNodeStatusRecursively, &s.top, s.seg, s.seg, 0, TREL_STATUS_ACTIVATE,
         TREL_WALK_ALL, 1, kDepth),
    WORK(write, trelExportListOfChangedProperties,
         {
           const uint32_t wishes[TREL_CHANGE_WORDS] = {1, 2, 3, 4, 6};
           trelExportListOfChangedProperties(s.node, 0, wishes);
         }),

    CALL(end, trelCreateDependentNodeList, s.node, nullptr, nullptr, nullptr, kIdRoom, 0, 0),
    WORK(end, trelDeleteDependentNodeAndSubtree,
         {
           const SNodeInfo_t name = nameOf(s);
           trelDeleteDependentNodeAndSubtree(s.top, &name, s.seg, 0, TREL_WALK_ALL);
         }),
    WORK(end, trelSetStatusForEachNodeInATree,
         {
           trelSetStatusForEachNodeInATree(s.middle, s.seg, 0, TREL_STATUS_DISCLAIM,
                                           TREL_WALK_ALL | TREL_WALK_REMOVE_TOP);
         }),
    WORK(read, trelCopyNode,
         {
           SNodeCB_t* const copy = copyOf(s, nullptr, TREL_COPY_SHM_TO_PM);
           freeBlock(copy);
           trelDeleteHDMPMLList();
         }),
    WORK(write, trelCopyNode,
         {
           SNodeCB_t* copy = copyOf(s, s.seg, TREL_COPY_SHM_TO_SHM);
           if (copy) trelDisclaimNode(&copy, s.pool, TREL_STRUCTURE_VERSION);
         }),
    WORK(end, trelCopyNodeData,
         {
           const CopyNames names(s);
           NodeCopyLimits_t limits = {};
           limits.maxNodeIdSize = kIdRoom;
           limits.copyDependents = TREL_COPY_DEPENDENTS_SAME;
           trelCopyNodeData(s.node, s.middle, 0, 0, 0, 0, s.world.nodes[kMiddle], &limits, nullptr,
                            &names.tag, &names.idSize, &names.maxIdSize, asBytes("copy"),
                            names.info, names.id, names.idSizeOut, names.maxIdSizeOut, s.seg);
         }),
    WORK(end, trelCopyTreeIntoSingleShmSegment,
         {
           const PLATIPCResID key = s.world.freeKey(1);
           SNodeCB_t* newTop = nullptr;
           ShmSegInfo_t *source = s.seg, *made = nullptr;
           const auto method = static_cast<uint32_t>(TREL_TREE_COPY_DIRECT + s.random.below(3));
           trelCopyTreeIntoSingleShmSegment(s.top, &newTop, &source, &made, 0x20000, &key, 0, 0,
                                            nullptr, nullptr, TREL_TREE_COPY_ALL, method,
                                            TREL_COPY_LIMITS_KEEP, 0, s.out<uint64_t>());
           if (made) trelDeleteStatusSegment(&made, 4, 2, 2);
           s.seg = source;  // null: the tree has moved
         }),
    WORK(write, trelCopyTreeRecursively,
         {
           const CopyNames names(s);
           SNodeCB_t* copy = nullptr;
           uint32_t marker = 0;
           trelCopyTreeRecursively(s.middle, &copy, s.seg, s.seg, s.seg, 0, TREL_TREE_COPY_ALL,
                                   TREL_COPY_SHM_TO_SHM, TREL_COPY_LIMITS_KEEP, 0, 0, 0, 0,
                                   &s.module, &names.tag, &names.idSize, &names.maxIdSize,
                                   asBytes("copy"), names.info, names.id, names.idSizeOut,
                                   names.maxIdSizeOut, &marker, s.out<uint64_t>(), 1, kDepth);
           if (copy) trelDisclaimNode(&copy, s.pool, TREL_STRUCTURE_VERSION);
         }),
    WORK(end, trelRecreateNodeWithMoreDepNodes,
         {
           SNodeCB_t *old = s.random.below(2) ? s.middle : s.node, *made = nullptr;
           trelRecreateNodeWithMoreDepNodes(&old, &made, s.seg, s.seg, 5, s.out<uint64_t>());
         }),
};

}  // namespace

Operations treeOperations() { return {std::begin(kRows), std::end(kRows)}; }

}  // namespace fuzz
