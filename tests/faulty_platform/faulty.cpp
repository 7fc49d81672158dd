// The linker sends the platform's calls of malloc and of shared memory here (--wrap). Its slow
// paths of latches are compiled under other names, behind those below; and a thread that has
// armed is made to forget who it is, so that the inline paths give way to them every time.

#include "faulty.h"

#include <errno.h>
#include <stddef.h>
#include <sys/shm.h>

#include "platsvc/codes.h"
#include "token.h"

namespace {

uint32_t armedKinds = 0;
uint32_t failingCall = 0;
uint32_t calls = 0;

bool failsNow(uint32_t kind) {
  if (!(__atomic_load_n(&armedKinds, __ATOMIC_ACQUIRE) & kind)) return false;
  return __atomic_add_fetch(&calls, 1, __ATOMIC_RELAXED) == failingCall;
}

bool failsWithErrno(uint32_t kind) {
  const bool fails = failsNow(kind);
  if (fails) errno = ENOMEM;
  return fails;
}

void hideIdentityWhileArmed() {
  if (__atomic_load_n(&armedKinds, __ATOMIC_RELAXED) & (kFaultyGet | kFaultyRelease)) {
    static const uint32_t noKey = 0;
    platThreadIdentity = {1, &noKey};
  }
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) void faultyArm(uint32_t kinds, uint32_t n) {
  calls = 0;
  failingCall = n;
  __atomic_store_n(&armedKinds, kinds, __ATOMIC_RELEASE);
  hideIdentityWhileArmed();
}

__attribute__((visibility("default"))) uint32_t faultyDisarm() {
  __atomic_store_n(&armedKinds, 0, __ATOMIC_RELEASE);
  return failingCall != 0 && calls >= failingCall;
}

__attribute__((visibility("default"))) uint32_t faultyCount() {
  return __atomic_load_n(&calls, __ATOMIC_RELAXED);
}

uint32_t platVLatchInitReal(void* cell, uint32_t one);
uint32_t platLatchGetSlowReal(void* cell, uint32_t* ownerDied, const PLATLatchWait* wait);
uint32_t platLatchReleaseSlowReal(void* cell);

uint32_t platVLatchInit(void* cell, uint32_t one) {
  const uint32_t code = platVLatchInitReal(cell, one);
  hideIdentityWhileArmed();  // it has been looked up for the cell
  return code;
}

uint32_t platLatchGetSlow(void* cell, uint32_t* ownerDied, const PLATLatchWait* wait) {
  const uint32_t code =
      failsNow(kFaultyGet) ? PLAT_RC_SYSTEM : platLatchGetSlowReal(cell, ownerDied, wait);
  hideIdentityWhileArmed();
  return code;
}

uint32_t platLatchReleaseSlow(void* cell) {
  const bool fails = failsNow(kFaultyRelease);
  const uint32_t code = platLatchReleaseSlowReal(cell);
  hideIdentityWhileArmed();
  return fails ? PLAT_RC_SYSTEM : code;
}

void* __real_malloc(size_t size);
int __real_shmget(key_t key, size_t size, int flags);
void* __real_shmat(int id, const void* address, int flags);
int __real_shmdt(const void* address);
int __real_shmctl(int id, int command, shmid_ds* info);

void* __wrap_malloc(size_t size) {
  return failsWithErrno(kFaultyAllocation) ? nullptr : __real_malloc(size);
}

int __wrap_shmget(key_t key, size_t size, int flags) {
  return failsWithErrno(kFaultySegment) ? -1 : __real_shmget(key, size, flags);
}

void* __wrap_shmat(int id, const void* address, int flags) {
  return failsWithErrno(kFaultySegment) ? reinterpret_cast<void*>(-1)
                                        : __real_shmat(id, address, flags);
}

int __wrap_shmdt(const void* address) {
  return failsWithErrno(kFaultySegment) ? -1 : __real_shmdt(address);
}

int __wrap_shmctl(int id, int command, shmid_ds* info) {
  return failsWithErrno(kFaultySegment) ? -1 : __real_shmctl(id, command, info);
}
}
