// The property kinds, and all in which they differ. Lists, access and enumeration are written once,
// over one of these.
#pragma once

#include "trel/codes.h"
#include "trel/layout.h"

namespace trel {
namespace kind {

// order      the kind's place in a run of return codes over the kinds
// base       one record alone, without a list
// hasId      named by tag and identifier; three hash tables in place of one
// hasBytes   holds bytes of variable size in place of a register
struct R {
  using Record = RProperty_t;
  using Links = HashLink_t;
  static constexpr uint32_t order = 0, bit = TREL_EXPORT_R, valueNull = TREL_RC_OUT_VALUE_R;
  static constexpr bool base = false, hasId = false, hasBytes = false;
  // A flat list's walk that leaves the section.
  static constexpr uint32_t walkBounds = TREL_RC_BOUNDS_R;
  // The entries of a new flat list are tested inside the critical section, or before it.
  static constexpr bool testsEntriesInside = true;
  // What the count of a flat list takes off for the header.
  static constexpr uint64_t countedHeader = 8;
};

struct IR {
  using Record = IRProperty_t;
  using Links = IdHashLinks_t;
  static constexpr uint32_t order = 1, bit = TREL_EXPORT_IR, valueNull = TREL_RC_OUT_VALUE_IR;
  static constexpr bool base = false, hasId = true, hasBytes = false;
  static constexpr uint32_t walkBounds = TREL_RC_BOUNDS_IR;
  static constexpr bool testsEntriesInside = true;
  static constexpr uint64_t countedHeader = 16;
  // A listing of the hash form clears its unused tags alone, or all arrays.
  static constexpr bool hashClearsTagsAlone = true;
};

struct V {
  using Record = VProperty_t;
  using Links = HashLink_t;
  static constexpr uint32_t order = 2, bit = TREL_EXPORT_V, valueNull = TREL_RC_VALUE_NULL_V;
  static constexpr bool base = false, hasId = false, hasBytes = true;
  static constexpr uint32_t walkBounds =
      TREL_RC_BOUNDS_R;  // V's other bounds have TREL_RC_BOUNDS_V
  static constexpr bool testsEntriesInside = false;
  static constexpr uint64_t countedHeader = 16;
  // Value size in a blank record of a new flat list.
  static constexpr uint64_t blankValueSize = 8;
  static constexpr uint32_t valueOffsetBounds = TREL_RC_VALUE_OFFSET_V;
};

struct IV {
  using Record = IVProperty_t;
  using Links = IdHashLinks_t;
  static constexpr uint32_t order = 3, bit = TREL_EXPORT_IV, valueNull = TREL_RC_VALUE_NULL_IV;
  static constexpr bool base = false, hasId = true, hasBytes = true;
  static constexpr uint32_t walkBounds = TREL_RC_BOUNDS_IV;
  static constexpr bool testsEntriesInside = false;
  static constexpr uint64_t countedHeader = 16;  // 8 below the header; can read one too high
  static constexpr bool hashClearsTagsAlone = false;
  static constexpr uint64_t blankValueSize = 0;
  static constexpr uint32_t valueOffsetBounds = TREL_RC_VALUE_OFFSET_IV;
};

struct BaseR {
  using Record = RProperty_t;
  static constexpr uint32_t order = 4, bit = TREL_EXPORT_BASE_R,
                            valueNull = TREL_RC_OUT_VALUE_BASE_R;
  static constexpr bool base = true, hasId = false, hasBytes = false;
};

struct BaseV {
  using Record = VProperty_t;
  static constexpr uint32_t order = 5, bit = TREL_EXPORT_BASE_V,
                            valueNull = TREL_RC_VALUE_NULL_BASE_V;
  static constexpr bool base = true, hasId = false, hasBytes = true;
  static constexpr uint32_t valueOffsetBounds = TREL_RC_VALUE_OFFSET_BASE_V;
};

}  // namespace kind

// A kind's codes. A run has the order R, IR, V, IV, Base R, Base V.
template <class K>
struct Codes {
  static constexpr uint32_t noExport = TREL_RC_NO_EXPORT_R + K::order;
  static constexpr uint32_t flatFit = TREL_RC_FLAT_FIT_R + K::order;
  static constexpr uint32_t flatFull = TREL_RC_FLAT_FULL_R + K::order;
  static constexpr uint32_t hashFit = TREL_RC_HASH_FIT_R + K::order;
  static constexpr uint32_t count = TREL_RC_COUNT_R + K::order;
  static constexpr uint32_t bounds = TREL_RC_BOUNDS_R + K::order;
  static constexpr uint32_t present = TREL_RC_PRESENT_R + K::order;
  static constexpr uint32_t absent = TREL_RC_ABSENT_R + K::order;  // in a hash form or listing
  static constexpr uint32_t keyAbsent =
      TREL_RC_KEY_ABSENT_R + K::order;  // in any form, from access
  static constexpr uint32_t recordNull = TREL_RC_RECORD_NULL_R + K::order;
  static constexpr uint32_t countNull = TREL_RC_OUT_COUNT_R + 2 * K::order;
  static constexpr uint32_t capacityNull = TREL_RC_OUT_CAPACITY_R + 2 * K::order;
};

static_assert(Codes<kind::BaseV>::noExport == TREL_RC_NO_EXPORT_BASE_V &&
              Codes<kind::BaseV>::flatFit == TREL_RC_FLAT_FIT_BASE_V &&
              Codes<kind::IV>::flatFull == TREL_RC_FLAT_FULL_IV &&
              Codes<kind::IV>::hashFit == TREL_RC_HASH_FIT_IV &&
              Codes<kind::IV>::count == TREL_RC_COUNT_IV &&
              Codes<kind::BaseV>::bounds == TREL_RC_BOUNDS_BASE_V &&
              Codes<kind::IV>::present == TREL_RC_PRESENT_IV &&
              Codes<kind::IV>::absent == TREL_RC_ABSENT_IV &&
              Codes<kind::BaseV>::keyAbsent == TREL_RC_KEY_ABSENT_BASE_V &&
              Codes<kind::BaseV>::recordNull == TREL_RC_RECORD_NULL_BASE_V &&
              Codes<kind::IV>::countNull == TREL_RC_OUT_COUNT_IV &&
              Codes<kind::IV>::capacityNull == TREL_RC_OUT_CAPACITY_IV);

// A section begins with D if the kind has identifiers, M if it has bytes, then the table sizes, in
// flat form one of 0. Then come the records, or the buckets and, behind their links, the records.
template <class K>
struct Form {
  static constexpr uint32_t limits = uint32_t{K::hasId} + uint32_t{K::hasBytes};
  static constexpr uint32_t tables = K::base ? 0 : K::hasId ? 3 : 1;
  static constexpr uint64_t flatHeader = uint64_t{8} * (limits + (K::base ? 0 : 1));
  static constexpr uint64_t hashHeader = uint64_t{8} * (limits + tables);
};

}  // namespace trel
