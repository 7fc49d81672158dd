#include "treli/hash.h"

namespace trel {
namespace {

// 1, 3, 5 and 7 pass without a trial.
bool isPrime(uint64_t odd) {
  for (uint64_t d = 3; d <= odd / d; d += 2)
    if (odd % d == 0) return false;
  return true;
}

}  // namespace

uint64_t primeFrom(uint64_t number) {
  uint64_t candidate = number | 1;
  while (!isPrime(candidate)) candidate += 2;
  return candidate;
}

}  // namespace trel
