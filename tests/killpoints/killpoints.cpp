// What instrumented code calls in front of its loads and stores.
#include "killpoints.h"

#include <dlfcn.h>
#include <sys/shm.h>

#include <csignal>
#include <cstddef>

namespace {

struct Range {
  uintptr_t from, to;
  bool holds(uintptr_t address) const { return address >= from && address < to; }
};
Range chosen = {};
Range mapped[64] = {};  // segments, whether armed or not
bool segmentsArmed = false;
uint64_t left = 0;

bool isShared(const volatile void* address) {
  const auto a = reinterpret_cast<uintptr_t>(address);
  if (!segmentsArmed) return chosen.holds(a);
  for (const Range& segment : mapped)
    if (segment.holds(a)) return true;
  return false;
}

void callSystem() {
  if (segmentsArmed && left-- == 0) raise(SIGKILL);
}

void store(const volatile void* address) {
  if (isShared(address) && left-- == 0) raise(SIGKILL);
}

// move(first, size) for both halves of a run of bytes.
template <class Move>
void inHalves(void* address, size_t size, Move&& move) {
  if (!isShared(address)) return move(0, size);
  store(address);
  move(0, size / 2);
  store(address);
  move(size / 2, size - size / 2);
}

}  // namespace

void killpoints::arm(const void* memory, uint64_t size, uint64_t stores) {
  const auto from = reinterpret_cast<uintptr_t>(memory);
  chosen = {from, from + static_cast<uintptr_t>(size)};
  left = stores;
}

void killpoints::armSegments(uint64_t stores) {
  left = stores;
  segmentsArmed = true;
}

void killpoints::disarm() {
  chosen = {};
  segmentsArmed = false;
}

// The system's calls on segments, in front of those of the C library.
template <class Call>
static Call real(Call, const char* name) {
  return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name));
}

extern "C" {

int shmget(key_t key, size_t size, int flags) noexcept {
  if (flags & IPC_CREAT) callSystem();
  return real(shmget, "shmget")(key, size, flags);
}
int shmctl(int id, int command, shmid_ds* info) noexcept {
  if (command == IPC_RMID || command == IPC_SET) callSystem();
  return real(shmctl, "shmctl")(id, command, info);
}
void* shmat(int id, const void* hint, int flags) noexcept {
  callSystem();
  void* address = real(shmat, "shmat")(id, hint, flags);
  const auto from = reinterpret_cast<uintptr_t>(address);
  shmid_ds info;
  if (from != UINTPTR_MAX && real(shmctl, "shmctl")(id, IPC_STAT, &info) == 0)
    for (Range& segment : mapped)
      if (segment.to == 0) {
        segment = {from, from + info.shm_segsz};
        break;
      }
  return address;
}
int shmdt(const void* address) noexcept {
  callSystem();
  for (Range& segment : mapped)
    if (segment.from == reinterpret_cast<uintptr_t>(address)) segment = {};
  return real(shmdt, "shmdt")(address);
}

}  // extern "C"

extern "C" {

void* __real_memcpy(void*, const void*, size_t);
void* __real_memmove(void*, const void*, size_t);
void* __real_memset(void*, int, size_t);
void* __wrap_memcpy(void* t, const void* f, size_t n) {
  inHalves(t, n, [&](size_t at, size_t size) {
    __real_memcpy(static_cast<char*>(t) + at, static_cast<const char*>(f) + at, size);
  });
  return t;
}
void* __wrap_memmove(void* t, const void* f, size_t n) {
  store(t);
  return __real_memmove(t, f, n);
}
void* __wrap_memset(void* t, int c, size_t n) {
  inHalves(t, n,
           [&](size_t at, size_t size) { __real_memset(static_cast<char*>(t) + at, c, size); });
  return t;
}

void __tsan_init() {}
void __tsan_func_entry(void*) {}
void __tsan_func_exit() {}
void __tsan_atomic_thread_fence(int) {}
void __tsan_atomic_signal_fence(int) {}
void __tsan_read_range(void*, long) {}
void __tsan_write_range(void* address, long) { store(address); }

#define ACCESS(bytes)               \
  void __tsan_read##bytes(void*) {} \
  void __tsan_write##bytes(void* address) { store(address); }

ACCESS(1)
ACCESS(2)
ACCESS(4)
ACCESS(8)
ACCESS(16)

#define FETCH(bits, type, op)                                               \
  type __tsan_atomic##bits##_fetch_##op(volatile type* word, type v, int) { \
    store(word);                                                            \
    return __atomic_fetch_##op(word, v, __ATOMIC_SEQ_CST);                  \
  }
#define ATOMIC(bits, type)                                                                        \
  type __tsan_atomic##bits##_load(const volatile type* word, int) {                               \
    return __atomic_load_n(word, __ATOMIC_SEQ_CST);                                               \
  }                                                                                               \
  void __tsan_atomic##bits##_store(volatile type* word, type v, int) {                            \
    store(word);                                                                                  \
    __atomic_store_n(word, v, __ATOMIC_SEQ_CST);                                                  \
  }                                                                                               \
  type __tsan_atomic##bits##_exchange(volatile type* word, type v, int) {                         \
    store(word);                                                                                  \
    return __atomic_exchange_n(word, v, __ATOMIC_SEQ_CST);                                        \
  }                                                                                               \
  int __tsan_atomic##bits##_compare_exchange_strong(volatile type* word, type* seen, type v, int, \
                                                    int) {                                        \
    store(word);                                                                                  \
    return __atomic_compare_exchange_n(word, seen, v, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST); \
  }                                                                                               \
  FETCH(bits, type, add)                                                                          \
  FETCH(bits, type, sub)                                                                          \
  FETCH(bits, type, and)                                                                          \
  FETCH(bits, type, or)

ATOMIC(8, uint8_t)
ATOMIC(32, uint32_t)
ATOMIC(64, uint64_t)

// What the library tells the sanitizer about looks that it throws away.
void AnnotateIgnoreReadsBegin(const char*, int) {}
void AnnotateIgnoreReadsEnd(const char*, int) {}

}  // extern "C"
