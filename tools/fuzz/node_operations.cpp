#include "operations.h"

namespace fuzz {
namespace {

const Operation kRows[] = {
    CALL(write, trelSetConcurrencyModel, s.node, 1),
    CALL(read, trelReturnConcurrencyModel, s.node, s.out<uint32_t>()),
    CALL(end, trelInitializeLatches, s.node, &s.node->spareLatchArea, TREL_STRUCTURE_VERSION),
    WORK(read, trelGetPExportPointer,
         {
           auto* slot = s.out<ExportSlot_t*>();
           if (trelGetPExportPointer(slot, s.node, 2u << s.random.below(12)) == 0) s.look(*slot);
         }),
    CALL(read, trelReturnExports, s.node, s.out<uint64_t>()),
    CALL(read, trelReturnRegisterSize, s.node, s.out<uint64_t>()),
    WORK(read, trelEnterCriticalSectionBeforeRead,
         {
           if (trelEnterCriticalSectionBeforeRead(s.node, &s.node->nodeLatchArea) == 0)
             trelExitCriticalSectionAfterRead(s.node, &s.node->nodeLatchArea);
         }),
    CALL(end, trelExitCriticalSectionAfterRead, s.node, &s.node->nodeLatchArea),
    WORK(write, trelEnterCriticalSectionBeforeWrite,
         {
           if (trelEnterCriticalSectionBeforeWrite(s.node, &s.node->nodeLatchArea) == 0)
             trelExitCriticalSectionAfterWrite(s.node, &s.node->nodeLatchArea);
         }),
    CALL(end, trelExitCriticalSectionAfterWrite, s.node, &s.node->nodeLatchArea),
    CALL(read, trelGetNodeCondition, s.node, s.out<uint32_t>()),
    CALL(read, trelCheckNodeCondition, s.node, 1u << s.random.below(6)),
    CALL(write, trelActivateNode, &s.node),
    CALL(end, trelAbandonNode, &s.node),
    CALL(end, trelDisassociateNode, &s.node),
    CALL(write, trelSetNodeOptions, s.node, nullptr),
    CALL(write, trelUpdateNodeStatus, s.node),
    WORK(read, trelIsStillBeingUpdated,
         {
           auto* record = s.out<WatchRecord_t>();
           record->updateMode = static_cast<uint32_t>(1 + s.random.below(2));
           trelIsStillBeingUpdated(s.node, record);
         }),
    CALL(read, trelGetNodeReconfigCounter, s.node, s.out<uint64_t>()),
    CALL(read, trelGetNodeSize, s.node, s.out<uint64_t>(), 0),
    CALL(read, trelGetNodeTag, s.node, s.out<uint64_t>(), 0),
    WORK(read, trelGetNodeID,
         {
           auto* id = s.out<uint8_t*>();
           auto* size = s.out<uint64_t>();
           if (trelGetNodeID(s.node, id, size, 0) != 0 || *size == 0 || s.isRacing) return;
           s.look(*id);
           s.look(*id + *size - 1);
         }),
    CALL(write, trelSetNodeTag, s.node, s.nodeTag, 0),
    CALL(write, trelSetNodeID, s.node, s.nodeIdBytes(), s.idSize(), kIdRoom, 0),
    WORK(write, trelCreateNode,
         {
           uint64_t sizes[64] = {16 + kIdRoom};
           SNodeCB_t* made = nullptr;
           auto* offset = s.out<uint64_t>();
           if (trelCreateNode(s.seg, &made, TREL_EXPORT_ID, sizes, s.out<uint64_t>(), offset))
             return;
           s.look(made);
           trelInitNode(&made, *offset, s.idSize(), s.nodeIdBytes(), nullptr, nullptr, kIdRoom,
                        nullptr, nullptr, nullptr);
           trelDisclaimNode(&made, s.pool, TREL_STRUCTURE_VERSION);
         }),
    WORK(end, trelInitNode,
         {
           SNodeInfo_t parent = s.record;
           parent.idSize = s.idSize();
           trelInitNode(&s.node, s.world.nodes[s.target], s.idSize(), s.nodeIdBytes(), &parent,
                        s.nodeIdBytes(), kIdRoom, s.value, &s.module, nullptr);
         }),
    WORK(end, trelDisclaimNode,
         {
           SNodeCB_t* gone = s.node;
           trelDisclaimNode(&gone, s.pool, TREL_STRUCTURE_VERSION);
         }),
};

}  // namespace

Operations nodeOperations() { return {std::begin(kRows), std::end(kRows)}; }

}  // namespace fuzz
