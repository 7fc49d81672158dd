#include "platsvc/life.h"

#include <unistd.h>

#include "platsvc/codes.h"
#include "token.h"

using namespace plat;

uint32_t platLifeToken(uint32_t* token) {
  if (!token) return PLAT_RC_ARGUMENT;
  const uint32_t rc = enrol();
  *token = rc ? 0 : tokenOf(platThreadIdentity.owner);
  return rc;
}

uint32_t platLifeTokenLives(uint32_t token) {
  return token != 0 && !ownerHasEnded(uint64_t{token} << 32, false, nullptr);
}

uint32_t platProcessID() { return static_cast<uint32_t>(getpid()); }
