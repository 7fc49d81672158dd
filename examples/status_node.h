// One group of figures as one status node.
//
// The node describes itself, so that a reader needs to know nothing beforehand:
//   R        tag i: register i
//   IR       tag j, identifier: figure j of one of several alike things (cpu0, eth0)
//   V        tag i: "label\tunit" of register i; kInstanceLabels + j: of figure j;
//            kTexts + n: "label\ttext"
//   IV       tag kMount, identifier: a mount point, and what is mounted there
//   Base V   the group's title; Base R: a count of its updates
#pragma once

#include <map>

#include "machine.h"
#include "trel/trel.h"

constexpr uint64_t kInstanceLabels = 0x10000;
constexpr uint64_t kTexts = 0x20000;
constexpr uint64_t kMount = 1;
constexpr uint64_t kBaseTag = 1;
constexpr uint64_t kIdSpace = 64;     // bytes of the longest identifier
constexpr uint64_t kTextSpace = 128;  // bytes of the longest text

// Tags of the nodes in the tree.
constexpr uint64_t kMachineTag = 1, kGroupTag = 10, kProcessTag = 20;

class StatusNode {
 public:
  // Makes a node in the segment, fills and activates it, and enters it under its parent, which may
  // lie in another segment; without a parent it is a top node. 0 or a return code.
  uint32_t create(ShmSegInfo_t* segment, const Group& group, uint64_t tag,
                  StatusNode* parent = nullptr, uint64_t dependents = 0);
  // Leaves the parent's list, and gives the block back.
  uint32_t remove();
  // The node has been copied: goes on with the copy.
  void moveTo(SNodeCB_t* copy, ShmSegInfo_t* segment, StatusNode* parent);
  // A node that somebody else made, to be a parent here.
  void adopt(SNodeCB_t* node, ShmSegInfo_t* segment);

  // Brings the node to the group's present figures, as one change that no reader sees halfway, and
  // beats its heart.
  uint32_t update(const Group& group);

  SNodeCB_t* cb() const { return cb_; }
  uint64_t offset() const { return offset_; }
  const std::string& name() const { return name_; }
  uint64_t tag() const { return tag_; }

 private:
  uint32_t addLabel(uint64_t tag, const std::string& label, const std::string& value);
  uint32_t publish(const Group& group);
  uint32_t publishRegisters(const Group& group);
  uint32_t publishInstances(const Group& group);
  uint32_t publishTexts(const Group& group);

  uint32_t enterUnderParent();

  ShmSegInfo_t* segment_ = nullptr;
  StatusNode* parent_ = nullptr;
  std::string name_;
  uint64_t tag_ = 0;
  SNodeCB_t* cb_ = nullptr;
  uint64_t offset_ = 0;
  std::map<std::string, uint64_t> tags_;                        // of registers, by label
  std::map<std::string, uint64_t> instanceTags_;                // of figures, by label
  std::map<std::pair<uint64_t, std::string>, bool> instances_;  // published, and seen just now
  std::map<std::string, bool> mounts_;
  std::map<std::string, uint64_t> textTags_;
};

// Prints what failed, and the text of the code.
bool failed(const char* what, uint32_t code);
