// A libplatsvc.so.1 whose n-th call fails. Every tests/NAME_fault_test.cpp is linked with it in
// place of the real one, from which it differs in nothing else. A test arms n = 1, 2, ... and runs
// an operation, until faultyDisarm tells that no call was left to fail.
#pragma once

#include <stdint.h>

// Kinds of calls.
enum : uint32_t {
  kFaultyAllocation = 1,  // _platMemAlloc, and what PLATHIPCMemory allocates for itself
  kFaultySegment = 2,     // the system calls below PLATHIPCMemory: get, map, unmap, control
  kFaultyGet = 4,         // taking a latch by plat::latchGet, on the thread that armed
  kFaultyRelease = 8,     // leaving one by plat::latchRelease: it is left, and failure returned
  kFaultyAll = 15,
};

extern "C" {
// From now on the n-th call of these kinds fails, once. n = 0 only counts.
void faultyArm(uint32_t kinds, uint32_t n);
// No call fails any more. 1 if one had failed since faultyArm.
uint32_t faultyDisarm();
// Calls of the armed kinds since faultyArm.
uint32_t faultyCount();
}
