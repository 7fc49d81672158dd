// The hash of names. Processes must agree on it, and on the primes that size the tables.
#pragma once

#include <stdint.h>

#include "trelshm/flow.h"

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

// What three digits do to the parts of a hash: product * factor + offset, ^ exclusive, + sum.
struct DigitStep {
  uint32_t factor, offset;
  uint16_t exclusive, sum;
};

// Steps of three digits, so that the hash of a tag takes at most three. The last group has no zeros
// in front, and so steps of its own below 100.
struct DigitSteps {
  DigitStep inner[1000] = {}, last[100] = {};

  constexpr DigitSteps() {
    for (uint32_t group = 0; group < 1000; ++group) inner[group] = stepOf(group, 3);
    for (uint32_t group = 0; group < 100; ++group) last[group] = stepOf(group, group < 10 ? 1 : 2);
  }

  static constexpr DigitStep stepOf(uint32_t group, uint32_t digits) {
    DigitStep step = {1, 0, 0, 0};
    for (; digits; --digits, group /= 10) {
      const uint32_t digit = '0' + group % 10;
      step.factor *= digit + 1;
      step.offset = (step.offset + 1) * (digit + 1);
      step.exclusive ^= digit;
      step.sum += digit;
    }
    return step;
  }
};
inline constexpr DigitSteps kDigitSteps;

// The hash of a tag's key.
TREL_INLINE uint64_t hashOfTag(uint64_t tag) {
  uint64_t product = 0;
  uint32_t exclusive = 0, sum = 0;
  const auto take = [&](const DigitStep& step) {
    product = product * step.factor + step.offset;
    exclusive ^= step.exclusive;
    sum += step.sum;
  };
  for (; TREL_UNLIKELY(tag > UINT32_MAX); tag /= 1000) take(kDigitSteps.inner[tag % 1000]);
  uint32_t rest = static_cast<uint32_t>(tag);
  for (; rest >= 1000; rest /= 1000) take(kDigitSteps.inner[rest % 1000]);
  take(rest < 100 ? kDigitSteps.last[rest] : kDigitSteps.inner[rest]);
  return exclusive ^ sum ^ product;
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
