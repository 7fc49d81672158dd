// Paths: names of nodes as people write them.
#include <stdio.h>
#include <string.h>

#include "trel/describe.h"
#include "trelshm/flow.h"

namespace trel {
namespace {

bool isPlain(uint8_t byte) {
  return byte >= ' ' && byte <= '~' && byte != '/' && byte != '#' && byte != '%';
}

int digitOf(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Text of limited length that remembers whether all of it had room.
class Text {
 public:
  Text(char* text, uint64_t length) : at_(text), end_(text + length) {}
  void put(char c) {
    if (at_ < end_) *at_ = c;
    ++at_;
  }
  void put(const char* text) {
    while (*text) put(*text++);
  }
  bool isWhole() const { return at_ <= end_; }

 private:
  char* at_;
  char* end_;
};

bool isEnd(char c) { return c == 0 || c == '/'; }

// The digits of a tag. False for none, or a tag that no node has.
bool parseTag(const char** text, uint64_t* tag) {
  const char* const first = *text;
  *tag = 0;
  for (; digitOf(**text) >= 0 && digitOf(**text) <= 9; ++*text) {
    *tag = *tag * 10 + static_cast<uint64_t>(digitOf(**text));
    if (*tag > TREL_MAX_TAG) return false;
  }
  return *text != first && *tag != 0;
}

bool parseByte(const char** text, uint8_t* byte) {
  const char* c = *text;
  if (*c != '%') {
    *byte = static_cast<uint8_t>(*c);
    ++*text;
    return isPlain(*byte);
  }
  const int high = digitOf(c[1]);
  const int low = high < 0 ? -1 : digitOf(c[2]);
  if (low < 0) return false;
  *byte = static_cast<uint8_t>(high << 4 | low);
  *text += 3;
  return true;
}

}  // namespace
}  // namespace trel

using namespace trel;

uint32_t trelFormatPathElement(uint64_t tag, const uint8_t* id, uint64_t idSize, uint32_t withTag,
                               char* text, uint64_t length) {
  return traced(FID_trelFormatPathElement, [&](const Flow& flow) -> uint32_t {
    if (!text || (idSize && !id)) return flow.fail(TREL_RC_ID_NULL);
    if (tag > TREL_MAX_TAG) return flow.fail(TREL_RC_TAG_RANGE);
    if (idSize > TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_NODE_ID_SIZE);
    Text out(text, length);
    if (withTag || idSize == 0) {
      char digits[32];
      snprintf(digits, sizeof digits, "#%llu%s", static_cast<unsigned long long>(tag),
               idSize ? ":" : "");
      out.put(digits);
    }
    for (uint64_t i = 0; i < idSize; ++i) {
      constexpr char kHex[] = "0123456789abcdef";
      if (isPlain(id[i])) {
        out.put(static_cast<char>(id[i]));
      } else {
        out.put('%');
        out.put(kHex[id[i] >> 4]);
        out.put(kHex[id[i] & 15]);
      }
    }
    out.put('\0');
    return out.isWhole() ? 0 : flow.fail(TREL_RC_PATH_SIZE);
  });
}

uint32_t trelParsePathElement(const char* path, uint64_t* tag, uint8_t* id, uint64_t* idSize,
                              const char** rest) {
  return traced(FID_trelParsePathElement, [&](const Flow& flow) -> uint32_t {
    if (!path || !tag || !id || !idSize || !rest) return flow.fail(TREL_RC_ID_NULL);
    while (*path == '/') ++path;
    if (*path == 0) return flow.fail(TREL_RC_NOT_FOUND);
    uint64_t foundTag = 0, size = 0;
    bool isWhole = true;
    if (*path == '#') {
      isWhole = parseTag(&++path, &foundTag);
      if (isWhole && !isEnd(*path)) isWhole = *path++ == ':' && !isEnd(*path);
    }
    for (; isWhole && !isEnd(*path); ++size) {
      if (size == TREL_MAX_ID_SIZE) return flow.fail(TREL_RC_NODE_ID_SIZE);
      isWhole = parseByte(&path, &id[size]);
    }
    if (!isWhole) return flow.fail(TREL_RC_PATH_SYNTAX);
    while (*path == '/') ++path;
    *tag = foundTag;
    *idSize = size;
    *rest = path;
    return 0;
  });
}
