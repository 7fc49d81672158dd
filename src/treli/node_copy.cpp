// The copy of a node.
//
// The source stays in its read section from the first look at it to the last. The copy's write
// section is taken inside: source first, then copy, is the order of the two everywhere.
#include "treli/node_copy.h"

#include "trel/copy.h"
#include "trel/node.h"
#include "trel/property.h"
#include "trel/tree.h"
#include "treli/attach_latch.h"
#include "treli/dependent_list.h"
#include "treli/property_copy.h"
#include "treli/reach.h"
#include "trelll/enter.h"
#include "trelshm/process_memory.h"

namespace trel {
namespace {

// The sections in the order in which they are copied, with the least that is in use of one that was
// ever filled.
struct SectionForm {
  uint32_t bit;
  uint64_t leastUsed;
};
constexpr SectionForm kSections[] = {
    {TREL_EXPORT_ID, sizeof(IdSection_t)},
    {TREL_EXPORT_RECORD24, 24},
    {TREL_EXPORT_HDM_MODULE, sizeof(HdmModuleRecord_t)},
    {TREL_EXPORT_PARENT, sizeof(ParentSection_t)},
    {TREL_EXPORT_BASE_R, sizeof(RProperty_t)},
    {TREL_EXPORT_BASE_V, Form<kind::BaseV>::flatHeader + sizeof(VProperty_t)},
    {TREL_EXPORT_CHANGE_LIST, sizeof(ChangeListSection_t)},
    {TREL_EXPORT_R, Form<kind::R>::flatHeader},
    {TREL_EXPORT_V, Form<kind::V>::flatHeader},
    {TREL_EXPORT_IR, Form<kind::IR>::flatHeader},
    {TREL_EXPORT_IV, Form<kind::IV>::flatHeader},
    {TREL_EXPORT_DEPENDENT, kDependentHeader},
};

// Finds a section that the source must have, and whether it was ever filled.
uint32_t findSection(SNodeCB_t* source, const SectionForm& form, ExportSlot_t** slot,
                     bool* filled) {
  if (const uint32_t rc = sectionOf(source, form.bit, slot)) return rc;
  *filled = (*slot)->used >= form.leastUsed;
  return 0;
}

// The number at a section's start, which may lie at any byte.
uint64_t firstWord(SNodeCB_t* node, const ExportSlot_t* slot) {
  const TrelU64* word = inSection<TrelU64>(node, slot);
  return *word;
}

// ---- Other memories: identities and modules --------------------------------------------------

// enterModule() for the list in process memory. The offset is an address.
uint32_t enterModuleInPM(const HdmModuleRecord_t* module, uint64_t* offset) {
  const HdmModuleRecord_t* record = module ? module : &kNoModule;
  HdmModuleRecord_t* listed = nullptr;
  uint32_t rc = trelFindHDMNodeInPMLList(record, &listed);
  if (rc == 0 && !listed) rc = trelInsertHDMNodeIntoPMLList(record, &listed);
  if (rc == 0) *offset = offsetOf(listed, nullptr);
  return rc;
}

// Entries that stay the same name identities and modules on the lists of the source's segment. In
// another segment they must name those of its own lists. Which ones there are is collected in the
// source's section; they are entered outside of it, since the lists have a latch of their own that
// others hold while they wait for nodes.
class Translation {
 public:
  Translation(ShmSegInfo_t* from, ShmSegInfo_t* to) : from_(from), to_(to) {}
  ~Translation() {
    while (Pair* pair = first_) {
      first_ = pair->next;
      release(&pair);
    }
  }
  Translation(const Translation&) = delete;
  Translation& operator=(const Translation&) = delete;

  bool isNeeded() const {
    return from_ && to_ && from_->shmPoolHandle && to_->shmPoolHandle &&
           from_->shmPoolHandle->base != to_->shmPoolHandle->base;
  }

  // Collects what the source's entries name. *known: all of it has been entered already.
  uint32_t collect(SNodeCB_t* source, bool* known) {
    *known = true;
    if (!isNeeded() || !(source->exports & TREL_EXPORT_DEPENDENT)) return 0;
    DependentList list;
    if (const uint32_t rc = locateDependents(source, &list)) return rc;
    DependentWalk walk(list);
    for (SNodeInfo_t* entry = nullptr;;) {
      if (const uint32_t rc = walk.next(&entry)) return rc;
      if (!entry) return 0;
      if (const uint32_t rc = add(entry->segInfoOffset, false, known)) return rc;
      if (const uint32_t rc = add(entry->hdmInfoOffset, true, known)) return rc;
    }
  }

  // Enters what was collected.
  uint32_t enter() {
    for (Pair* pair = first_; pair && !pair->entered; pair = pair->next) {
      const uint64_t size = pair->isModule ? sizeof(HdmModuleRecord_t) : sizeof(SegIdentity_t);
      const void* listed = inSegment(from_, pair->from, size);
      if (!listed) return TREL_RC_BLOCK_OUTSIDE_POOL;
      ShmPoolHandle_t* pool = to_->shmPoolHandle;
      const uint32_t rc =
          pair->isModule
              ? enterModule(pool, static_cast<const HdmModuleRecord_t*>(listed), &pair->to)
              : enterIdentity(pool, static_cast<const SegIdentity_t*>(listed), &pair->to);
      if (rc) return rc;
      pair->entered = true;
    }
    return 0;
  }

  void apply(SNodeInfo_t* entry) const {
    if (const Pair* pair = find(entry->segInfoOffset, false)) entry->segInfoOffset = pair->to;
    if (const Pair* pair = find(entry->hdmInfoOffset, true)) entry->hdmInfoOffset = pair->to;
  }

 private:
  struct Pair {
    Pair* next;
    uint64_t from, to;  // offsets in the two segments
    bool isModule, entered;
  };

  Pair* find(uint64_t from, bool isModule) const {
    for (Pair* pair = first_; pair; pair = pair->next)
      if (pair->from == from && pair->isModule == isModule) return pair;
    return nullptr;
  }

  uint32_t add(uint64_t from, bool isModule, bool* known) {
    if (find(from, isModule)) return 0;
    Pair* pair = nullptr;
    if (const uint32_t rc = obtain(&pair)) return rc;
    *pair = {first_, from, 0, isModule, false};
    first_ = pair;
    *known = false;
    return 0;
  }

  ShmSegInfo_t* from_;
  ShmSegInfo_t* to_;
  Pair* first_ = nullptr;  // newest first: those not yet entered stand in front
};

// ---- Sizing ----------------------------------------------------------------------------------

// What the source holds, as the copy's limits, and the size of each of the copy's sections.
class Plan {
 public:
  NodeCopyLimits_t limits = {};
  uint64_t exports = 0;
  uint64_t sizes[TREL_SLOTS];

  // The caller is inside the source's section.
  uint32_t make(SNodeCB_t* source, uint32_t copyLimits, uint64_t listMaxIdSize) {
    const ChangeListSection_t* changes = nullptr;
    if (const uint32_t rc = readChanges(source, copyLimits, &changes)) return rc;
    for (const SectionForm& form : kSections) {
      if (!(exports & form.bit)) continue;
      if (const uint32_t rc = survey(source, form)) return rc;
    }
    if (changes) apply(*changes);
    uint64_t total = 0;
    if (const uint32_t rc = sizeSections(exports & filled_, limits, sizes, &total)) return rc;
    correct(source, round8(listMaxIdSize));
    return 0;
  }

 private:
  uint64_t& sizeOf(uint32_t exportBit) { return sizes[slotNumber(exportBit)]; }

  uint32_t readChanges(SNodeCB_t* source, uint32_t copyLimits,
                       const ChangeListSection_t** changes) {
    exports = source->exports;
    if (copyLimits != TREL_COPY_LIMITS_CHANGE_LIST || !(exports & TREL_EXPORT_CHANGE_LIST))
      return 0;
    ExportSlot_t* slot = nullptr;
    if (const uint32_t rc = sectionOf(source, TREL_EXPORT_CHANGE_LIST, &slot)) return rc;
    if (slot->used < sizeof **changes) return 0;
    *changes = inSection<ChangeListSection_t>(source, slot);
    exports = (*changes)->exports;
    return 0;
  }

  uint32_t survey(SNodeCB_t* source, const SectionForm& form) {
    if (!(source->exports & form.bit)) return 0;  // is refused once the block is there
    ExportSlot_t* slot = nullptr;
    bool filled = false;
    if (const uint32_t rc = findSection(source, form, &slot, &filled)) return rc;
    if (!filled) return 0;
    filled_ |= form.bit;
    switch (form.bit) {
      case TREL_EXPORT_ID:
        return trelGetMaxIDSizeForStatusNode(source, TREL_EXPORT_ID, &limits.maxNodeIdSize);
      case TREL_EXPORT_PARENT:
        parentMax_ = inSection<ParentSection_t>(source, slot)->maxIdSize;
        return parentMax_ > TREL_MAX_ID_SIZE ? uint32_t{TREL_RC_NODE_ID_MAX} : 0;
      case TREL_EXPORT_BASE_V:
        baseMax_ = firstWord(source, slot);
        if (limits.v.maxValueSize == 0) limits.v.maxValueSize = baseMax_;
        return baseMax_ > TREL_MAX_VALUE_SIZE ? uint32_t{TREL_RC_SIZING_VALUE_MAX} : 0;
      case TREL_EXPORT_R:
        return surveyList<kind::R>(source, &limits);
      case TREL_EXPORT_V:
        return surveyList<kind::V>(source, &limits);
      case TREL_EXPORT_IR:
        return surveyList<kind::IR>(source, &limits);
      case TREL_EXPORT_IV:
        return surveyList<kind::IV>(source, &limits);
      case TREL_EXPORT_DEPENDENT:
        return trelReturnNumberOfDependentNodes(source, &limits.currentDependents,
                                                &limits.maxDependents, 1);
      default:
        return 0;
    }
  }

  // A wish counts if it has room for what there is.
  void apply(const ChangeListSection_t& changes) {
    const auto take = [](uint64_t wish, uint64_t current, uint64_t* maximum) {
      if (wish >= current) *maximum = wish;
    };
    take(changes.words[0], limits.r.current, &limits.r.maximum);
    take(changes.words[1], limits.v.current, &limits.v.maximum);
    take(changes.words[2], limits.ir.current, &limits.ir.maximum);
    take(changes.words[3], limits.iv.current, &limits.iv.maximum);
    take(changes.words[4], limits.currentDependents, &limits.maxDependents);
  }

  // Where the general formulas do not fit this node.
  void correct(SNodeCB_t* source, uint64_t listMaxIdSize) {
    const auto raise = [](uint64_t* size, uint64_t need) {
      if (*size < need) *size = need;
    };
    const uint64_t filled = exports & filled_;
    if (filled & TREL_EXPORT_PARENT)
      raise(&sizeOf(TREL_EXPORT_PARENT), sizeof(ParentSection_t) + round8(parentMax_));
    if (filled & TREL_EXPORT_BASE_V)
      raise(&sizeOf(TREL_EXPORT_BASE_V),
            round8(baseMax_ + Form<kind::BaseV>::flatHeader + sizeof(VProperty_t)));
    if ((filled & TREL_EXPORT_IR) && limits.ir.hashFlag)
      raise(&sizeOf(TREL_EXPORT_IR), leastHashedIR());
    if (filled & TREL_EXPORT_DEPENDENT)
      sizeOf(TREL_EXPORT_DEPENDENT) =
          limits.maxDependents * (listMaxIdSize + sizeof(SNodeInfo_t)) + kDependentHeader;
    for (const SectionForm& form : kSections) {
      const uint32_t slot = slotNumber(form.bit);
      if ((exports & form.bit) && !(filled_ & form.bit))
        sizes[slot] = source->exportTable[slot].size;
    }
  }

  // What the create of a hashed IR list asks for. Counts only for a single bucket.
  uint64_t leastHashedIR() const {
    List<kind::IR> list;
    list.maxIdSize = limits.ir.maxIdSize;
    list.tables[0] = primeFrom(limits.ir.maximum);
    list.tables[1] = limits.ir.tagTableSize;
    list.tables[2] = limits.ir.idTableSize;
    return Form<kind::IR>::hashHeader + list.bucketBytes() + list.tables[0] * list.nodeBytes() +
           sizeof(HashAnchor_t);
  }

  uint64_t filled_ = 0;  // sections of the source that have content
  uint64_t parentMax_ = 0, baseMax_ = 0;
};

// ---- Filling ---------------------------------------------------------------------------------

// Fills a block. The caller holds the source's section; the copy's is taken here.
class Filling {
 public:
  Filling(const NodeCopy& wanted, SNodeCB_t* copy, uint64_t nodeOffset,
          const NodeCopyLimits_t& limits, const Translation& translation)
      : wanted_(wanted),
        source_(wanted.src),
        copy_(copy),
        nodeOffset_(nodeOffset),
        limits_(limits),
        translation_(translation) {}

  uint32_t run() {
    return within<Access::write>(copy_, 0, [&]() -> uint32_t {
      copyHeader();
      if (const uint32_t rc = copyCounters()) return rc;
      for (const SectionForm& form : kSections) {
        if (!(copy_->exports & form.bit)) continue;
        if (const uint32_t rc = copySection(form)) return rc;
      }
      return limits_.copyDependents == TREL_COPY_DEPENDENTS_SAME ? keepDependents() : 0;
    });
  }

 private:
  void copyHeader() {
    copy_->optionWord0 = source_->optionWord0;
    copy_->optionWord1 = source_->optionWord1;
    copy_->optionWord2 = source_->optionWord2;
    copy_->tag = source_->tag;
    copy_->nodeOffset = nodeOffset_;
    copy_->eyeCatcher1 = source_->eyeCatcher1;
    copy_->eyeCatcher2 = source_->eyeCatcher2;
    copy_->updateMode = source_->updateMode;
    copy_->condition = source_->condition;
    copy_->optionWord5 = source_->optionWord5;
    copy_->lastUpdateTime = source_->lastUpdateTime;
    copy_->updateInterval = source_->updateInterval;
    copy_->concurrencyModel = source_->concurrencyModel;
  }

  uint32_t copyCounters() {
    if (PLATVAtomicSigned32::init(&copy_->reconfigCounter, 0, 1)) return TREL_RC_ATOMIC;
    PLATVAtomicSigned32* const counters[][2] = {{&source_->updateCounter, &copy_->updateCounter},
                                                {&source_->spareCounter1, &copy_->spareCounter1},
                                                {&source_->spareCounter2, &copy_->spareCounter2}};
    for (const auto& [from, to] : counters) {
      int32_t value = 0, old = 0;
      if (PLATVAtomicSigned32::init(to, 0, 1) || PLATVAtomicSigned32::add(from, 0, &value) ||
          PLATVAtomicSigned32::swap(to, value, &old))
        return TREL_RC_ATOMIC;
    }
    return 0;
  }

  uint32_t copySection(const SectionForm& form) {
    if (!(source_->exports & form.bit)) return TREL_RC_COPY_NO_SECTION;
    ExportSlot_t *from = nullptr, *to = nullptr;
    bool filled = false;
    if (const uint32_t rc = findSection(source_, form, &from, &filled)) return rc;
    if (const uint32_t rc = sectionOf(copy_, form.bit, &to)) return rc;
    if (!filled) {
      const uint64_t header = form.leastUsed < to->size ? form.leastUsed : uint64_t{to->size};
      memset(inSection(copy_, to), 0, static_cast<size_t>(header));
      to->used = 0;
      return 0;
    }
    switch (form.bit) {
      case TREL_EXPORT_ID: {
        idSize_ = inSection<IdSection_t>(source_, from)->idSize;
        return copyNamed(from, to, sizeof(IdSection_t), idSize_);
      }
      case TREL_EXPORT_PARENT:
        return copyParent(from, to);
      case TREL_EXPORT_BASE_R:
        return copyBaseR();
      case TREL_EXPORT_BASE_V:
        return copyBaseV(firstWord(source_, from));
      case TREL_EXPORT_CHANGE_LIST:
        if (const uint32_t rc = copyBytesOf(from, to, form.leastUsed)) return rc;
        inSection<ChangeListSection_t>(copy_, to)->exports = copy_->exports;
        return 0;
      case TREL_EXPORT_R:
        return copyList<kind::R>();
      case TREL_EXPORT_V:
        return copyList<kind::V>();
      case TREL_EXPORT_IR:
        return copyList<kind::IR>();
      case TREL_EXPORT_IV:
        return copyList<kind::IV>();
      case TREL_EXPORT_DEPENDENT:
        return trelCreateDependentNodeList(copy_, nullptr, nullptr, nullptr, *wanted_.maxIdSize, 0,
                                           1);
      default:
        return copyBytesOf(from, to, form.leastUsed);
    }
  }

  uint32_t copyBytesOf(ExportSlot_t* from, ExportSlot_t* to, uint64_t bytes) {
    if (bytes > from->size || bytes > to->size) return TREL_RC_SLOT_USED;
    memcpy(inSection(copy_, to), inSection(source_, from), static_cast<size_t>(bytes));
    to->used = bytes;
    return 0;
  }

  // A header and an identifier behind it.
  uint32_t copyNamed(ExportSlot_t* from, ExportSlot_t* to, uint64_t header, uint64_t idSize) {
    return idSize > TREL_MAX_ID_SIZE ? uint32_t{TREL_RC_NODE_ID_SIZE}
                                     : copyBytesOf(from, to, header + idSize);
  }

  uint32_t copyParent(ExportSlot_t* from, ExportSlot_t* to) {
    const uint64_t idSize = inSection<ParentSection_t>(source_, from)->parent.idSize;
    if (const uint32_t rc = copyNamed(from, to, sizeof(ParentSection_t), idSize)) return rc;
    SNodeInfo_t& parent = inSection<ParentSection_t>(copy_, to)->parent;
    parent.nodeOffset = wanted_.parent.nodeOffset;
    parent.segInfoOffset = wanted_.parent.segInfoOffset;
    parent.hdmInfoOffset = wanted_.parent.hdmInfoOffset;
    parent.segBase = wanted_.parent.segBase;
    parent.selfOffset = nodeOffset_ + offsetOf(&parent, copy_);
    return 0;
  }

  uint32_t copyBaseR() {
    uint64_t tag = 0;
    int32_t value = 0;
    if (const uint32_t rc = trelReturnBaseRProperty(source_, &tag, 1)) return rc;
    if (const uint32_t rc = trelGetValueForBaseRProperty(source_, tag, &value, 1)) return rc;
    return trelCreateBaseRProperty(copy_, tag, value, 1);
  }

  uint32_t copyBaseV(uint64_t maxValueSize) {
    uint64_t tag = 0, size = 0;
    uint8_t* value = nullptr;
    if (const uint32_t rc = trelReturnBaseVProperty(source_, &tag, &size, 1)) return rc;
    if (const uint32_t rc = trelGetValueForBaseVProperty(source_, tag, &size, &value, nullptr, 1))
      return rc;
    return trelCreateBaseVProperty(copy_, tag, value, size, maxValueSize, 1);
  }

  template <class K>
  uint32_t copyList() {
    const auto& part = partOf<K>(limits_);
    uint32_t rc = 0;
    if constexpr (K::hasId && K::hasBytes)
      rc = trelCreateIVPropertyList(copy_, nullptr, nullptr, nullptr, part.maxIdSize, nullptr,
                                    nullptr, part.maxValueSize, 0, part.tagTableSize,
                                    part.idTableSize, part.maximum, part.hashFlag, 1);
    else if constexpr (K::hasId)
      rc = trelCreateIRPropertyList(copy_, nullptr, nullptr, nullptr, nullptr, part.maxIdSize, 0,
                                    part.tagTableSize, part.idTableSize, part.maximum,
                                    part.hashFlag, 1);
    else if constexpr (K::hasBytes)
      rc = trelCreateVPropertyList(copy_, nullptr, nullptr, nullptr, part.maxValueSize, 0,
                                   part.maximum, part.hashFlag, 1);
    else
      rc = trelCreateRPropertyList(copy_, nullptr, nullptr, 0, part.maximum, part.hashFlag, 1);
    return rc || part.current == 0 ? rc : copyProperties<K>(source_, copy_);
  }

  uint32_t keepDependents() {
    if (copy_->exports & TREL_EXPORT_DEPENDENT) {
      DependentList from, to;
      if (const uint32_t rc = locateDependents(source_, &from)) return rc;
      if (const uint32_t rc = locateDependents(copy_, &to)) return rc;
      DependentWalk walk(from);
      for (SNodeInfo_t* entry = nullptr;;) {
        if (const uint32_t rc = walk.next(&entry)) return rc;
        if (!entry) break;
        if (entry->idSize > from.maxIdSize) return TREL_RC_ID_BOUNDS;
        if (const uint32_t rc = appendDependent(to, *entry, idOf(entry))) return rc;
      }
    }
    wanted_.info->nodeOffset = nodeOffset_;
    wanted_.info->nodeTag = copy_->tag;
    wanted_.info->idSize = idSize_;
    return 0;
  }

  // The copy's list is new, and nothing is twice in the source's.
  uint32_t appendDependent(const DependentList& list, SNodeInfo_t record, const uint8_t* id) {
    const uint64_t used = list.slot->used;
    if (record.idSize > list.maxIdSize) return TREL_RC_PROPERTY_ID_SIZE;
    if (list.maxIdSize == 0 || used + list.stride() > list.slot->size)
      return TREL_RC_DEPENDENTS_FULL;
    translation_.apply(&record);
    storeDependent(copy_, inSection<SNodeInfo_t>(copy_, list.slot, used), &record, id,
                   record.idSize);
    list.slot->used = used + list.stride();
    return countReconfiguration(copy_);
  }

  const NodeCopy& wanted_;
  SNodeCB_t* source_;
  SNodeCB_t* copy_;
  uint64_t nodeOffset_;
  const NodeCopyLimits_t& limits_;
  const Translation& translation_;
  uint64_t idSize_ = 0;  // of the node's own identifier
};

// The record by which the copy's parent, in the same memory, will name it.
uint32_t nameCopy(const NodeCopy& wanted, uint64_t nodeOffset) {
  const uint64_t idSize = *wanted.idSize;
  if (idSize) memmove(wanted.idOut, wanted.id, static_cast<size_t>(idSize));
  *wanted.idSizeOut = idSize;
  *wanted.maxIdSizeOut = *wanted.maxIdSize;
  if (wanted.dstSegInfo)
    return trelAddStatusNodeInfo(wanted.info, wanted.dstSegInfo, wanted.dstSegInfo, nodeOffset,
                                 *wanted.nodeTag, idSize, nullptr, wanted.hdmModule);
  uint64_t module = 0;
  if (const uint32_t rc = enterModuleInPM(wanted.hdmModule, &module)) return rc;
  *wanted.info = {nodeOffset, *wanted.nodeTag, idSize, 0, 0, module, 0};
  return 0;
}

constexpr bool isLimits(uint32_t copyLimits) {
  return copyLimits == TREL_COPY_LIMITS_KEEP || copyLimits == TREL_COPY_LIMITS_CHANGE_LIST;
}

uint32_t makeBlock(const NodeCopy& wanted, const Plan& plan, SNodeCB_t** dst,
                   uint64_t* nodeOffset) {
  uint64_t size = 0;
  switch (wanted.copyDirection) {
    case TREL_COPY_SHM_TO_PM: {
      const SegIdentity_t& identity = wanted.srcSegInfo->identity;
      return trelCreateNodeInPM(dst, plan.exports, plan.sizes, &size, nodeOffset,
                                identity.handleVersion, identity.latchVersion);
    }
    case TREL_COPY_PM_TO_SHM:
    case TREL_COPY_SHM_TO_SHM:
      return trelCreateNode(wanted.dstSegInfo, dst, plan.exports, plan.sizes, &size, nodeOffset);
    default:
      return TREL_RC_COPY_DIRECTION;
  }
}

// The copy but for its name. The caller is inside the source's section.
uint32_t copyInside(const NodeCopy& wanted, uint32_t copyDependents, const Translation& translation,
                    SNodeCB_t** dst, uint64_t* nodeOffset) {
  Plan plan;
  if (const uint32_t rc = plan.make(wanted.src, wanted.copyLimits, *wanted.maxIdSize)) return rc;
  plan.limits.copyDependents = copyDependents;
  if (const uint32_t rc = makeBlock(wanted, plan, dst, nodeOffset)) return rc;
  return Filling(wanted, *dst, *nodeOffset, plan.limits, translation).run();
}

}  // namespace

uint32_t checkCopyName(const NodeCopy& wanted, uint32_t copyDependents) {
  if (!wanted.maxIdSize) return TREL_RC_ID_SIZES_NULL;
  if (!wanted.info) return TREL_RC_NODE_INFO_NULL;
  if (copyDependents == TREL_COPY_DEPENDENTS_SAME) return 0;
  if (copyDependents != TREL_COPY_DEPENDENTS_EMPTY) return TREL_RC_COPY_LIMITS;
  if (!wanted.nodeTag) return TREL_RC_TAGS_NULL;
  if (!wanted.idSize || !wanted.idSizeOut || !wanted.maxIdSizeOut) return TREL_RC_ID_SIZES_NULL;
  if (*wanted.idSize > TREL_MAX_ID_SIZE) return TREL_RC_NODE_ID_SIZE;
  return *wanted.idSize && (!wanted.id || !wanted.idOut) ? uint32_t{TREL_RC_ID_NULL} : 0;
}

uint32_t checkCopy(const NodeCopy& wanted, uint32_t copyDependents) {
  if (!wanted.src) return TREL_RC_NODE_NULL;
  if (!wanted.srcSegInfo && wanted.copyDirection != TREL_COPY_PM_TO_SHM)
    return TREL_RC_SEGMENT_NULL;
  if (!wanted.dstSegInfo && wanted.copyDirection != TREL_COPY_SHM_TO_PM)
    return TREL_RC_SEGMENT_NULL;
  if (!isLimits(wanted.copyLimits)) return TREL_RC_COPY_LIMITS;
  return checkCopyName(wanted, copyDependents);
}

const void* inSegment(const ShmSegInfo_t* segInfo, uint64_t offset, uint64_t size) {
  const AttachLatch latch;
  const ShmDomainHandle_t* domain = segInfo->shmDomainHandle;
  return domain && liesInDomain(domain, offset, size) ? at<const void>(domain->base, offset)
                                                      : nullptr;
}

uint32_t linkDependent(SNodeCB_t* node, SNodeInfo_t* record, const uint8_t* id, uint64_t idSize,
                       uint64_t inCriticalSection) {
  if (idSize && !id) return TREL_RC_ID_NULL;
  if (record->nodeTag == 0 || record->nodeTag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  return within<Access::write>(node, inCriticalSection, [&] {
    return addDependent(node, record, {record->nodeTag, id, idSize, true}, true);
  });
}

uint32_t copyNode(const NodeCopy& wanted, uint32_t copyDependents, SNodeCB_t** dst,
                  uint64_t* nodeSize) {
  const bool keepsDependents = copyDependents == TREL_COPY_DEPENDENTS_SAME;
  Translation translation(keepsDependents ? wanted.srcSegInfo : nullptr, wanted.dstSegInfo);
  uint64_t nodeOffset = 0;
  if (!isLimits(wanted.copyLimits)) return TREL_RC_COPY_LIMITS;
  for (bool known = false; !known;) {
    const uint32_t rc = within<Access::read>(wanted.src, 0, [&]() -> uint32_t {
      if (const uint32_t failure = translation.collect(wanted.src, &known)) return failure;
      return known ? copyInside(wanted, copyDependents, translation, dst, &nodeOffset) : 0;
    });
    if (rc) return rc;
    if (const uint32_t failure = translation.enter()) return failure;
  }
  *nodeSize = (*dst)->nodeSize;
  return keepsDependents ? 0 : nameCopy(wanted, nodeOffset);
}

uint32_t copyNodeData(const NodeCopy& wanted, SNodeCB_t* dst, uint64_t nodeOffset,
                      const NodeCopyLimits_t& limits) {
  const Translation none(nullptr, nullptr);
  if (const uint32_t rc = Filling(wanted, dst, nodeOffset, limits, none).run()) return rc;
  return limits.copyDependents == TREL_COPY_DEPENDENTS_SAME ? 0 : nameCopy(wanted, nodeOffset);
}

}  // namespace trel
