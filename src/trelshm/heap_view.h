// A storage heap as this process sees it: typed access to the header, the skip-list header and the
// node positions. All arithmetic on offsets of a heap is here.
//
// What lies in shared memory is not trusted, and is loaded once. open...() take the figures that
// everything else follows from, and every offset that is read from the heap passes one of the
// contains...() before it is used to reach memory. A heap that fails them answers with the code of
// a wrong heapState.
#pragma once

#include "platsvc/latch.h"
#include "trelshm/bytes.h"
#include "trelshm/heap_kind.h"
#include "trelshm/mapping.h"
#include "trelshm/store.h"

namespace trel {

constexpr uint64_t kAllocLinks = sizeof(AllocNode_t);  // links follow the fixed fields
constexpr uint64_t kFreeLinks = sizeof(FreeNode_t);

constexpr uint64_t allocNodeSize(uint64_t level) { return kAllocLinks + 8 * (level + 1); }
constexpr uint64_t freeNodeSize(uint64_t level) { return kFreeLinks + 32 * (level + 1); }
constexpr uint64_t slHeaderSizeOf(uint64_t maxLevel) { return 216 + 72 * maxLevel; }
constexpr uint64_t heapHeaderSizeOf(uint64_t userAreaSize) {
  return TREL_HEAP_HEADER_SIZE + round8(userAreaSize);
}

class Heap {
 public:
  Heap(const void* base, uint64_t offset, const HeapKind& kind)
      : base_(base), offset_(offset), kind_(&kind) {}

  // Reads the sizes of the header and tests that they fit each other and what is mapped. They never
  // change, so no latch is needed. To be called before anything behind the fixed fields is touched.
  uint32_t openHeader() {
    const HeapHeader_t* h = header();
    const MappedRange& range = rangeAround(h);
    const uint64_t mapped = (range.end - reinterpret_cast<uintptr_t>(h)) | range.unbounded;
    isReadOnly_ = range.readOnly;
    if (mapped < sizeof(HeapHeader_t)) return kind_->rcState;
    size_ = loadOnce(&h->heapSize);
    userAreaSize_ = loadOnce(&h->userAreaSize);
    if (size_ > mapped || userAreaSize_ > size_ || offset_ + size_ < offset_) return kind_->rcState;
    headerSize_ = heapHeaderSizeOf(userAreaSize_);
    return headerSize_ + slHeaderSizeOf(1) > size_ ? kind_->rcState : 0;
  }

  // The same for the skip lists. The caller holds heapLatch.
  uint32_t openLists() {
    maxLevel_ = loadOnce(&list()->maxLevel);
    space_ = loadOnce(&list()->slSpaceSize);
    nextNode_ = loadOnce(&list()->slNextNode);
    return maxLevel_ == 0 || maxLevel_ > TREL_HEAP_MAX_LEVEL || space_ > size_ - headerSize_ ||
                   nextNode_ < listHeaderSize() || nextNode_ > space_
               ? kind_->rcState
               : 0;
  }

  // Whether the process may only look at it.
  bool isReadOnly() const { return isReadOnly_; }
  const HeapKind& kind() const { return *kind_; }
  const void* base() const { return base_; }
  uint64_t offset() const { return offset_; }
  uint64_t size() const { return size_; }
  uint64_t end() const { return offset_ + size_; }
  uint64_t headerSize() const { return headerSize_; }
  uint64_t userAreaSize() const { return userAreaSize_; }
  uint64_t maxLevel() const { return maxLevel_; }
  uint64_t space() const { return space_; }
  void setSpace(uint64_t space) { list()->slSpaceSize = space_ = space; }
  // For creation, before the lists stand.
  void setMaxLevel(uint64_t maxLevel) { list()->maxLevel = maxLevel_ = maxLevel; }

  // slNextNode: where, from S, places begin that no node has had yet.
  uint64_t nextNode() const { return nextNode_; }
  void setNextNode(uint64_t offset) { list()->slNextNode = nextNode_ = offset; }

  template <class T>
  T* at(uint64_t offset) const {
    return trel::at<T>(base_, offset);
  }
  uint64_t load(uint64_t offset) const { return loadOnce(at<TrelU64>(offset)); }
  void store(uint64_t offset, uint64_t value) const {
    TrelU64* const word = at<TrelU64>(offset);  // a template argument drops that it is unaligned
    *word = value;
  }

  HeapHeader_t* header() const { return at<HeapHeader_t>(offset_); }
  HeapHeaderTail_t* tail() const {
    return at<HeapHeaderTail_t>(offset_ + headerSize_ - sizeof(HeapHeaderTail_t));
  }
  HeapIntent_t* intent() const {
    static_assert(PLAT_LATCH_BYTES + sizeof(HeapIntent_t) <= sizeof(ExclusiveLatch_t::latch), "");
    return at<HeapIntent_t>(offset_ + offsetof(HeapHeader_t, heapLatch) +
                            offsetof(ExclusiveLatch_t, latch) + PLAT_LATCH_BYTES);
  }
  HeapAside_t* aside() const {
    static_assert(PLAT_LATCH_BYTES + sizeof(HeapAside_t) <= sizeof(ExclusiveLatch_t::latch), "");
    return at<HeapAside_t>(offset_ + headerSize_ - sizeof(ExclusiveLatch_t) +
                           offsetof(ExclusiveLatch_t, latch) + PLAT_LATCH_BYTES);
  }
  void* userArea() const { return at<void>(offset_ + sizeof(HeapHeader_t)); }

  // The top node of a domain is counted from the exact user area, the list heads from the rounded.
  TrelU64& topNodeOffset() const { return *at<TrelU64>(offset_ + 248 + userAreaSize_); }
  TrelU64& topNodeTag() const { return *at<TrelU64>(offset_ + 256 + userAreaSize_); }
  TrelU64& segmentListHead() const { return tail()->words[2]; }
  DescriptionAnchor_t* description() const {
    return reinterpret_cast<DescriptionAnchor_t*>(tail()->reserved);
  }
  TrelU64& hdmListHead() const { return tail()->words[3]; }

  // The skip-list space. S is its offset.
  uint64_t listOffset() const { return offset_ + headerSize_; }
  SkipListHeader_t* list() const { return at<SkipListHeader_t>(listOffset()); }
  uint64_t listHeaderSize() const { return slHeaderSizeOf(maxLevel_); }
  uint64_t allocHead() const { return listOffset() + offsetof(SkipListHeader_t, allocHead); }
  TrelU64& freeListLevel() const { return freeListLevel(maxLevel_); }
  // For a reader who has not opened the lists.
  TrelU64& freeListLevel(uint64_t maxLevel) const {
    return *at<TrelU64>(listOffset() + 112 + 8 * maxLevel);
  }
  uint64_t freeHead() const { return listOffset() + 120 + 8 * maxLevel_; }
  uint64_t freeTail() const { return listOffset() + 168 + 40 * maxLevel_; }

  // The managed memory: from here to end(), in blocks of a multiple of 8.
  uint64_t spaceEnd() const { return listOffset() + space_; }
  uint64_t blocksEnd() const { return spaceEnd() + ((end() - spaceEnd()) & ~uint64_t{7}); }
  bool containsBlock(uint64_t offset, uint64_t size) const {
    return offset >= spaceEnd() && offset <= end() && size <= end() - offset;
  }
  // For the size of any node that maxLevel allows: the header alone has room for it.
  bool containsNode(uint64_t node, uint64_t size) const {
    return node - allocHead() <= space_ - offsetof(SkipListHeader_t, allocHead) - size;
  }

  AllocNode_t* alloc(uint64_t node) const { return at<AllocNode_t>(node); }
  FreeNode_t* free(uint64_t node) const { return at<FreeNode_t>(node); }
  // A node's fields as they are now.
  AllocNode_t loadAlloc(uint64_t node) const {
    const AllocNode_t* n = alloc(node);
    return {loadOnce(&n->blockOffset),   loadOnce(&n->blockSize), loadOnce(&n->dataOffset),
            loadOnce(&n->requestedSize), loadOnce(&n->level),     loadOnce(&n->callerFunction),
            loadOnce(&n->callerLine)};
  }

 private:
  const void* base_;
  uint64_t offset_;
  const HeapKind* kind_;
  uint64_t size_ = 0, userAreaSize_ = 0, headerSize_ = 0, maxLevel_ = 0, space_ = 0, nextNode_ = 0;
  bool isReadOnly_ = false;
};

}  // namespace trel
