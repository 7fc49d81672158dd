#include "status_node.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "platsvc/report.h"

namespace {

const uint8_t* bytes(const std::string& text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

std::string cut(const std::string& text, size_t size) { return text.substr(0, size); }

// Section sizes for lists in hash form that have room for twice what the group holds now.
struct Room {
  Room(const Group& group, uint64_t dependentCount)
      : dependents(dependentCount),
        registers(2 * group.registers.size() + 8),
        instances(2 * group.instances.size() + 8),
        mounts(2 * group.mounts.size() + 4),
        texts(registers + 16 + group.texts.size() + 8) {}

  std::array<uint64_t, 64> sizes() const {
    std::array<uint64_t, 64> s{};
    s[0] = 16 + kIdSpace;
    s[3] = 64 + kIdSpace;
    s[4] = 144;
    s[5] = 428 + kTextSpace;
    s[6] = 8 + 16 + prime(registers) * (8 + 152) + 8 * registers;
    s[7] = 16 + 16 + prime(texts) * (8 + 428 + kTextSpace) + 8 * texts;
    s[8] = list(32, instances, 588 + kIdSpace);
    s[9] = list(40, mounts, 476 + kIdSpace + kTextSpace);
    s[10] = 8 + dependents * (56 + kIdSpace);
    return s;
  }

  static uint64_t prime(uint64_t number) {
    uint64_t result = 0;
    trelGetPrimeNumber(number, &result);
    return result;
  }
  static uint64_t list(uint64_t header, uint64_t count, uint64_t node) {
    return header + 8 * 3 * prime(count) + 16 + prime(count) * node + 8 * count;
  }

  uint64_t dependents, registers, instances, mounts, texts;
};

}  // namespace

bool failed(const char* what, uint32_t code) {
  if (code) std::fprintf(stderr, "%s: %s (0x%x)\n", what, rcdErrorGetDescription(code), code);
  return code != 0;
}

uint32_t StatusNode::create(ShmSegInfo_t* segment, const Group& group, uint64_t tag,
                            StatusNode* parent, uint64_t dependents) {
  segment_ = segment;
  parent_ = parent;
  name_ = cut(group.name, kIdSpace);
  tag_ = tag;
  const Room room(group, dependents);
  const auto sizes = room.sizes();
  uint64_t size = 0, exports = TREL_EXPORT_ID | TREL_EXPORT_BASE_R | TREL_EXPORT_BASE_V |
                               TREL_EXPORT_R | TREL_EXPORT_V | TREL_EXPORT_IR | TREL_EXPORT_IV;
  if (parent) exports |= TREL_EXPORT_PARENT;
  if (dependents) exports |= TREL_EXPORT_DEPENDENT;
  uint32_t rc = trelCreateNode(segment, &cb_, exports, sizes.data(), &size, &offset_);
  if (rc) return rc;
  SNodeInfo_t up = {};
  if (parent)
    rc = trelAddStatusNodeInfo(&up, segment, parent->segment_, parent->offset_, parent->tag_,
                               parent->name_.size(), nullptr, nullptr);
  if (!rc)
    rc = trelInitNode(&cb_, offset_, name_.size(), bytes(name_), &up,
                      parent ? bytes(parent->name_) : nullptr, kIdSpace, nullptr, nullptr, nullptr);
  const std::string title = cut("figures of this machine: " + group.name, kTextSpace);
  if (!rc) rc = trelSetNodeTag(cb_, tag, 0);
  if (!rc) rc = trelCreateBaseRProperty(cb_, kBaseTag, 0, 0);
  if (!rc) rc = trelCreateBaseVProperty(cb_, kBaseTag, bytes(title), title.size(), kTextSpace, 0);
  if (!rc) rc = trelCreateRPropertyList(cb_, nullptr, nullptr, 0, room.registers, 1, 0);
  if (!rc)
    rc = trelCreateVPropertyList(cb_, nullptr, nullptr, nullptr, kTextSpace, 0, room.texts, 1, 0);
  if (!rc)
    rc = trelCreateIRPropertyList(cb_, nullptr, nullptr, nullptr, nullptr, kIdSpace, 0,
                                  room.instances, room.instances, room.instances, 1, 0);
  if (!rc)
    rc = trelCreateIVPropertyList(cb_, nullptr, nullptr, nullptr, kIdSpace, nullptr, nullptr,
                                  kTextSpace, 0, room.mounts, room.mounts, room.mounts, 1, 0);
  if (!rc && dependents)
    rc = trelCreateDependentNodeList(cb_, nullptr, nullptr, nullptr, kIdSpace, 0, 0);
  if (!rc) rc = trelActivateNode(&cb_);
  if (!rc) rc = update(group);
  return rc || !parent ? rc : enterUnderParent();
}

// A name that a publisher before this one left behind is taken over.
uint32_t StatusNode::enterUnderParent() {
  SNodeInfo_t record;
  const uint32_t rc = trelAddStatusNodeInfo(&record, parent_->segment_, segment_, offset_, tag_,
                                            name_.size(), nullptr, nullptr);
  return rc ? rc
            : trelAddDependentNode(parent_->cb_, &record, bytes(name_), name_.size(),
                                   TREL_ADD_REPLACE, 0);
}

uint32_t StatusNode::remove() {
  SNodeInfo_t record = {};
  record.nodeTag = tag_;
  record.idSize = name_.size();
  const uint32_t rc = trelDeleteDependentNode(parent_->cb_, &record, bytes(name_), 0);
  return rc ? rc : trelDisclaimNode(&cb_, segment_->shmPoolHandle, TREL_STRUCTURE_VERSION);
}

void StatusNode::moveTo(SNodeCB_t* copy, ShmSegInfo_t* segment, StatusNode* parent) {
  cb_ = copy;
  offset_ = copy->nodeOffset;
  segment_ = segment;
  parent_ = parent;
}

void StatusNode::adopt(SNodeCB_t* node, ShmSegInfo_t* segment) {
  uint8_t* id = nullptr;
  uint64_t size = 0;
  moveTo(node, segment, nullptr);
  tag_ = node->tag;
  if (trelGetNodeID(node, &id, &size, 0) == 0)
    name_.assign(reinterpret_cast<char*>(id), static_cast<size_t>(size));
}

uint32_t StatusNode::update(const Group& group) {
  uint32_t rc = trelEnterCriticalSectionBeforeWrite(cb_, &cb_->nodeLatchArea);
  if (rc) return rc;
  rc = publish(group);
  const uint32_t left = trelExitCriticalSectionAfterWrite(cb_, &cb_->nodeLatchArea);
  if (!rc) rc = left;
  return rc ? rc : trelUpdateNodeStatus(cb_);
}

uint32_t StatusNode::publish(const Group& group) {
  int32_t updates = 0;
  uint32_t rc = trelGetValueForBaseRProperty(cb_, kBaseTag, &updates, 1);
  if (!rc) rc = trelSetValueForBaseRProperty(cb_, kBaseTag, updates + 1, 1);
  if (!rc) rc = publishRegisters(group);
  if (!rc) rc = publishInstances(group);
  return rc ? rc : publishTexts(group);
}

uint32_t StatusNode::addLabel(uint64_t tag, const std::string& label, const std::string& value) {
  const std::string text = cut(label + "\t" + value, kTextSpace);
  return trelAddVProperty(cb_, tag, text.size(), bytes(text), 1);
}

uint32_t StatusNode::publishRegisters(const Group& group) {
  for (const Register& r : group.registers) {
    const auto known = tags_.find(r.label);
    uint32_t rc = 0;
    if (known != tags_.end()) {
      rc = trelSetValueForRProperty(cb_, known->second, r.value, 1);
    } else {
      const uint64_t tag = tags_.size() + 1;
      rc = trelAddRProperty(cb_, tag, r.value, 1);
      if (!rc) rc = addLabel(tag, r.label, r.unit);
      if (!rc) tags_[r.label] = tag;
    }
    if (rc) return rc;
  }
  return 0;
}

// Things come and go (interfaces, disks), so properties are added and deleted.
uint32_t StatusNode::publishInstances(const Group& group) {
  for (auto& instance : instances_) instance.second = false;
  for (const Instance& i : group.instances) {
    uint64_t& tag = instanceTags_[i.label];
    if (tag == 0) {
      tag = instanceTags_.size();
      if (const uint32_t rc = addLabel(kInstanceLabels + tag, i.label, i.unit)) return rc;
    }
    const std::string id = cut(i.id, kIdSpace);
    const auto known = instances_.find({tag, id});
    const uint32_t rc = known != instances_.end()
                            ? trelSetValueForIRProperty(cb_, tag, id.size(), bytes(id), i.value, 1)
                            : trelAddIRProperty(cb_, tag, id.size(), bytes(id), i.value, 1);
    if (rc) return rc;
    instances_[{tag, id}] = true;
  }
  for (auto i = instances_.begin(); i != instances_.end();) {
    const std::string& id = i->first.second;
    if (!i->second)
      if (const uint32_t rc = trelDeleteIRProperty(cb_, i->first.first, id.size(), bytes(id), 1))
        return rc;
    i = i->second ? std::next(i) : instances_.erase(i);
  }
  return 0;
}

uint32_t StatusNode::publishTexts(const Group& group) {
  for (const Text& t : group.texts) {
    if (textTags_.count(t.label)) continue;
    const uint64_t tag = kTexts + textTags_.size();
    if (const uint32_t rc = addLabel(tag, t.label, t.value)) return rc;
    textTags_[t.label] = tag;
  }
  for (auto& mount : mounts_) mount.second = false;
  for (const Text& m : group.mounts) {
    const std::string id = cut(m.label, kIdSpace), value = cut(m.value, kTextSpace);
    const uint32_t rc =
        mounts_.count(id)
            ? trelSetValueForIVProperty(cb_, kMount, id.size(), bytes(id), value.size(),
                                        bytes(value), 1)
            : trelAddIVProperty(cb_, kMount, id.size(), bytes(id), value.size(), bytes(value), 1);
    if (rc) return rc;
    mounts_[id] = true;
  }
  for (auto m = mounts_.begin(); m != mounts_.end();) {
    if (!m->second)
      if (const uint32_t rc =
              trelDeleteIVProperty(cb_, kMount, m->first.size(), bytes(m->first), 1))
        return rc;
    m = m->second ? std::next(m) : mounts_.erase(m);
  }
  return 0;
}
