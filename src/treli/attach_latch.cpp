#include "treli/attach_latch.h"

#include "trel/segment.h"
#include "trelshm/byte_latch.h"

namespace trel {

static __thread uint32_t depth __attribute__((tls_model("initial-exec")));

AttachLatch::AttachLatch() {
  if (depth++ == 0) takeByteLatch(&trelSegAttachLatch);
}

AttachLatch::~AttachLatch() {
  if (--depth == 0) giveByteLatch(&trelSegAttachLatch);
}

bool AttachLatch::isMine() { return depth != 0; }

}  // namespace trel
