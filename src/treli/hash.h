// The hash of names. Processes must agree on it, and on the primes that size the tables.
#pragma once

#include <stdint.h>

#include "treli/flow.h"

namespace trel {

class Hash {
 public:
  constexpr explicit Hash(uint64_t start) : exclusive_(start), sum_(start), product_(start) {}

  constexpr void add(uint8_t byte) {
    exclusive_ ^= byte;
    sum_ += byte;
    product_ = (product_ + 1) * (byte + uint64_t{1});
  }

  constexpr uint64_t value() const { return exclusive_ ^ sum_ ^ product_; }

 private:
  uint64_t exclusive_, sum_, product_;
};

// The key of a number is its decimal digits, the least significant first.
template <class Number, class Visit>
TREL_INLINE void forEachDigit(Number number, Visit&& visit) {
  do {
    visit(static_cast<uint8_t>('0' + number % 10));
    number /= 10;
  } while (number);
}

TREL_INLINE uint64_t hashOfTag(uint64_t tag) {
  Hash hash(0);
  const auto add = [&](uint8_t digit) { hash.add(digit); };
  if (TREL_LIKELY(tag <= UINT32_MAX))
    forEachDigit(static_cast<uint32_t>(tag), add);
  else
    forEachDigit(tag, add);
  return hash.value();
}

TREL_INLINE uint64_t hashOfId(const uint8_t* id, uint64_t idSize, uint64_t start) {
  Hash hash(start);
  for (uint64_t i = 0; i < idSize; ++i) hash.add(id[i]);
  return hash.value();
}

// The smallest odd number from `number` on that no odd number above 1 and up to its root divides;
// 1 is one of them.
uint64_t primeFrom(uint64_t number);

}  // namespace trel
