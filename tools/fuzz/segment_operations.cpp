#include "operations.h"

namespace fuzz {
namespace {

SegIdentity_t identityOf(const Stage& s, const PLATIPCResID& key) {
  SegIdentity_t identity = s.seg->identity;
  identity.segmentKey.key = key.key;
  return identity;
}

TrelDescription_t descriptionOf(const Stage& s) {
  TrelDescription_t d{};
  d.nodeTag = s.nodeTag;
  d.exportBit = TREL_EXPORT_V;
  d.propertyTag = s.tag;
  d.valueType = TREL_VALUE_U64;
  snprintf(d.name, sizeof d.name, "v%u", static_cast<unsigned>(s.tag));
  memset(d.help, 'h', sizeof d.help - 1);
  return d;
}

// Attaches by a key, and looks at the top node.
template <class Enter>
void enterAndLook(Stage& s, Enter* enter) {
  SNodeCB_t* node = nullptr;
  ShmSegInfo_t* seg = nullptr;
  if (enter(&seg, &node, s.out<TopNodeInfo_t>(), &s.key, 0, nullptr, nullptr)) return;
  s.look(node);
  trelDetachFromTopNode(&seg, 1);
}
#define ENTER(name) WORK(door, name, { enterAndLook(s, name); })

const Operation kRows[] = {
    ENTER(trelConnectToATree),
    ENTER(trelConnectToATreeForReading),
    ENTER(trelAttachToTopNode),
    WORK(door, trelAttachStatusSegment,
         {
           ShmSegInfo_t* seg = nullptr;
           if (trelAttachStatusSegment(&seg, &s.key, 0, 0, 0, nullptr, nullptr) == 0)
             trelDetachStatusSegment(&seg, 1);
         }),
    WORK(write, trelGetProtectedStatusSegment,
         {
           const PLATIPCResID key = s.world.freeKey(2);
           ShmSegInfo_t* made = nullptr;
           if (trelGetProtectedStatusSegment(&made, 0x8000, &key, 0, 0, nullptr, nullptr) == 0)
             trelDeleteStatusSegment(&made, 4, 2, 2);
         }),
    WORK(write, trelAuthorizeStatusSegment,
         {
           const SegSecurity_t security{0, 0, 0660};
           trelAuthorizeStatusSegment(s.seg, &security);
         }),
    WORK(read, trelGetControlBlockPtrFromSNodeInfo,
         {
           auto* node = s.out<SNodeCB_t*>();
           if (trelGetControlBlockPtrFromSNodeInfo(&s.record, node) == 0) s.look(*node);
           SNodeInfo_t* parent = nullptr;
           if (trelGetParentNodeLocation(s.node, &parent) == 0 &&
               trelGetControlBlockPtrFromSNodeInfo(parent, node) == 0)
             s.look(*node);
         }),
    WORK(read, trelGetShmSegInfoPtrUsingSNodeInfo,
         {
           auto* node = s.out<SNodeCB_t*>();
           if (trelGetShmSegInfoPtrUsingSNodeInfo(&s.record, node, s.out<ShmSegInfo_t*>(), s.seg,
                                                  s.out<uint32_t>(), 64) == 0)
             s.look(*node);
         }),
    WORK(read, trelGetTopNodeCBPtrFromShmSegInfo,
         {
           auto* node = s.out<SNodeCB_t*>();
           if (trelGetTopNodeCBPtrFromShmSegInfo(s.seg, node) == 0) s.look(*node);
         }),
    WORK(read, trelGetTopNodeInfoFromDomainHeader,
         {
           trelGetTopNodeInfoFromDomainHeader(s.domain, s.out<uint64_t>(), s.out<uint64_t>(),
                                              s.out<uint32_t>());
         }),
    CALL(write, trelPutTopNodeInfoIntoDomainHeader, s.domain, 1, s.world.nodes[kHashed],
         static_cast<uint32_t>(s.poolOffset)),
    WORK(read, trelGetParentNodeLocation,
         {
           auto* parent = s.out<SNodeInfo_t*>();
           if (trelGetParentNodeLocation(s.node, parent) == 0) s.look(*parent);
         }),
    WORK(read, trelGetParentNodeIdentifier,
         {
           auto* size = s.out<uint64_t>();
           auto* id = s.out<uint8_t*>();
           if (trelGetParentNodeIdentifier(s.node, size, id) || *size == 0 || s.isRacing) return;
           s.look(*id);
           s.look(*id + *size - 1);
         }),
    WORK(read, trelAttachToNode,
         {
           auto* node = s.out<SNodeCB_t*>();
           if (trelAttachToNode(&s.record, node) == 0) s.look(*node);
           SNodeInfo_t* parent = nullptr;
           if (trelGetParentNodeLocation(s.middle, &parent) == 0 &&
               trelAttachToNode(parent, node) == 0)
             s.look(*node);
         }),
    WORK(read, trelAttachToNodeAndGetSegInfo,
         {
           auto* node = s.out<SNodeCB_t*>();
           if (trelAttachToNodeAndGetSegInfo(&s.record, node, s.out<ShmSegInfo_t*>(), s.seg,
                                             s.out<uint32_t>(), 64) == 0 &&
               *node)
             s.look(*node);
         }),
    WORK(write, trelDetachFromNode,
         {
           SNodeInfo_t* found = nullptr;
           if (trelFindNodeSoft(&found, s.top, 5, 5, asBytes("other"), 0) == 0)
             trelDetachFromNode(found, 1);
         }),
    WORK(write, trelUpdateShmAttachRefCount,
         {
           trelUpdateShmAttachRefCount(s.seg, 1);
           trelUpdateShmAttachRefCount(s.seg, 2);
         }),
    CALL(read, trelGetShmAttachRefCount, s.seg, s.out<uint32_t>()),
    WORK(read, trelDestroySegInfoAndHandles,
         {
           void* blocks[3] = {};
           const uint32_t sizes[] = {sizeof(ShmSegInfo_t), sizeof(ShmDomainHandle_t),
                                     sizeof(ShmPoolHandle_t)};
           for (size_t i = 0; i < 3; ++i) _platMemAlloc(&blocks[i], 0, sizes[i], 1, "", 0);
           auto* copy = new (blocks[0]) ShmSegInfo_t(*s.seg);
           copy->shmDomainHandle = new (blocks[1]) ShmDomainHandle_t(*s.domain);
           copy->shmDomainHandle->ipcMemory = nullptr;
           copy->shmPoolHandle = new (blocks[2]) ShmPoolHandle_t(*s.pool);
           trelDestroySegInfoAndHandles(&copy);
         }),
    WORK(write, trelDetachFromTopNode,
         {
           trelUpdateShmAttachRefCount(s.seg, 1);
           ShmSegInfo_t* seg = s.seg;
           trelDetachFromTopNode(&seg, 1);
         }),
    WORK(write, trelDetachStatusSegment,
         {
           trelUpdateShmAttachRefCount(s.seg, 1);
           ShmSegInfo_t* seg = s.seg;
           trelDetachStatusSegment(&seg, 1);
         }),
    CALL(end, trelMarkStatusSegmentForDeletion, s.seg),
    CALL(door, trelRemoveStatusSegment, &s.key, 1),  // refused: somebody is attached
    WORK(end, trelDeleteStatusSegment,
         {
           // Polite, and the world's own connection counts: it is refused, or undone by the damage.
           trelUpdateShmAttachRefCount(s.seg, 1);
           trelDeleteStatusSegment(&s.seg, 3, 1, 1);
         }),

    WORK(read, trelFindAttachSegInfoNodeInLList,
         {
           const SegIdentity_t identity = identityOf(s, s.world.other.key);
           SegIdentity_t* found = nullptr;
           trelFindAttachSegInfoNodeInLList(s.pool, &identity, &found);
           s.look(found);
         }),
    WORK(write, trelInsertAttachSegInfoNodeIntoLList,
         {
           const SegIdentity_t identity = identityOf(s, s.world.freeKey(5));
           SegIdentity_t* made = nullptr;
           trelInsertAttachSegInfoNodeIntoLList(s.pool, &identity, &made);
           s.look(made);
         }),
    WORK(write, trelDeleteAttachSegInfoNodeFromLList,
         {
           const SegIdentity_t identity = identityOf(s, s.world.freeKey(5));
           trelDeleteAttachSegInfoNodeFromLList(s.pool, &identity);
         }),
    CALL(end, trelDeleteAttachSegInfoLList, s.pool),
    CALL(read, trelPrintAttachSegInfoNodeLList, s.pool),
    WORK(read, trelFindHDMNodeInLList,
         {
           HdmModuleRecord_t* found = nullptr;
           trelFindHDMNodeInLList(s.pool, &s.module, &found);
           s.look(found);
         }),
    WORK(write, trelInsertHDMNodeIntoLList,
         {
           const HdmModuleRecord_t module = {"/new", {}};
           HdmModuleRecord_t* made = nullptr;
           trelInsertHDMNodeIntoLList(s.pool, &module, &made);
           s.look(made);
         }),
    WORK(write, trelDeleteHDMNodeFromLList,
         {
           const HdmModuleRecord_t module = {"/new", {}};
           trelDeleteHDMNodeFromLList(s.pool, &module);
         }),
    CALL(end, trelDeleteHDMLList, s.pool),
    CALL(read, trelPrintHDMNodeLList, s.pool),
    WORK(write, trelDescribe,
         {
           const TrelDescription_t d = descriptionOf(s);
           trelDescribe(s.seg, &d, nullptr);
         }),
    CALL(read, trelGetDescription, s.seg, s.nodeTag, TREL_EXPORT_V, s.tag, 0,
         s.out<TrelDescription_t>()),
    CALL(read, trelGetDescribedFields, s.seg, s.nodeTag, TREL_EXPORT_V, s.tag, 0,
         s.out<TrelDescription_t>(4), 4, s.out<uint32_t>()),
    CALL(read, trelFindDescription, s.seg, "type", "v1", s.out<TrelDescription_t>()),
    CALL(read, trelListDescriptions, s.seg, 0, s.out<TrelDescription_t>(8), 8, s.out<uint32_t>(),
         s.out<uint32_t>()),
    CALL(write, trelSetPublisher, s.seg, "program", "1"),
    CALL(write, trelBeatTree, s.seg),
    CALL(write, trelEndPublisher, s.seg),
    CALL(read, trelGetPublisher, s.seg, s.out<TrelPublisher_t>()),
};

}  // namespace

Operations segmentOperations() { return {std::begin(kRows), std::end(kRows)}; }

}  // namespace fuzz
