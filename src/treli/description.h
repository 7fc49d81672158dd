// The description of a tree in its segment: reading it without a latch, adding to it, carrying it
// to another segment.
//
// Entries are appended: an entry is filled, then `used` takes it in, then the index names it. When
// a block is full a larger one takes its place: it is filled, generation counts, then the anchor
// leads to it. A reader takes generation first and compares it last. A block on the way to the
// anchor or from it is named by the domain's intent, as the entries of shared lists are, so that a
// death loses none.
#pragma once

#include "trel/describe.h"
#include "trelshm/heap_view.h"
#include "trelshm/live_nodes.h"

namespace trel {

// What names a value: a part of a property of a type of node.
struct DescriptionKey {
  uint64_t nodeTag, propertyTag;
  uint32_t exportBit, offset;

  static DescriptionKey of(const TrelDescription_t& d) {
    return {d.nodeTag, d.propertyTag, d.exportBit, d.offset};
  }
  static DescriptionKey of(const DescriptionEntry_t& e) {
    return {e.nodeTag, e.propertyTag, e.exportBit, e.offset};
  }
  bool operator==(const DescriptionKey& other) const {
    return nodeTag == other.nodeTag && propertyTag == other.propertyTag &&
           exportBit == other.exportBit && offset == other.offset;
  }
};

// A description block as a reader sees it: what decides on reach is loaded and tested once.
class DescriptionView {
 public:
  // False if no block lies at that offset of the segment.
  bool open(const Heap& domain, uint64_t offset);

  uint32_t generation() const { return generation_; }
  void setGeneration(uint32_t generation) { generation_ = generation; }

  uint32_t used() const { return used_; }
  uint32_t indexSize() const { return indexSize_; }
  uint32_t room() const { return size_ - first() - used_; }
  // Of the first entry, from the start of the block.
  uint32_t first() const {
    return static_cast<uint32_t>(sizeof(DescriptionBlock_t)) + 4 * indexSize_;
  }
  DescriptionBlock_t* block() const { return block_; }
  TrelU32* index() const { return at<uint32_t>(block_, sizeof(DescriptionBlock_t)); }
  const DescriptionEntry_t* entryAt(uint32_t position) const {
    return at<DescriptionEntry_t>(block_, position);
  }

  // The size of the entry at a position, 0 if none is there.
  uint32_t entrySize(uint32_t position) const;
  // The position of the entry for a key, 0 if there is none.
  uint32_t find(const DescriptionKey& key) const;
  // Takes the entry apart: the description, and up to `length` of its fields. False if damaged.
  bool decode(uint32_t position, TrelDescription_t* description,
              TrelDescription_t* fields = nullptr, uint32_t length = 0) const;
  // Calls work(position, size) for each entry, until it gives false.
  template <class Work>
  void forEach(Work&& work) const {
    for (uint32_t position = first(), size = 0; (size = entrySize(position)) != 0; position += size)
      if (!work(position, size)) return;
  }

 private:
  DescriptionBlock_t* block_ = nullptr;
  uint32_t size_ = 0, indexSize_ = 0, used_ = 0, generation_ = 0;
};

// What a reader saw of an anchor. A block that is replaced is another generation.
struct SeenAnchor {
  uint64_t block;
  uint32_t generation;

  static SeenAnchor of(const DescriptionAnchor_t* anchor) {
    const uint32_t generation = anchor->generation;
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return {anchor->place[generation & 1], generation};
  }
  bool stands(const DescriptionAnchor_t* anchor) const {
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return anchor->generation == generation && anchor->place[generation & 1] == block;
  }
};

// Runs work(view) on the description of a segment, again if another block took its place meanwhile.
// TREL_RC_NOT_DESCRIBED without one.
template <class Work>
uint32_t readDescription(const ShmSegInfo_t* segment, Work&& work) {
  Heap domain(segment->shmDomainHandle->base, segment->shmDomainHandle->heapOffset, kDomainKind);
  if (const uint32_t rc = domain.openHeader()) return rc;
  const DescriptionAnchor_t* anchor = domain.description();
  constexpr int kMostLooks = 1000;
  for (int i = 0; i < kMostLooks; ++i) {
    const SeenAnchor seen = SeenAnchor::of(anchor);
    if (seen.block == 0) return TREL_RC_NOT_DESCRIBED;
    DescriptionView view;
    view.setGeneration(seen.generation);
    const uint32_t rc =
        view.open(domain, seen.block) ? work(view) : uint32_t{TREL_RC_DESCRIPTION_DAMAGED};
    if (seen.stands(anchor)) return rc;
  }
  return TREL_RC_DESCRIPTION_DAMAGED;
}

// Adds an entry, or finds the same one. The tests of the texts have been made.
uint32_t addDescription(ShmSegInfo_t* segment, const TrelDescription_t& description,
                        const TrelDescription_t* fields);

// The publisher's record, null if there is none.
PublisherRecord_t* publisherOf(const ShmSegInfo_t* segment);
// A copy of it as it stood at one instant. TREL_RC_NOT_DESCRIBED if there is none.
uint32_t readPublisher(const ShmSegInfo_t* segment, PublisherRecord_t* record);
// Writes all of it but the mark, and makes it at need.
uint32_t changePublisher(ShmSegInfo_t* segment, const PublisherRecord_t& record);
// One store, at any moment.
void storeBeat(PublisherRecord_t* record, uint64_t time);

// A description with its publisher in process memory, on its way from one segment to another.
class DescriptionImage {
 public:
  uint32_t take(const ShmSegInfo_t* segment);
  uint32_t give(ShmSegInfo_t* segment) const;

 private:
  Records<uint8_t> entries_;
  uint64_t room_ = 0;
  uint32_t size_ = 0;
  PublisherRecord_t publisher_ = {};
};

}  // namespace trel
