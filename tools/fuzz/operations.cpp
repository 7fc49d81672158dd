#include "operations.h"

#include <algorithm>
#include <set>

namespace fuzz {
namespace {

// Operations that touch no segment: state of the process, lists in process memory, arithmetic,
// names.
const std::set<std::string> kWithoutSegment = {"trelCreateNodeInPM",
                                               "trelConvertNumberToKey",
                                               "trelGetHTIndexForTag",
                                               "trelGetHTIndex",
                                               "trelGetPrimeNumber",
                                               "trelGetHHeaderSize",
                                               "trelGetSLHeaderSize",
                                               "trelGetHHeaderInfo",
                                               "TRELOneTimeOnlyInitialization",
                                               "TRELCleanup",
                                               "trelPrintrc",
                                               "trelVersion",
                                               "trelCompareSegID",
                                               "trelFindAttachInfoNodeInLList",
                                               "trelInsertAttachInfoNodeIntoLList",
                                               "trelDeleteAttachInfoNodeInLList",
                                               "trelPrintAttachInfoNodeLList",
                                               "trelFindAttachSegInfoNodeInPMLList",
                                               "trelInsertAttachSegInfoNodeIntoPMLList",
                                               "trelDeleteAttachSegInfoNodeFromPMLList",
                                               "trelDeleteAttachSegInfoPMLList",
                                               "trelPrintAttachSegInfoNodePMLList",
                                               "trelFindHDMNodeInPMLList",
                                               "trelInsertHDMNodeIntoPMLList",
                                               "trelDeleteHDMNodeFromPMLList",
                                               "trelDeleteHDMPMLList",
                                               "trelPrintHDMNodePMLList",
                                               "trelGetControlBlockPtrFromSNodeInfoInPM",
                                               "trelCreateID",
                                               "trelDeleteID",
                                               "trelCompareID",
                                               "trelCompareTagID",
                                               "trelPrintID",
                                               "trelCreateTraverseInfoArray",
                                               "trelDeleteTraverseInfoArray",
                                               "trelReverseByteSequence",
                                               "trelDeleteDependentNodesArray",
                                               "trelCreateMaxSpaceArray",
                                               "trelFormatPathElement",
                                               "trelParsePathElement"};

const char* const kFunctions[] = {
#define TREL_FUNCTION(id, name) #name,
#include "trel/functions.def"
#undef TREL_FUNCTION
};

}  // namespace

Operations allOperations() {
  Operations all;
  for (const auto& family : {nodeOperations(), propertyOperations(), storageOperations(),
                             treeOperations(), segmentOperations()})
    all.insert(all.end(), family.begin(), family.end());
  return all;
}

std::vector<std::string> missingOperations() {
  std::set<std::string> rows = kWithoutSegment;
  for (const Operation& operation : allOperations()) rows.insert(operation.name);
  std::vector<std::string> missing;
  std::copy_if(std::begin(kFunctions), std::end(kFunctions), std::back_inserter(missing),
               [&](const std::string& name) { return rows.count(name) == 0; });
  return missing;
}

}  // namespace fuzz
