#include "operations.h"

namespace fuzz {
namespace {

// How a property is named, between a node and what follows.
#define BY_TAG s.tag
#define BY_ID s.tag, kPropertyIdRoom, s.id()

// Rows that every kind has. `held` is a record found before the damage.
#define ANY_KIND(K, Record, held, ...)                                                         \
  CALL(read, trelGetRCFor##K##Property, s.node, __VA_ARGS__, s.out<uint64_t>(), 0),            \
      CALL(write, trelSetRCFor##K##Property, s.node, __VA_ARGS__, 9, 0),                       \
      WORK(read, trelGetAddressFor##K##Property, {                                             \
        auto* record = s.out<Record*>();                                                       \
        if (trelGetAddressFor##K##Property(s.node, __VA_ARGS__, record) == 0) s.look(*record); \
      })

#define REGISTER_KIND(K, Record, held, NAME)                                                       \
  ANY_KIND(K, Record, held, NAME),                                                                 \
      CALL(read, trelGetValueFor##K##Property, s.node, NAME, s.out<int32_t>(), 0),                 \
      CALL(write, trelSetValueFor##K##Property, s.node, NAME, 5, 0),                               \
      WORK(read, trelGetAddressFor##K##PropertyValue,                                              \
           {                                                                                       \
             auto* value = s.out<PLATVAtomicSigned32*>();                                          \
             if (trelGetAddressFor##K##PropertyValue(s.node, NAME, value) == 0) s.look(*value);    \
           }),                                                                                     \
      CALL(read, trelGetValueAndRCFor##K##Property, s.node, s.heldRecord<Record>(&Held::held),     \
           s.out<int32_t>(), s.out<uint64_t>(), 0),                                                \
      CALL(write, trelSetValueAndRCFor##K##Property, s.node, s.heldRecord<Record>(&Held::held), 6, \
           8, 0)

#define BYTES_KIND(K, Record, held, NAME)                                                       \
  ANY_KIND(K, Record, held, NAME),                                                              \
      WORK(read, trelGetValueFor##K##Property,                                                  \
           {                                                                                    \
             const uint64_t room = maxValueSize##K(s);                                          \
             auto* size = s.out<uint64_t>();                                                    \
             *size = room;                                                                      \
             if (uint8_t* buffer = s.outs.take(room))                                           \
               trelGetValueFor##K##Property(s.node, NAME, size, s.out<uint8_t*>(), buffer, 0);  \
           }),                                                                                  \
      CALL(write, trelSetValueFor##K##Property, s.node, NAME, 20, s.value, 0),                  \
      CALL(read, trelGetAddressFor##K##PropertyValue, s.node, NAME, s.out<uint8_t*>()),         \
      WORK(read, trelGetValueAndRCFor##K##Property,                                             \
           {                                                                                    \
             auto* size = s.out<uint64_t>();                                                    \
             *size = kValueRoom;                                                                \
             trelGetValueAndRCFor##K##Property(s.node, s.heldRecord<Record>(&Held::held), size, \
                                               s.out<uint8_t*>(), s.outs.take(kValueRoom),      \
                                               s.out<uint64_t>(), 0);                           \
           }),                                                                                  \
      CALL(write, trelSetValueAndRCFor##K##Property, s.node, s.heldRecord<Record>(&Held::held), \
           21, s.value, 8, 0)

// Rows of the kinds that have lists. VALUE is what follows the name where a property is added.
#define LIST_KIND(K, Record, held, NAME, VALUE)                                                 \
  CALL(write, trelAdd##K##Property, s.node, NAME, VALUE, 0),                                    \
      CALL(write, trelAdd##K##PropertyToHashTable, s.node, NAME, VALUE, 0),                     \
      CALL(write, trelDelete##K##Property, s.node, NAME, 0),                                    \
      CALL(write, trelDelete##K##PropertyFromHashTable, s.node, NAME),                          \
      WORK(read, trelFind##K##PropertyInHashTable,                                              \
           {                                                                                    \
             auto* record = s.out<Record*>();                                                   \
             if (trelFind##K##PropertyInHashTable(s.node, NAME, record) == 0) s.look(*record);  \
           }),                                                                                  \
      WORK(read, trelGetFirst##K##PropertyLocation,                                             \
           {                                                                                    \
             auto* record = s.out<Record*>();                                                   \
             auto* count = s.out<uint64_t>();                                                   \
             if (trelGetFirst##K##PropertyLocation(s.node, record, count, s.out<uint64_t>()) == \
                     0 &&                                                                       \
                 *count)                                                                        \
               s.look(*record);                                                                 \
           }),                                                                                  \
      WORK(read, trelGetNext##K##PropertyLocation,                                              \
           {                                                                                    \
             auto* record = s.out<Record*>();                                                   \
             *record = s.heldRecord<Record>(&Held::held);                                       \
             trelGetNext##K##PropertyLocation(s.node, &s.node->exportTable[slotOf##K], record); \
           }),                                                                                  \
      CALL(read, trelReturn##K##PropertyCount, s.node, s.tag, s.out<uint64_t>(), 0),            \
      CALL(read, trelGet##K##PropertiesNoForGivenTag, s.node, s.tag, s.out<uint64_t>(), 0),     \
      CALL(read, trelGetNumberOf##K##Properties, s.node, s.out<uint64_t>(), s.out<uint64_t>(), 0)

constexpr size_t slotOfR = 6, slotOfV = 7, slotOfIR = 8, slotOfIV = 9;
constexpr uint64_t kListed = 8;  // places in the arrays of a listing

uint64_t maxValueSizeV(Stage& s) {
  auto* size = s.out<uint64_t>();
  return s.roomFor(trelGetMaxVSizeForVProperties(s.node, size) == 0 ? *size : kValueRoom);
}
uint64_t maxValueSizeIV(Stage& s) {
  auto* size = s.out<uint64_t>();
  const uint32_t code = trelGetMaxIDVSizeForIVProperties(s.node, s.out<uint64_t>(), size);
  return s.roomFor(code == 0 ? *size : kValueRoom);
}
uint64_t maxValueSizeBaseV(Stage& s) { return s.roomFor(kValueRoom); }

// The kinds of lists take turns.
uint32_t anyKind(Stage& s) { return TREL_EXPORT_R << s.random.below(4); }

const Operation kRows[] = {
    REGISTER_KIND(R, RProperty_t, r, BY_TAG),
    REGISTER_KIND(IR, IRProperty_t, ir, BY_ID),
    REGISTER_KIND(BaseR, RProperty_t, baseR, BY_TAG),
    BYTES_KIND(V, VProperty_t, v, BY_TAG),
    BYTES_KIND(IV, IVProperty_t, iv, BY_ID),
    BYTES_KIND(BaseV, VProperty_t, baseV, BY_TAG),
    LIST_KIND(R, RProperty_t, r, BY_TAG, 5),
    LIST_KIND(IR, IRProperty_t, ir, BY_ID, 5),
#define BYTES 20, s.value
    LIST_KIND(V, VProperty_t, v, BY_TAG, BYTES),
    LIST_KIND(IV, IVProperty_t, iv, BY_ID, BYTES),

    CALL(read, trelReturnRProperties, s.node, s.out<uint64_t>(kListed), 0, kListed, 0),
    CALL(read, trelReturnVProperties, s.node, s.out<uint64_t>(kListed), s.out<uint64_t>(kListed), 0,
         kListed, 0),
    CALL(read, trelReturnIRProperties, s.node, s.out<uint64_t>(kListed), s.out<uint64_t>(kListed),
         s.outs.take(kListed* kPropertyIdRoom), 0, kListed, kPropertyIdRoom, 0),
    CALL(read, trelReturnIVProperties, s.node, s.out<uint64_t>(kListed), s.out<uint64_t>(kListed),
         s.outs.take(kListed* kPropertyIdRoom), s.out<uint64_t>(kListed), 0, kListed,
         kPropertyIdRoom, 0),

    CALL(read, trelReturnBaseRProperty, s.node, s.out<uint64_t>(), 0),
    CALL(read, trelReturnBaseVProperty, s.node, s.out<uint64_t>(), s.out<uint64_t>(), 0),
    WORK(read, trelGetBaseRPropertyLocation,
         {
           auto* record = s.out<RProperty_t*>();
           if (trelGetBaseRPropertyLocation(s.node, record) == 0) s.look(*record);
         }),
    WORK(read, trelGetBaseVPropertyLocation,
         {
           auto* record = s.out<VProperty_t*>();
           if (trelGetBaseVPropertyLocation(s.node, record) == 0) s.look(*record);
         }),
    CALL(write, trelCreateBaseRProperty, s.node, 1, 3, 0),
    CALL(write, trelCreateBaseVProperty, s.node, 1, s.value, 12, kValueRoom, 0),
    CALL(write, trelDeleteBaseRProperty, s.node, 1, 0),
    CALL(write, trelDeleteBaseVProperty, s.node, 1, 0),

    CALL(end, trelCreateRPropertyList, s.node, nullptr, nullptr, 0, 5, s.random.below(2), 0),
    CALL(end, trelCreateVPropertyList, s.node, nullptr, nullptr, nullptr, kValueRoom, 0, 5,
         s.random.below(2), 0),
    CALL(end, trelCreateIRPropertyList, s.node, nullptr, nullptr, nullptr, nullptr, kPropertyIdRoom,
         0, 3, 5, 5, s.random.below(2), 0),
    CALL(end, trelCreateIVPropertyList, s.node, nullptr, nullptr, nullptr, kPropertyIdRoom, nullptr,
         nullptr, kValueRoom, 0, 3, 5, 5, s.random.below(2), 0),

    CALL(write, trelGetFreeSpaceOffsetForProperty, s.node, anyKind(s), s.out<uint64_t>()),
    CALL(read, trelGetNumberOfFreedLListNodes, s.node, anyKind(s), s.out<uint64_t>()),
    CALL(read, trelGetMemoryStackSizeForHashTable, s.node, anyKind(s), s.out<uint64_t>()),
    WORK(end, trelUpdateListOfFreedLLNodes,
         {
           const auto* record = s.heldRecord<uint8_t>(&Held::r);
           trelUpdateListOfFreedLLNodes(s.node, TREL_EXPORT_R,
                                        reinterpret_cast<const TrelU64*>(record - 8));
         }),
    CALL(read, trelGetHashTableSizeForRVProperties, s.node, TREL_EXPORT_R << s.random.below(2),
         s.out<uint64_t>()),
    CALL(read, trelGetHashTableSizeForIRVProperties, s.node, TREL_EXPORT_IR << s.random.below(2),
         s.out<uint64_t>(), s.out<uint64_t>(), s.out<uint64_t>()),
    CALL(read, trelGetMaxVSizeForVProperties, s.node, s.out<uint64_t>()),
    CALL(read, trelGetMaxIDSizeForIRProperties, s.node, s.out<uint64_t>()),
    CALL(read, trelGetMaxIDVSizeForIVProperties, s.node, s.out<uint64_t>(), s.out<uint64_t>()),
    CALL(read, trelCheckInputParameters, anyKind(s), s.node, s.tag, kPropertyIdRoom, s.id(), 10,
         s.out<uint64_t>(), s.out<uint64_t>()),
};

}  // namespace

Operations propertyOperations() { return {std::begin(kRows), std::end(kRows)}; }

}  // namespace fuzz
