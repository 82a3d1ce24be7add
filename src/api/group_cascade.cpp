// removeMemberFromGroups: withdraws a member from every group that holds it, and groups that become empty by that from
// their own parents, depth first.
//
// The rule: only the file's own answer that a group has no record left lets the group be withdrawn. Any failure ends
// the cascade at once with its code: going on would take "no memory" or "no reading" for "no records". The withdrawals
// under way stand on the heap, and no group is withdrawn twice in one call. The second visit could find nothing to
// remove, unless a list of names read back wrongly because a name holds the list separator; then it would go round for
// ever.
#include "api/group_cascade.h"

#include <deque>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "api/MDRegFactory.h"
#include "platform/guarded.h"
#include "record/tokenized_text.h"
#include "stores/contact_group_lists.h"

namespace zon {

namespace {

class Withdrawal {
 public:
  explicit Withdrawal(MDContactGroup& store) : store_(store), batch_(store) {}

  // The code of the last step for the member itself; those of emptied groups are not reported.
  [[nodiscard]] std::uint32_t run(DString& member, const DString& kind);

 private:
  // A member whose parents are being visited.
  struct Step {
    DString member;
    DString kind;
    DString parents;
    ListReader unvisited{std::string_view()};
    std::uint32_t rc = MD_RC_OK;
  };

  [[nodiscard]] std::uint32_t enter(const DString& member, const DString& kind);
  [[nodiscard]] std::uint32_t visitParents();
  [[nodiscard]] std::uint32_t visit(Step& step, DString& parent);
  [[nodiscard]] std::uint32_t findRest(DString& parent, bool hasRemoved);

  MDContactGroup& store_;
  BatchScope batch_;
  bool hasBegun_ = false;
  DSet<DString> entered_;  // groups that are or were being withdrawn
  // Records that parents have left: without a number when only one removal has asked.
  std::unordered_map<DString, std::optional<std::size_t>> left_;
  std::deque<Step> steps_;  // steps stay in place: their readers point into them
};

std::uint32_t Withdrawal::run(DString& member, const DString& kind) {
  std::uint32_t rc = enter(member, kind);
  if (rc == MD_RC_OK) rc = visitParents();
  // A member of no group is withdrawn already.
  if (rc == GENREG_RC_NOT_FOUND) rc = MD_RC_OK;
  // What is not durable outweighs whatever a step had to tell.
  const std::uint32_t commitRc = batch_.commit();
  return commitRc != MD_RC_OK ? commitRc : rc;
}

// Puts a step for the member on the stack when it has parents.
std::uint32_t Withdrawal::enter(const DString& member, const DString& kind) {
  if (kind == DString(MDContactGroup::GROUP_KIND) && !entered_.add(member)) return MD_RC_OK;
  Step& step = steps_.emplace_back();
  step.member = member;
  step.kind = kind;
  const std::uint32_t rc = listParents(store_, step.kind, step.member, step.parents);
  if (rc == MD_RC_OK) {
    step.unvisited = ListReader(step.parents);
  } else {
    steps_.pop_back();
  }
  return rc;
}

std::uint32_t Withdrawal::visitParents() {
  for (;;) {
    Step& step = steps_.back();
    std::string_view name;
    if (step.unvisited.next(name) == MD_RC_OK) {
      DString parent(name);
      if (const std::uint32_t rc = visit(step, parent)) return rc;
      continue;
    }
    const std::uint32_t rc = step.rc;
    steps_.pop_back();
    if (steps_.empty()) return rc;
  }
}

// Removes the step's member from one parent, and enters the parent when that was its last record. Returns what ends the
// whole cascade; everything else is remembered in the step.
std::uint32_t Withdrawal::visit(Step& step, DString& parent) {
  if (!hasBegun_) {
    hasBegun_ = true;
    if (const std::uint32_t rc = batch_.begin(); endsCall(rc)) return rc;
  }
  step.rc = store_.remove(parent, step.kind, step.member);
  if (!isAnswer(step.rc)) return step.rc;
  const std::uint32_t rest = findRest(parent, step.rc == MD_RC_OK);
  if (rest != GENREG_RC_NOT_FOUND) return isAnswer(rest) ? MD_RC_OK : rest;
  const std::uint32_t nested = enter(parent, DString(MDContactGroup::GROUP_KIND));
  return isAnswer(nested) ? MD_RC_OK : nested;
}

// 0 while the parent has records. To look for one costs as much as the parent has members, so a parent from which many
// are withdrawn is counted once, at the second, and then counted down: the batch keeps all other writers away.
std::uint32_t Withdrawal::findRest(DString& parent, bool hasRemoved) {
  const auto [entry, isFirst] = left_.try_emplace(parent);
  if (isFirst || !batch_.isOpen()) return findGroup(store_, parent);
  std::optional<std::size_t>& left = entry->second;
  if (!left) {
    std::size_t count = 0;
    if (const std::uint32_t rc = countGroup(store_, parent, count)) return rc;
    left = count;
  } else if (hasRemoved) {
    --*left;
  }
  return *left > 0 ? MD_RC_OK : GENREG_RC_NOT_FOUND;
}

}  // namespace

namespace {

[[nodiscard]] std::uint32_t withdrawTraced(DString& member, const DString& kind) {
  TraceScope trace(trace::point("removeMemberFromGroups"));
  trace.variable(member.c_str(), member.length());
  trace.variable(kind.c_str(), kind.length());
  return trace.exit(
      withStore<MDContactGroup>([&](MDContactGroup& store) { return Withdrawal(store).run(member, kind); }));
}

}  // namespace

std::uint32_t withdrawMember(const char* member, char kind) noexcept {
  return guarded([&] {
    DString name(member);
    return withdrawTraced(name, DString(kind));
  });
}

}  // namespace zon

extern "C" std::uint32_t removeMemberFromGroups(DString& member, DString kind) {
  const std::uint32_t rc = zon::withdrawTraced(member, kind);
  zon::LossWarning::forget();  // without an SQLCA there is nowhere to tell it
  return rc;
}
