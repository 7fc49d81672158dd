// Access to properties: eight operations for each kind.
#include "treli/property_access.h"

#include "trel/property.h"
#include "treli/rows.h"

using namespace trel;

// clang-format off
// K: the kind. RECORD: the type of its records. KEY: parameters, key: what is made of them.
#define COMMON_ACCESS(K, RECORD, KEY, key)                                           \
  OPERATION(trelGetRCFor##K##Property,                                               \
            (SNodeCB_t* node, KEY, uint64_t* rc, uint64_t inCriticalSection),        \
            getRc<kind::K>(node, key, rc, inCriticalSection))                        \
  OPERATION(trelSetRCFor##K##Property,                                               \
            (SNodeCB_t* node, KEY, uint64_t rc, uint64_t inCriticalSection),         \
            setRc<kind::K>(node, key, rc, inCriticalSection))                        \
  OPERATION(trelGetAddressFor##K##Property, (SNodeCB_t* node, KEY, RECORD** record), \
            getAddress<kind::K>(node, key, record))

#define REGISTER_ACCESS(K, RECORD, KEY, key)                                                     \
  OPERATION(trelGetValueFor##K##Property,                                                        \
            (SNodeCB_t* node, KEY, int32_t* value, uint64_t inCriticalSection),                  \
            getRegister<kind::K>(node, key, value, inCriticalSection))                           \
  OPERATION(trelSetValueFor##K##Property,                                                        \
            (SNodeCB_t* node, KEY, int32_t value, uint64_t inCriticalSection),                   \
            setRegister<kind::K>(node, key, value, inCriticalSection))                           \
  OPERATION(trelGetValueAndRCFor##K##Property,                                                   \
            (SNodeCB_t* node, RECORD* record, int32_t* value, uint64_t* rc,                      \
             uint64_t inCriticalSection),                                                        \
            getHeldRegister<kind::K>(node, record, value, rc, inCriticalSection))                \
  OPERATION(                                                                                     \
      trelSetValueAndRCFor##K##Property,                                                         \
      (SNodeCB_t* node, RECORD* record, int32_t value, uint64_t rc, uint64_t inCriticalSection), \
      setHeldRegister<kind::K>(node, record, value, rc, inCriticalSection))                      \
  OPERATION(trelGetAddressFor##K##PropertyValue,                                                 \
            (SNodeCB_t* node, KEY, PLATVAtomicSigned32** value),                                 \
            getValueAddress<kind::K>(node, key, value))

#define BYTES_ACCESS(K, RECORD, KEY, key)                                                       \
  OPERATION(trelGetValueFor##K##Property,                                                       \
            (SNodeCB_t* node, KEY, uint64_t* size, uint8_t** address, uint8_t* buffer,          \
             uint64_t inCriticalSection),                                                       \
            getBytes<kind::K>(node, key, size, address, buffer, inCriticalSection))             \
  OPERATION(                                                                                    \
      trelSetValueFor##K##Property,                                                             \
      (SNodeCB_t* node, KEY, uint64_t size, const uint8_t* value, uint64_t inCriticalSection),  \
      setBytes<kind::K>(node, key, size, value, inCriticalSection))                             \
  OPERATION(trelGetValueAndRCFor##K##Property,                                                  \
            (SNodeCB_t* node, RECORD* record, uint64_t* size, uint8_t** address,                \
             uint8_t* buffer, uint64_t* rc, uint64_t inCriticalSection),                        \
            getHeldBytes<kind::K>(node, record, size, address, buffer, rc, inCriticalSection))  \
  OPERATION(trelSetValueAndRCFor##K##Property,                                                  \
            (SNodeCB_t* node, RECORD* record, uint64_t size, const uint8_t* value, uint64_t rc, \
             uint64_t inCriticalSection),                                                       \
            setHeldBytes<kind::K>(node, record, size, value, rc, inCriticalSection))            \
  OPERATION(trelGetAddressFor##K##PropertyValue, (SNodeCB_t* node, KEY, uint8_t** value),       \
            getValueAddress<kind::K>(node, key, value))
// clang-format on

COMMON_ACCESS(R, RProperty_t, TAG, TAG_KEY)
COMMON_ACCESS(V, VProperty_t, TAG, TAG_KEY)
COMMON_ACCESS(IR, IRProperty_t, TAG_ID, TAG_ID_KEY)
COMMON_ACCESS(IV, IVProperty_t, TAG_ID, TAG_ID_KEY)
COMMON_ACCESS(BaseR, RProperty_t, TAG, TAG_KEY)
COMMON_ACCESS(BaseV, VProperty_t, TAG, TAG_KEY)

REGISTER_ACCESS(R, RProperty_t, TAG, TAG_KEY)
REGISTER_ACCESS(IR, IRProperty_t, TAG_ID, TAG_ID_KEY)
REGISTER_ACCESS(BaseR, RProperty_t, TAG, TAG_KEY)
BYTES_ACCESS(V, VProperty_t, TAG, TAG_KEY)
BYTES_ACCESS(IV, IVProperty_t, TAG_ID, TAG_ID_KEY)
BYTES_ACCESS(BaseV, VProperty_t, TAG, TAG_KEY)
