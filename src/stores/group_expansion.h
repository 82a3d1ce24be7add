// GroupExpansion: all contacts that can be reached from a group through nested groups.
//
// The rule: depth first and in scan order, as if each nested group were a call of its own; but the calls stand on the
// heap, so that depth costs memory and never the stack.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>

#include "record/tokenized_text.h"
#include "zonmdfile/MDThreeKeyReg.h"
#include "zonmdfile/platform/DSet.h"

namespace zon {

class GroupExpansion {
 public:
  // Groups in `visited` are not entered again; `contacts` and `visited` grow.
  GroupExpansion(MDThreeKeyReg& file, DSet<DString>& contacts, DSet<DString>& visited)
      : file_(file), contacts_(contacts), visited_(visited) {}

  [[nodiscard]] std::uint32_t run(DString& group);

 private:
  // A group whose nested groups are being expanded.
  struct Branch {
    DString nestedGroups;
    ListReader unvisited{std::string_view()};
    std::size_t found = 0;
    std::uint32_t contactsRc = 0;
    std::uint32_t groupsRc = 0;
    std::uint32_t nestedRc = 0;

    void noteNested(std::uint32_t rc);
    [[nodiscard]] std::uint32_t result() const;
  };

  void enter(DString& group);
  bool takeUnvisited(Branch& branch, DString& group);

  MDThreeKeyReg& file_;
  DSet<DString>& contacts_;
  DSet<DString>& visited_;
  std::deque<Branch> branches_;  // branches stay in place: their readers point into them
};

}  // namespace zon
