// Who a thread is, and whether it still lives.
#pragma once

#include "platsvc/latch.h"

namespace plat {

constexpr uint64_t kThreadMask = 0x7fffffff;
constexpr uint64_t kWaiters = 0x80000000;

// The namespaces of a process that cannot find out its own.
constexpr uint32_t kUnknownSpace = 1;

// An identity that is not filled yet; no latch holds these values.
constexpr PLATThreadIdentity kNoIdentity = {~uint64_t{0}, ~uint32_t{0}};

// The calling thread's identity, filled at need.
const PLATThreadIdentity& threadIdentity();

// Whether the thread that wrote this owner word, in the caller's own namespaces, has surely ended.
bool threadHasEnded(uint64_t owner);

}  // namespace plat
