// Settings of a registry engine object. The path fields are not cleared: only what is set is read, up to its NUL.
#include "zonmdfile/platform/GenRegBase.h"

#include <algorithm>
#include <iterator>

#include "platform/registry/trace_points.h"
#include "platform/trace_scope.h"

namespace {

constexpr unsigned long FEATURE_COUNT = 64;

}  // namespace

GenRegBase::GenRegBase()
    : options_(0), fileMode_(0666), companionMode_(0666), features_(0), lockWaitMs_(DEFAULT_LOCK_WAIT_MS) {
  zon::TraceScope trace(zon::trace::enginePoint("GenRegBase::GenRegBase"));
  filePath_[0] = '\0';
  backupPath_[0] = '\0';
  temporaryPath_[0] = '\0';
  corruptPath_[0] = '\0';
  lockPath_[0] = '\0';
}

GenRegBase::~GenRegBase() { zon::TraceScope trace(zon::trace::enginePoint("GenRegBase::~GenRegBase")); }

void GenRegBase::setFeature(unsigned long feature) {
  zon::TraceScope trace(zon::trace::enginePoint("GenRegBase::setFeature"));
  if (feature < FEATURE_COUNT) features_ |= std::uint64_t{1} << feature;
}

void GenRegBase::unsetFeature(unsigned long feature) {
  zon::TraceScope trace(zon::trace::enginePoint("GenRegBase::unsetFeature"));
  if (feature < FEATURE_COUNT) features_ &= ~(std::uint64_t{1} << feature);
}

bool GenRegBase::hasFeature(unsigned long feature) const {
  return feature < FEATURE_COUNT && (features_ >> feature & 1) != 0;
}

void GenRegBase::setRecordType(const Callbacks& callbacks, const IndexFlags& indexFlags) {
  callbacks_ = callbacks;
  std::copy(indexFlags.begin(), indexFlags.end(), std::begin(indexFlags_));
}

GenRegBase::FileNames GenRegBase::fileNames() {
  return {.file = filePath_,
          .temporary = temporaryPath_,
          .corruptCopy = corruptPath_,
          .lock = lockPath_,
          .backup = backupPath_};
}

void GenRegBase::keepDurably(std::uint32_t creationMode) {
  options_ |= OPTION_DURABLE;
  fileMode_ = creationMode;
  companionMode_ = creationMode;
  setFeature(FEATURE_REPAIR);
  setFeature(FEATURE_BACKUP);
}
