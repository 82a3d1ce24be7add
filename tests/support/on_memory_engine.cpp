// Has the stores of the whole program served by the memory engine: each metadata directory starts with a stub for every
// store.
#include <filesystem>

#include "platform/registry/harness/memory_engine.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDCloningHistory.h"
#include "zonmdfile/MDCloningMapping.h"
#include "zonmdfile/MDCloningSubSystemSetting.h"
#include "zonmdfile/MDContact.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/MDJCLSkeleton.h"
#include "zonmdfile/MDLocationMapping.h"
#include "zonmdfile/MDSubSystemSetting.h"
#include "zonmdfile/MDUtilNameMapping.h"
#include "zonmdfile/MDUtilityHistory.h"

namespace {

void putStubs(const std::filesystem::path& directory) {
  for (const char* name : {MDCloningHistory::FILENAME, MDCloningMapping::FILENAME, MDCloningSubSystemSetting::FILENAME,
                           MDContact::FILENAME, MDContactGroup::FILENAME, MDCustomTree::FILENAME,
                           MDJCLSkeleton::FILENAME, MDLocationMapping::FILENAME, MDSubSystemSetting::FILENAME,
                           MDUtilNameMapping::FILENAME, MDUtilityHistory::FILENAME}) {
    zon::test::keepInMemory(directory / name);
  }
}

[[maybe_unused]] const bool isPrepared = [] {
  zontest::prepareMetadataDirectory = putStubs;
  return true;
}();

}  // namespace
