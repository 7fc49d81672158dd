// The table of what this process has mapped: each domain that it has a handle on, with the bounds
// that no writer of the segment can move.
//
// Who enters and leaves: a domain enters when its handle is made, and leaves when the handle goes.
// Its bounds are those of the kernel's mapping; in access mode 3, where the memory is the caller's,
// the end of the heap as it was read when the handle was made. An attachment is published for its
// domain, so that it is found by its key and by its own address, and hidden before it ends.
//
// What a reader may assume: an address that the table does not know is memory of the caller's own,
// and is not bounded. What is found was so at one instant, and stays mapped while the caller has a
// handle or attachment of it, or a pin. A nested range hides the outer one where it lies.
//
// Why a reader needs no latch: changes stand between an odd and an even generation, and what was
// read counts only if the generation was even and is the same afterwards. Tables that were outgrown
// and entries that left are never freed, so that a late reader finds old figures at worst. A pin is
// raised before the generation is compared, and who unmaps changes the generation before it looks
// at the pins, all sequentially consistent: one of them sees the other.
#pragma once

#include <atomic>

#include "trel/records.h"
#include "trelshm/flow.h"

namespace trel {

struct MappedSegment;  // an entry

// A copy of an entry.
struct Mapping {
  uintptr_t start, end;
  bool writable;
  ShmDomainHandle_t* handle;
  ShmSegInfo_t* attachment;  // null: none is published
  uint32_t* attachCount;     // of the attachment
  uint32_t key;              // of the attachment; 0 in access mode 3
  bool byWalk;               // a walk has brought it, and counts one
  const void* undecidedBy;   // whose look has brought it, and may end it again; null: it stays
  bool isNew;                // this look had not met it before
};

// A stretch of addresses that all lie in the same mapping, or all in none.
struct MappedRange {
  uintptr_t first, length;
  uintptr_t start, end;  // of the mapping
  uintptr_t generation;
  MappedSegment* segment;  // the entry
  uint64_t unbounded;      // all bits set where nothing is mapped by the library
  bool readOnly;
};

extern std::atomic<uintptr_t> mappingGeneration;
extern __thread __attribute__((tls_model("initial-exec"))) MappedRange lastMappedRange;

// Looks the range up in the table and makes it the thread's last hit.
const MappedRange& lookUpRange(uintptr_t address);

TREL_INLINE const MappedRange& rangeAround(const void* address) {
  const MappedRange& hit = lastMappedRange;
  const uintptr_t place = reinterpret_cast<uintptr_t>(address);
  if (TREL_LIKELY(place - hit.first < hit.length &&
                  hit.generation == mappingGeneration.load(std::memory_order_acquire)))
    return hit;
  return lookUpRange(place);
}

// To the end of the mapping; beyond all sizes for memory of the caller's own.
TREL_INLINE uint64_t bytesMappedFrom(const void* address) {
  const MappedRange& range = rangeAround(address);
  return (range.end - reinterpret_cast<uintptr_t>(address)) | range.unbounded;
}

// Whether the address lies in a segment that may only be read.
TREL_INLINE bool isReadOnly(const void* address) { return rangeAround(address).readOnly; }

// Whether the library has mapped the address; *start gets where its mapping begins.
inline bool startOfMapping(const void* address, const void** start) {
  const MappedRange& range = rangeAround(address);
  if (range.unbounded) return false;
  *start = reinterpret_cast<const void*>(range.start);
  return true;
}

// False: memory of the caller's own.
bool findMapping(const void* address, Mapping* found);
// The published attachment of a key, the writable one first; that of the memory at an address
// (access mode 3); and the one whose record lies at an address.
bool findAttachment(uint32_t key, Mapping* found);
bool findAttachmentInSlot(Mapping* found);
bool findAttachment(const ShmSegInfo_t* record, Mapping* found);

// Bytes of all mappings together.
uint64_t bytesMapped();

// Keeps each mapping that was looked at by way of it, and the records of its attachment, for as
// long as the outermost object of the thread lives: the pins of one call. A mapping is pinned once,
// however often it is met.
class Pins {
 public:
  Pins();
  ~Pins();
  Pins(const Pins&) = delete;
  Pins& operator=(const Pins&) = delete;

  // Find, pin and copy. TREL_RC_NOT_ATTACHED: there is none; TREL_RC_ATTACH_NO_MEMORY.
  uint32_t around(const void* address, Mapping* found);
  uint32_t attachment(uint32_t key, Mapping* found);
  uint32_t attachmentInSlot(Mapping* found);

  bool isOutermost() const { return outermost_ == this; }
  const void* identity() const { return outermost_; }
  // What is pinned, one after the other from *position 0 on. False: no more.
  bool next(uint32_t* position, Mapping* found) const;
  bool has(const MappedSegment* segment) const;

 private:
  template <class Find>
  uint32_t pinFound(Mapping* found, Find&& find);
  uint32_t note(MappedSegment* segment, bool* isNew);
  MappedSegment** placeOf(const MappedSegment* segment) const;
  bool grow();

  static constexpr uint32_t kFirst = 16;
  Pins* const outermost_;
  // A set by open addressing, at most half full.
  uint32_t count_ = 0, capacity_ = kFirst;
  MappedSegment* first_[kFirst] = {};
  MappedSegment** places_ = first_;
};

// ---- For those who make and end handles and attachments. ----

// Enters a handle whose domain ends `size` bytes behind its base. False: no process memory.
bool enterMapping(ShmDomainHandle_t* handle, uint64_t size, bool writable);

enum class Unmapped {
  now,     // the handle is the caller's to free
  later,   // by the last pin, which also frees the handle
  failed,  // nothing has changed
};
// Ends a handle's mapping. In access mode 3 the handle leaves the table, and nothing is unmapped.
Unmapped leaveMapping(ShmDomainHandle_t* handle);
// The handle goes, and leaves what it has mapped as it is.
void forgetMapping(const ShmDomainHandle_t* handle);

// Makes the attachment of a handle known to lookups. key 0: access mode 3. False: the handle is
// not in the table, or has one already.
struct PublishedAttachment {
  uint32_t key;
  ShmSegInfo_t* record;
  uint32_t* count;
  bool byWalk;
  const void* undecidedBy;
};
bool publishAttachment(const ShmDomainHandle_t* handle, const PublishedAttachment& attachment);
// From here on it stays. byWalk: a walk counts one of its attaches.
void decideAttachment(const ShmSegInfo_t* record, bool byWalk);
void hideAttachment(const ShmSegInfo_t* record);
void hideAllAttachments();

// Leaves the freeing of a block of process memory to the last pin of the mapping that an address
// lies in. False: there is no pin, the block stays the caller's to free.
bool freeWithLastPin(const void* address, void* block);
// The block is the caller's again.
void takeFromLastPin(const void* address, void* block);

}  // namespace trel
