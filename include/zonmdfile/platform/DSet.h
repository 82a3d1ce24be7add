/*
 * DSet (header only): a set of owned copies that remembers the order in which they came. The rule: seen from
 * outside it is an array that grows by a fixed step and is searched from its start; inside, neither growing nor
 * searching costs more with many members than with few.
 */
#ifndef ZONMDFILE_PLATFORM_DSET_H
#define ZONMDFILE_PLATFORM_DSET_H

#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "zonmdfile/platform/export.h"

/*
 * T needs a copy constructor, == and std::hash<T>, the two agreeing. An object belongs to one thread at a time. What
 * needs memory throws std::bad_alloc when there is none (and passes on what T throws) and leaves the set as it was.
 */
template <class T>
class DSet {
 public:
  /* What elementAt throws for an index that the set does not have. */
  class ZON_EXPORT OutOfRange : public std::out_of_range {
   public:
    OutOfRange(std::size_t index, std::size_t count)
        : std::out_of_range("DSet: element " + std::to_string(index) + " of " + std::to_string(count)) {}
  };

  /* An empty set of room for `capacity` members; whenever it is full, `growth` places (at least 1) are added. */
  explicit DSet(std::size_t capacity = 1, std::size_t growth = 1)
      : capacity_(capacity), growthStep_(growth != 0 ? growth : 1) {}
  DSet(const DSet& other) : DSet(other.capacity_, other.growthStep_) {
    for (const std::unique_ptr<const T>& member : other.members_) add(*member);
  }
  /* The set moved from is empty and has its capacity and growth step still. */
  DSet(DSet&& other) noexcept
      : members_(std::exchange(other.members_, {})),
        index_(std::move(other.index_)),
        capacity_(other.capacity_),
        growthStep_(other.growthStep_) {
    other.index_.clear();
  }
  DSet& operator=(DSet other) noexcept {
    members_.swap(other.members_);
    index_.swap(other.index_);
    std::swap(capacity_, other.capacity_);
    std::swap(growthStep_, other.growthStep_);
    return *this;
  }
  ~DSet() = default;

  /* Adds a copy at the end and returns true; returns false, with the set as it was, when an equal member is there. */
  bool add(const T& value) {
    if (contains(value)) return false;
    members_.push_back(std::make_unique<const T>(value));
    try {
      indexNewest();
    } catch (...) {
      members_.pop_back();
      throw;
    }
    if (members_.size() > capacity_) capacity_ += growthStep_;
    return true;
  }

  bool contains(const T& value) const {
    if (!index_.empty()) return index_.find(&value) != index_.end();
    for (const std::unique_ptr<const T>& member : members_) {
      if (*member == value) return true;
    }
    return false;
  }

  /* The member at `index`, counted from 1 in the order of adding. It stays where it is until the set is cleared. */
  const T& elementAt(std::size_t index) const {
    if (index == 0 || index > members_.size()) throw OutOfRange(index, members_.size());
    return *members_[index - 1];
  }

  std::size_t count() const noexcept { return members_.size(); }
  /* Places of the array that callers see: the first capacity and as many growth steps as the members needed. */
  std::size_t capacity() const noexcept { return capacity_; }
  std::size_t growthStep() const noexcept { return growthStep_; }

  /* Releases all members; the capacity stays. */
  void clear() noexcept {
    index_.clear();
    members_.clear();
  }

 private:
  struct HashOfMember {
    std::size_t operator()(const T* member) const { return std::hash<T>()(*member); }
  };
  struct SameMember {
    bool operator()(const T* left, const T* right) const { return left == right || *left == *right; }
  };

  /* Up to here a search through the members is faster than a hash, and most sets stay this small. */
  static constexpr std::size_t SEARCHED_COUNT = 8;

  void indexNewest() {
    if (members_.size() <= SEARCHED_COUNT) return;
    if (!index_.empty()) {
      index_.insert(members_.back().get());
      return;
    }
    Index index;
    for (const std::unique_ptr<const T>& member : members_) index.insert(member.get());
    index_.swap(index);
  }

  using Index = std::unordered_set<const T*, HashOfMember, SameMember>;

  std::vector<std::unique_ptr<const T>> members_;
  Index index_; /* empty, or every member */
  std::size_t capacity_;
  std::size_t growthStep_;
};

#endif
