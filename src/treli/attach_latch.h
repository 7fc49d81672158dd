// trelSegAttachLatch, held while an object lives.
//
// The latch is not recursive, so a thread that holds it by an AttachLatch passes over further ones:
// an operation that keeps it for long, as a tree copy does, can call those that take it.
#pragma once

namespace trel {

class AttachLatch {
 public:
  AttachLatch();
  ~AttachLatch();
  // Whether the calling thread holds it by such an object.
  static bool isMine();
  AttachLatch(const AttachLatch&) = delete;
  AttachLatch& operator=(const AttachLatch&) = delete;
};

}  // namespace trel
