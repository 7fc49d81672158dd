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

// Each figure is whole; that all lists are of one shape, the node's counter of changes tells.
uint32_t Snapshot::read(SNodeCB_t* node) {
  uint32_t rc = 0;
  uint64_t before = 0, after = 1;
  for (int attempt = 0; attempt < 10 && before != after; ++attempt) {
    *this = {};
    if ((rc = trelGetNodeReconfigCounter(node, &before))) return rc;
    rc = readOnce(node);
    if (const uint32_t failed = trelGetNodeReconfigCounter(node, &after)) return failed;
  }
  return rc;
}

uint32_t Snapshot::readOnce(SNodeCB_t* node) {
  uint8_t bytes[kTextSpace], *address = nullptr;
  uint64_t size = 0, tag = 0, count = 0;
  uint32_t rc = trelReturnBaseRProperty(node, &tag, 0);
  if (!rc) rc = trelGetValueForBaseRProperty(node, tag, &updates, 0);
  if (!rc) rc = trelReturnBaseVProperty(node, &tag, &size, 0);
  if (!rc) rc = trelGetValueForBaseVProperty(node, tag, &size, &address, bytes, 0);
  if (rc) return rc;
  title = text(bytes, size);

  std::map<uint64_t, std::pair<std::string, std::string>> labels;
  if ((rc = trelReturnVPropertyCount(node, 0, &count, 0))) return rc;
  Numbers tags(count), sizes(count), idSizes;
  if (count && (rc = trelReturnVProperties(node, tags.data(), sizes.data(), 0, count, 0)))
    return rc;
  for (uint64_t i = 0; i < count; ++i) {
    if ((rc = trelGetValueForVProperty(node, tags[i], &size, &address, bytes, 0))) return rc;
    labels[tags[i]] = split(text(bytes, size));
  }
  for (const auto& label : labels)
    if (label.first >= kTexts) texts.push_back(label.second);

  if ((rc = trelReturnRPropertyCount(node, 0, &count, 0))) return rc;
  tags.assign(count, 0);
  if (count && (rc = trelReturnRProperties(node, tags.data(), 0, count, 0))) return rc;
  std::sort(tags.begin(), tags.end());
  for (const uint64_t t : tags) {
    int32_t value = 0;
    if ((rc = trelGetValueForRProperty(node, t, &value, 0))) return rc;
    registers.push_back({labels[t].first, labels[t].second, "", value});
  }

  std::vector<uint8_t> ids;
  if ((rc = trelReturnIRPropertyCount(node, 0, &count, 0))) return rc;
  tags.assign(count, 0);
  idSizes.assign(count, 0);
  ids.assign(count * kIdSpace, 0);
  if (count && (rc = trelReturnIRProperties(node, tags.data(), idSizes.data(), ids.data(), 0, count,
                                            kIdSpace, 0)))
    return rc;
  for (uint64_t i = 0; i < count; ++i) {
    int32_t value = 0;
    const uint8_t* id = &ids[i * kIdSpace];
    if ((rc = trelGetValueForIRProperty(node, tags[i], idSizes[i], id, &value, 0))) return rc;
    const auto& label = labels[kInstanceLabels + tags[i]];
    instances.push_back({label.first, label.second, text(id, idSizes[i]), value});
  }

  if ((rc = trelReturnIVPropertyCount(node, 0, &count, 0))) return rc;
  tags.assign(count, 0);
  idSizes.assign(count, 0);
  sizes.assign(count, 0);
  ids.assign(count * kIdSpace, 0);
  if (count && (rc = trelReturnIVProperties(node, tags.data(), idSizes.data(), ids.data(),
                                            sizes.data(), 0, count, kIdSpace, 0)))
    return rc;
  for (uint64_t i = 0; i < count; ++i) {
    const uint8_t* id = &ids[i * kIdSpace];
    if ((rc = trelGetValueForIVProperty(node, tags[i], idSizes[i], id, &size, &address, bytes, 0)))
      return rc;
    mounts.emplace_back(text(id, idSizes[i]), text(bytes, size));
  }
  std::sort(mounts.begin(), mounts.end());
  return 0;
}
