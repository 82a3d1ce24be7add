// Settings of a registry engine object. The path fields are not cleared: only what is set is read, up to its NUL.
#include "zonmdfile/platform/GenRegBase.h"

namespace {

constexpr unsigned long FEATURE_COUNT = 64;

}  // namespace

GenRegBase::GenRegBase()
    : options_(0), fileMode_(0666), companionMode_(0666), features_(0), lockWaitMs_(DEFAULT_LOCK_WAIT_MS) {
  filePath_[0] = '\0';
  backupPath_[0] = '\0';
  temporaryPath_[0] = '\0';
  corruptPath_[0] = '\0';
  lockPath_[0] = '\0';
}

GenRegBase::~GenRegBase() = default;

void GenRegBase::setFeature(unsigned long feature) {
  if (feature < FEATURE_COUNT) features_ |= std::uint64_t{1} << feature;
}

void GenRegBase::unsetFeature(unsigned long feature) {
  if (feature < FEATURE_COUNT) features_ &= ~(std::uint64_t{1} << feature);
}

bool GenRegBase::hasFeature(unsigned long feature) const {
  return feature < FEATURE_COUNT && (features_ >> feature & 1) != 0;
}
