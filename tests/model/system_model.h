// SystemModel: what the whole library does, on lists in memory.
//
// The rule: as plain as the description of the behaviour, quadratic and recursive where that reads best, and nothing
// of the library itself in it. A listing is in the order of insertion; a change keeps a record's place.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "model/outcome.h"
#include "model/steps.h"

namespace zonmodel {

// Whether the withdrawal of a group is entered while one for the same group is under way.
enum class Reentry : std::uint8_t { REFUSED, ALLOWED };

// A withdrawal with Reentry::ALLOWED that has gone round too often to end.
struct EndlessWithdrawal : std::runtime_error {
  EndlessWithdrawal() : std::runtime_error("withdrawal without an end") {}
};

class SystemModel {
 public:
  Outcome apply(const Step& step);

  // The group cascade by itself. Throws EndlessWithdrawal.
  std::uint32_t withdraw(const std::string& member, const std::string& kind, Reentry reentry);
  // False as soon as any group, kind or member holds the list separator.
  bool hasPlainNames() const;

  struct Record {
    std::vector<std::string> keys;
    std::string data;
    std::string version;
    friend bool operator==(const Record&, const Record&) = default;
  };
  using Records = std::list<Record>;
  Records& groups() { return stores_["MDContactGroup"]; }

 private:
  using Texts = std::vector<std::string>;
  // A function's return code and its result texts in order.
  struct Answer {
    std::uint32_t rc = 0;
    Texts results;
  };

  Answer callStore(const std::string& store, std::string_view operation, const Texts& in);
  Answer callGroups(std::string_view operation, const Texts& in);
  void applyContactApi(std::string_view operation, const Step& step, Outcome& outcome);
  void applyGroupApi(std::string_view operation, const Step& step, Outcome& outcome);

  Answer updateGroup(const std::string& group, const std::string& description, const std::string& version);
  std::uint32_t removeMembership(const std::string& group, const std::string& kind, const std::string& member);
  std::uint32_t expand(const std::string& group, Texts& contacts, Texts& visited);
  void applyExpansion(const Texts& in, Outcome& outcome);
  Answer expandToList(const std::string& group);
  std::uint32_t withdraw(const std::string& member, const std::string& kind, Reentry reentry, Texts& underWay);

  std::map<std::string, Records> stores_;
};

}  // namespace zonmodel
