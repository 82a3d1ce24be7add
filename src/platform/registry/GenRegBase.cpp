// Settings of a registry engine object. The names lie one behind the other in one piece of memory.
#include "zonmdfile/platform/GenRegBase.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <new>
#include <string_view>
#include <utility>

#include "platform/registry/trace_points.h"
#include "platform/trace_scope.h"

namespace {

constexpr unsigned long FEATURE_COUNT = 64;

}  // namespace

GenRegBase::GenRegBase()
    : options_(0), fileMode_(0666), companionMode_(0666), features_(0), lockWaitMs_(DEFAULT_LOCK_WAIT_MS) {
  zon::TraceScope trace(zon::trace::enginePoint("GenRegBase::GenRegBase"));
}

GenRegBase::~GenRegBase() {
  zon::TraceScope trace(zon::trace::enginePoint("GenRegBase::~GenRegBase"));
  delete[] nameBytes_;
}

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

void GenRegBase::setFileNames(const FileNames& names) noexcept {
  constexpr std::array MEMBERS{&FileNames::file, &FileNames::temporary, &FileNames::corruptCopy, &FileNames::lock,
                               &FileNames::backup};
  FileNames kept = names;
  std::size_t size = MEMBERS.size();  // a NUL behind each
  for (const auto member : MEMBERS) {
    kept.*member = (kept.*member).substr(0, PATH_SIZE - 1);
    size += (kept.*member).size();
  }
  char* const bytes = new (std::nothrow) char[size];
  hasLostNames_ = bytes == nullptr;
  char* end = bytes;
  for (const auto member : MEMBERS) {
    std::string_view& name = kept.*member;
    if (hasLostNames_) {
      name = "";
      continue;
    }
    std::copy(name.begin(), name.end(), end);
    end[name.size()] = '\0';
    name = {end, name.size()};
    end += name.size() + 1;
  }
  // The old names may be among those given.
  delete[] std::exchange(nameBytes_, bytes);
  names_ = kept;
}

void GenRegBase::keepDurably(std::uint32_t creationMode) {
  options_ |= OPTION_DURABLE;
  fileMode_ = creationMode;
  companionMode_ = creationMode;
  setFeature(FEATURE_REPAIR);
  setFeature(FEATURE_BACKUP);
}
