#include "snapshot.h"

#include <algorithm>

#include "status_node.h"

namespace {

using Numbers = std::vector<uint64_t>;

std::string text(const uint8_t* bytes, uint64_t size) {
  return std::string(reinterpret_cast<const char*>(bytes), size);
}

// "label\tvalue"
std::pair<std::string, std::string> split(const std::string& both) {
  const size_t tab = both.find('\t');
  return tab == std::string::npos ? std::make_pair(both, std::string())
                                  : std::make_pair(both.substr(0, tab), both.substr(tab + 1));
}

}  // namespace

uint32_t Snapshot::read(SNodeCB_t* node) {
  uint32_t rc = trelEnterCriticalSectionBeforeRead(node, &node->nodeLatchArea);
  if (rc) return rc;
  rc = readInside(node);
  const uint32_t left = trelExitCriticalSectionAfterRead(node, &node->nodeLatchArea);
  return rc ? rc : left;
}

uint32_t Snapshot::readInside(SNodeCB_t* node) {
  uint8_t* address = nullptr;
  uint64_t size = 0, tag = 0, count = 0;
  uint32_t rc = trelReturnBaseRProperty(node, &tag, 1);
  if (!rc) rc = trelGetValueForBaseRProperty(node, tag, &updates, 1);
  if (!rc) rc = trelReturnBaseVProperty(node, &tag, &size, 1);
  if (!rc) rc = trelGetValueForBaseVProperty(node, tag, &size, &address, nullptr, 1);
  if (rc) return rc;
  title = text(address, size);

  std::map<uint64_t, std::pair<std::string, std::string>> labels;
  if ((rc = trelReturnVPropertyCount(node, 0, &count, 1))) return rc;
  Numbers tags(count), sizes(count), idSizes;
  if (count && (rc = trelReturnVProperties(node, tags.data(), sizes.data(), 0, count, 1)))
    return rc;
  for (uint64_t i = 0; i < count; ++i) {
    if ((rc = trelGetValueForVProperty(node, tags[i], &size, &address, nullptr, 1))) return rc;
    labels[tags[i]] = split(text(address, size));
  }
  for (const auto& label : labels)
    if (label.first >= kTexts) texts.push_back(label.second);

  if ((rc = trelReturnRPropertyCount(node, 0, &count, 1))) return rc;
  tags.assign(count, 0);
  if (count && (rc = trelReturnRProperties(node, tags.data(), 0, count, 1))) return rc;
  std::sort(tags.begin(), tags.end());
  for (const uint64_t t : tags) {
    int32_t value = 0;
    if ((rc = trelGetValueForRProperty(node, t, &value, 1))) return rc;
    registers.push_back({labels[t].first, labels[t].second, "", value});
  }

  std::vector<uint8_t> ids;
  if ((rc = trelReturnIRPropertyCount(node, 0, &count, 1))) return rc;
  tags.assign(count, 0);
  idSizes.assign(count, 0);
  ids.assign(count * kIdSpace, 0);
  if (count && (rc = trelReturnIRProperties(node, tags.data(), idSizes.data(), ids.data(), 0, count,
                                            kIdSpace, 1)))
    return rc;
  for (uint64_t i = 0; i < count; ++i) {
    int32_t value = 0;
    const uint8_t* id = &ids[i * kIdSpace];
    if ((rc = trelGetValueForIRProperty(node, tags[i], idSizes[i], id, &value, 1))) return rc;
    const auto& label = labels[kInstanceLabels + tags[i]];
    instances.push_back({label.first, label.second, text(id, idSizes[i]), value});
  }

  if ((rc = trelReturnIVPropertyCount(node, 0, &count, 1))) return rc;
  tags.assign(count, 0);
  idSizes.assign(count, 0);
  sizes.assign(count, 0);
  ids.assign(count * kIdSpace, 0);
  if (count && (rc = trelReturnIVProperties(node, tags.data(), idSizes.data(), ids.data(),
                                            sizes.data(), 0, count, kIdSpace, 1)))
    return rc;
  for (uint64_t i = 0; i < count; ++i) {
    const uint8_t* id = &ids[i * kIdSpace];
    if ((rc =
             trelGetValueForIVProperty(node, tags[i], idSizes[i], id, &size, &address, nullptr, 1)))
      return rc;
    mounts.emplace_back(text(id, idSizes[i]), text(address, size));
  }
  std::sort(mounts.begin(), mounts.end());
  return 0;
}
