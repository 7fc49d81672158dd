// The copy of a node.
//
// The source stands still from the first look at it to the last: in its read section, or where it
// may only be read, in one look, which may be repeated. The copy's write section is taken inside:
// source first, then copy, is the order of the two everywhere.
#include "treli/node_copy.h"

#include "trel/copy.h"
#include "treli/attach_latch.h"
#include "treli/base_property.h"
#include "treli/list_creation.h"
#include "treli/node_making.h"
#include "treli/node_record.h"
#include "treli/node_return.h"
#include "treli/property_copy.h"
#include "treli/reach.h"
#include "treli/recreation.h"
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
constexpr SectionForm kList = {TREL_EXPORT_DEPENDENT, kDependentHeader};
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
    kList,
};

// A section of a node that the copy reads, and whether it was ever filled.
struct FoundSection : Section {
  bool filled = false;
};

// A list of dependents that has become empty is off, but it is there: its room goes with the copy.
uint32_t findSection(SNodeCB_t* source, const SectionForm& form, FoundSection* found) {
  const bool on = once(source->exports) & form.bit;
  if (!on && form.bit != TREL_EXPORT_DEPENDENT) return TREL_RC_COPY_NO_SECTION;
  if (const uint32_t rc = openSection(source, form.bit, found)) return rc;
  found->filled = found->used >= form.leastUsed;
  return on || found->filled ? 0 : uint32_t{TREL_RC_COPY_NO_SECTION};
}

// ---- Other memories: identities and modules --------------------------------------------------

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

// What the source holds, as the copy's limits, and the size of each of the copy's sections: that of
// the source's, unless the limit of its list is to be another.
class Plan {
 public:
  NodeCopyLimits_t limits = {};
  uint64_t listMaxIdSize;  // of the copy's list of dependents
  uint64_t exports = 0;
  uint64_t sizes[TREL_SLOTS] = {};

  explicit Plan(const NodeCopy& wanted)
      : listMaxIdSize(*wanted.maxIdSize), source_(wanted.src), keepsRoom_(wanted.keepsRoom) {}

  // The caller is inside the source's section.
  uint32_t make(uint32_t copyLimits) {
    bool wishes = false;
    exports = source_->exports;
    if (copyLimits == TREL_COPY_LIMITS_CHANGE_LIST)
      if (const uint32_t rc = readChanges(&wishes)) return rc;
    FoundSection list;
    if (!(source_->exports & TREL_EXPORT_DEPENDENT) && findSection(source_, kList, &list) == 0)
      exports |= TREL_EXPORT_DEPENDENT;
    for (const SectionForm& form : kSections)
      if (const uint32_t rc = survey(form)) return rc;
    if (wishes) apply();
    return resize();
  }

 private:
  uint32_t readChanges(bool* wishes) {
    if (!(source_->exports & TREL_EXPORT_CHANGE_LIST)) return 0;
    Section section;
    if (const uint32_t rc = openSection(source_, TREL_EXPORT_CHANGE_LIST, &section)) return rc;
    if (section.used < sizeof changes_) return 0;
    memcpy(&changes_, section.at(), sizeof changes_);
    exports = changes_.exports;
    *wishes = true;
    return 0;
  }

  uint32_t survey(const SectionForm& form) {
    if (!(exports & form.bit)) return 0;
    FoundSection found;
    const uint32_t rc = findSection(source_, form, &found);
    if (rc == TREL_RC_COPY_NO_SECTION) return 0;  // is refused once the block is there
    if (rc) return rc;
    sizes[slotNumber(form.bit)] = found.size;
    if (!found.filled) return 0;
    filled_ |= form.bit;
    switch (form.bit) {
      case TREL_EXPORT_R:
        return surveyList<kind::R>();
      case TREL_EXPORT_V:
        return surveyList<kind::V>();
      case TREL_EXPORT_IR:
        return surveyList<kind::IR>();
      case TREL_EXPORT_IV:
        return surveyList<kind::IV>();
      case TREL_EXPORT_DEPENDENT:
        return surveyDependents(found);
      default:
        return 0;
    }
  }

  // The first table of a list in hash form stays as it is, or is to have a bucket for each property
  // that is reported to fit.
  template <class K>
  uint32_t surveyList() {
    const auto& part = partOf<K>(limits);
    if (const uint32_t rc = trel::surveyList<K>(source_, &limits)) return rc;
    if (part.hashFlag == 0) return 0;
    if (keepsRoom_)
      partOf<K>(limits).maximum = part.hashSize;
    else
      resized_ |= K::bit;
    return 0;
  }

  uint32_t surveyDependents(const Section& section) {
    const uint64_t maxIdSize = once(section.at<DependentHeader>()->maxIdSize);
    if (maxIdSize > TREL_MAX_ID_SIZE) return TREL_RC_DEPENDENT_ID_MAX;
    if (maxIdSize) {
      const uint64_t stride = maxIdSize + sizeof(SNodeInfo_t);
      limits.currentDependents = (section.used - kDependentHeader) / stride;
      limits.maxDependents = (section.size - kDependentHeader) / stride;
    }
    if (keepsRoom_)
      listMaxIdSize = maxIdSize;
    else
      resized_ |= TREL_EXPORT_DEPENDENT;
    return 0;
  }

  // A wish counts if it has room for what there is.
  void apply() {
    const auto take = [&](uint32_t bit, uint64_t wish, uint64_t current, uint64_t* maximum,
                          bool zeroCounts) {
      if (!(filled_ & bit) || wish < current || (wish == 0 && !zeroCounts)) return;
      *maximum = wish;
      resized_ |= bit;
    };
    const TrelU32* const words = changes_.words;  // auto would drop that they are unaligned
    take(TREL_EXPORT_R, words[0], limits.r.current, &limits.r.maximum, !keepsRoom_);
    take(TREL_EXPORT_V, words[1], limits.v.current, &limits.v.maximum, !keepsRoom_);
    take(TREL_EXPORT_IR, words[2], limits.ir.current, &limits.ir.maximum, !keepsRoom_);
    take(TREL_EXPORT_IV, words[3], limits.iv.current, &limits.iv.maximum, !keepsRoom_);
    take(TREL_EXPORT_DEPENDENT, words[4], limits.currentDependents, &limits.maxDependents, false);
  }

  uint32_t resize() {
    if (resized_ == 0) return 0;
    NodeCopyLimits_t named = limits;
    named.maxNodeIdSize = listMaxIdSize;
    uint64_t fresh[TREL_SLOTS], total = 0;
    if (const uint32_t rc = sizeSections(resized_, named, fresh, &total)) return rc;
    for (const SectionForm& form : kSections)
      if (resized_ & form.bit) sizes[slotNumber(form.bit)] = fresh[slotNumber(form.bit)];
    uint64_t& ir = sizes[slotNumber(TREL_EXPORT_IR)];
    if ((resized_ & TREL_EXPORT_IR) && limits.ir.hashFlag && ir < leastHashedIR())
      ir = leastHashedIR();
    return 0;
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

  SNodeCB_t* source_;
  bool keepsRoom_;
  ChangeListSection_t changes_ = {};
  uint64_t filled_ = 0, resized_ = 0;  // sections
};

// ---- Filling ---------------------------------------------------------------------------------

// Fills a block. The caller holds the source's section; the copy's is taken here.
class Filling {
 public:
  Filling(const NodeCopy& wanted, SNodeCB_t* copy, uint64_t nodeOffset,
          const NodeCopyLimits_t& limits, uint64_t listMaxIdSize, const Translation& translation)
      : wanted_(wanted),
        source_(wanted.src),
        copy_(copy),
        nodeOffset_(nodeOffset),
        limits_(limits),
        listMaxIdSize_(listMaxIdSize),
        translation_(translation) {}

  uint32_t run() {
    return within<Access::write>(copy_, 0, [&]() -> uint32_t {
      copyHeader();
      if (const uint32_t rc = copyCounters()) return rc;
      const uint64_t sections = copy_->exports;
      if (!(source_->exports & TREL_EXPORT_DEPENDENT)) exportDependents(copy_, false);
      for (const SectionForm& form : kSections) {
        if (!(sections & form.bit)) continue;
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
    FoundSection from;
    Section to;
    if (const uint32_t rc = findSection(source_, form, &from)) return rc;
    if (const uint32_t rc = openSection(copy_, form.bit, &to)) return rc;
    if (!from.filled) {
      const uint64_t header = form.leastUsed < to.size ? form.leastUsed : to.size;
      memset(to.at(), 0, static_cast<size_t>(header));
      storeUsed(&to, form.bit, 0);
      return 0;
    }
    switch (form.bit) {
      case TREL_EXPORT_ID: {
        idSize_ = once(from.at<IdSection_t>()->idSize);
        return copyNamed(from, &to, form.bit, sizeof(IdSection_t), idSize_);
      }
      case TREL_EXPORT_PARENT:
        return copyParent(from, &to);
      case TREL_EXPORT_BASE_R:
        return copyBase<kind::BaseR>();
      case TREL_EXPORT_BASE_V:
        return copyBase<kind::BaseV>();
      case TREL_EXPORT_CHANGE_LIST:
        if (const uint32_t rc = copyBytesOf(from, &to, form.bit, form.leastUsed)) return rc;
        to.at<ChangeListSection_t>()->exports = copy_->exports;
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
        return makeList();
      default:
        return copyBytesOf(from, &to, form.bit, form.leastUsed);
    }
  }

  uint32_t copyBytesOf(const Section& from, Section* to, uint32_t exportBit, uint64_t bytes) {
    if (bytes > from.size || bytes > to->size) return TREL_RC_SLOT_USED;
    memcpy(to->at(), from.at(), static_cast<size_t>(bytes));
    storeUsed(to, exportBit, bytes);
    return 0;
  }

  // A header and an identifier behind it.
  uint32_t copyNamed(const Section& from, Section* to, uint32_t exportBit, uint64_t header,
                     uint64_t idSize) {
    return idSize > TREL_MAX_ID_SIZE ? uint32_t{TREL_RC_NODE_ID_SIZE}
                                     : copyBytesOf(from, to, exportBit, header + idSize);
  }

  uint32_t copyParent(const Section& from, Section* to) {
    const uint64_t idSize = once(from.at<ParentSection_t>()->parent.idSize);
    if (const uint32_t rc =
            copyNamed(from, to, TREL_EXPORT_PARENT, sizeof(ParentSection_t), idSize))
      return rc;
    SNodeInfo_t& parent = to->at<ParentSection_t>()->parent;
    parent.nodeOffset = wanted_.parent.nodeOffset;
    parent.segInfoOffset = wanted_.parent.segInfoOffset;
    parent.hdmInfoOffset = wanted_.parent.hdmInfoOffset;
    parent.segBase = wanted_.parent.segBase;
    parent.selfOffset = nodeOffset_ + offsetOf(&parent, copy_);
    return 0;
  }

  template <class K>
  uint32_t copyBase() {
    List<K> from;
    Key key;
    Value value;
    if (const uint32_t rc = checkCondition(source_, accept::usable)) return rc;
    if (const uint32_t rc = openLimits(source_, &from)) return rc;
    if (from.fault) return from.fault;
    if (K::hasBytes && (from.maxValueSize == 0 || from.maxValueSize > TREL_MAX_VALUE_SIZE))
      return TREL_RC_VALUE_MAX;
    if (!from.holds(from.offset, bytesInUse(from))) return Codes<K>::bounds;
    if (const uint32_t rc =
            readRecord(from, from.recordAt(from.offset + Form<K>::flatHeader), &key, &value))
      return rc;
    return writeBase<K>(copy_, round8(from.maxValueSize), key, value, 1);
  }

  template <class K>
  uint32_t copyList() {
    const auto& part = partOf<K>(limits_);
    NewList wanted = {0, 0, 0, 0, part.maximum, part.hashFlag};
    if constexpr (K::hasId) {
      wanted.maxIdSize = part.maxIdSize;
      wanted.tagTable = part.tagTableSize;
      wanted.idTable = part.idTableSize;
    }
    if constexpr (K::hasBytes) wanted.maxValueSize = part.maxValueSize;
    const uint32_t rc = createList<K>(copy_, {}, wanted, 1);
    return rc || part.current == 0 ? rc : copyProperties<K>(source_, copy_);
  }

  uint32_t makeList() {
    if (listMaxIdSize_ > TREL_MAX_ID_SIZE) return TREL_RC_NODE_ID_MAX;
    if (const uint32_t rc = checkCondition(copy_, accept::settled)) return rc;
    DependentList list;
    if (const uint32_t rc = openSection(copy_, TREL_EXPORT_DEPENDENT, &list)) return rc;
    if (list.size < kDependentHeader) return TREL_RC_DEPENDENT_SECTION_SMALL;
    clearDependents(&list, round8(listMaxIdSize_));
    return 0;
  }

  // Nothing is twice in the source's list.
  uint32_t keepDependents() {
    if (copy_->exports & TREL_EXPORT_DEPENDENT) {
      DependentList from;
      if (const uint32_t rc = locateDependents(source_, &from)) return rc;
      DependentWalk walk(from);
      for (SNodeInfo_t* entry = nullptr;;) {
        if (const uint32_t rc = walk.next(&entry)) return rc;
        if (!entry) break;
        SNodeInfo_t record = copyOnce(entry);
        if (record.idSize > from.maxIdSize) return TREL_RC_ID_BOUNDS;
        translation_.apply(&record);
        if (const uint32_t rc = appendDependent(copy_, &record, idOf(entry))) return rc;
      }
    }
    wanted_.info->nodeOffset = nodeOffset_;
    wanted_.info->nodeTag = copy_->tag;
    wanted_.info->idSize = idSize_;
    return 0;
  }

  const NodeCopy& wanted_;
  SNodeCB_t* source_;
  SNodeCB_t* copy_;
  uint64_t nodeOffset_;
  const NodeCopyLimits_t& limits_;
  uint64_t listMaxIdSize_;
  const Translation& translation_;
  uint64_t idSize_ = 0;  // of the node's own identifier
};

// The record by which the copy's parent, in the same memory, will name it.
uint32_t nameCopy(const NodeCopy& wanted, uint64_t nodeOffset) {
  const uint64_t idSize = *wanted.idSize;
  if (idSize) memmove(wanted.idOut, wanted.id, static_cast<size_t>(idSize));
  *wanted.idSizeOut = idSize;
  *wanted.maxIdSizeOut = *wanted.maxIdSize;
  if (!wanted.dstSegInfo)
    return recordNodeInPM(wanted.info, nodeOffset, *wanted.nodeTag, idSize, wanted.hdmModule);
  if (*wanted.nodeTag > TREL_MAX_TAG) return TREL_RC_TAG_RANGE;
  return recordNode(wanted.info, wanted.dstSegInfo, wanted.dstSegInfo, nodeOffset, *wanted.nodeTag,
                    idSize, wanted.hdmModule);
}

constexpr bool isLimits(uint32_t copyLimits) {
  return copyLimits == TREL_COPY_LIMITS_KEEP || copyLimits == TREL_COPY_LIMITS_CHANGE_LIST;
}

uint32_t makeBlock(const NodeCopy& wanted, const Plan& plan, SNodeCB_t** dst,
                   uint64_t* nodeOffset) {
  uint64_t total = 0;
  if (const uint32_t rc = sumSizes(plan.sizes, &total)) return rc;
  switch (wanted.copyDirection) {
    case TREL_COPY_SHM_TO_PM: {
      const SegIdentity_t& identity = wanted.srcSegInfo->identity;
      if (identity.handleVersion != TREL_STRUCTURE_VERSION) return TREL_RC_HANDLE_VERSION;
      return makeNodeInPM(plan.exports, plan.sizes, total, identity.latchVersion, dst, nodeOffset);
    }
    case TREL_COPY_PM_TO_SHM:
    case TREL_COPY_SHM_TO_SHM:
      return makeNode(wanted.dstSegInfo, plan.exports, plan.sizes, total, dst, &total, nodeOffset);
    default:
      return TREL_RC_COPY_DIRECTION;
  }
}

// The copy but for its name. The caller is inside the source's section.
uint32_t copyInside(const NodeCopy& wanted, uint32_t copyDependents, const Translation& translation,
                    SNodeCB_t** dst, uint64_t* nodeOffset) {
  Plan plan(wanted);
  if (const uint32_t rc = plan.make(wanted.copyLimits)) return rc;
  plan.limits.copyDependents = copyDependents;
  if (const uint32_t rc = makeBlock(wanted, plan, dst, nodeOffset)) return rc;
  if (wanted.intent) noteCopy(wanted.intent, *nodeOffset, birthStamp(*dst));
  return Filling(wanted, *dst, *nodeOffset, plan.limits, plan.listMaxIdSize, translation).run();
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

uint32_t appendDependent(SNodeCB_t* node, SNodeInfo_t* record, const uint8_t* id) {
  DependentList list;
  if (const uint32_t rc = locateDependents(node, &list)) return rc;
  const uint64_t idSize = record->idSize;
  if (idSize > list.maxIdSize) return TREL_RC_PROPERTY_ID_SIZE;
  if (list.maxIdSize == 0 || list.used + list.stride() > list.size) return TREL_RC_DEPENDENTS_FULL;
  if (list.live == TREL_MAX_DEPENDENTS) return TREL_RC_DEPENDENT_COUNT;
  storeDependent(node, list.at<SNodeInfo_t>(list.used), record, id, idSize);
  list.setUsed(list.used + list.stride());
  return countReconfiguration(node);
}

uint32_t copyNode(const NodeCopy& wanted, uint32_t copyDependents, SNodeCB_t** dst,
                  uint64_t* nodeSize, ListImage* image) {
  const bool keepsDependents = copyDependents == TREL_COPY_DEPENDENTS_SAME;
  Translation translation(keepsDependents ? wanted.srcSegInfo : nullptr, wanted.dstSegInfo);
  uint64_t nodeOffset = 0;
  SNodeCB_t* made = nullptr;
  if (!isLimits(wanted.copyLimits)) return TREL_RC_COPY_LIMITS;
  for (bool known = false; !known;) {
    const uint32_t rc = standing(wanted.src, [&]() -> uint32_t {
      dropCopy(&made, wanted.dstSegInfo);  // of a look that did not count
      if (const uint32_t failure = translation.collect(wanted.src, &known)) return failure;
      if (!known) return 0;
      if (const uint32_t failure =
              copyInside(wanted, copyDependents, translation, &made, &nodeOffset))
        return failure;
      return image ? takeImage(wanted.src, image) : 0;
    });
    if (made) *dst = made;
    if (rc) return rc;
    if (const uint32_t failure = translation.enter()) return failure;
  }
  *nodeSize = (*dst)->nodeSize;
  return keepsDependents ? 0 : nameCopy(wanted, nodeOffset);
}

void dropCopy(SNodeCB_t** copy, const ShmSegInfo_t* dstSegInfo) {
  if (!dstSegInfo)
    release(copy);
  else if (*copy)
    giveNodeBack(copy, dstSegInfo->shmPoolHandle);
}

uint32_t copyNodeData(const NodeCopy& wanted, SNodeCB_t* dst, uint64_t nodeOffset,
                      const NodeCopyLimits_t& limits) {
  const Translation none(nullptr, nullptr);
  Filling filling(wanted, dst, nodeOffset, limits, *wanted.maxIdSize, none);
  if (const uint32_t rc = filling.run()) return rc;
  return limits.copyDependents == TREL_COPY_DEPENDENTS_SAME ? 0 : nameCopy(wanted, nodeOffset);
}

}  // namespace trel
