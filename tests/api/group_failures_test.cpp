// Removals that withdraw from groups, and updates of a group, while one system call after the other fails.
//
// The rule: a group that still has a member is withdrawn from no parent, whatever fails; and a call that answers 0 has
// done all of its work. The calls of the engine are replaced, so this program is one of its own.
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <set>
#include <string>

#include "platform/registry/files/system_calls.h"
#include "support/cells.h"
#include "support/groups.h"
#include "support/metadata_test.h"

namespace {

using zon::SystemCalls;
using zontest::Call;
using zontest::groups;

const SystemCalls REAL = zon::realSystemCalls();
int wantedErrno = EIO;
int callsUntilFailure = 0;  // 0: none fails
bool hasFailed = false;

bool isRefused() {
  if (callsUntilFailure == 0 || --callsUntilFailure != 0) return false;
  hasFailed = true;
  errno = wantedErrno;
  return true;
}

// The system's call of this member, refused when its turn has come.
template <auto MEMBER>
constexpr auto REFUSABLE = [](auto... arguments) -> decltype((REAL.*MEMBER)(arguments...)) {
  return isRefused() ? -1 : (REAL.*MEMBER)(arguments...);
};

class RefusedCalls {
 public:
  RefusedCalls(int error, int number) {
    wantedErrno = error;
    callsUntilFailure = number;
    hasFailed = false;
    zon::systemCalls.openAt = [](int directory, const char* path, int flags, mode_t mode) {
      return isRefused() ? -1 : REAL.openAt(directory, path, flags, mode);
    };
    zon::systemCalls.pread = REFUSABLE<&SystemCalls::pread>;
    zon::systemCalls.pwrite = REFUSABLE<&SystemCalls::pwrite>;
    zon::systemCalls.fdatasync = REFUSABLE<&SystemCalls::fdatasync>;
    zon::systemCalls.fallocate = REFUSABLE<&SystemCalls::fallocate>;
    zon::systemCalls.flock = REFUSABLE<&SystemCalls::flock>;
    zon::systemCalls.statx = REFUSABLE<&SystemCalls::statx>;
  }
  ~RefusedCalls() {
    callsUntilFailure = 0;
    zon::systemCalls = REAL;
  }
  RefusedCalls(const RefusedCalls&) = delete;
  RefusedCalls& operator=(const RefusedCalls&) = delete;
};

// Groups with their members, as support/groups.h writes them.
std::map<std::string, std::set<std::string>> membersByGroup(const std::string& all) {
  std::map<std::string, std::set<std::string>> members;
  for (std::size_t at = 0; at < all.size();) {
    const std::size_t end = std::min(all.find(' ', at), all.size());
    const std::string one = all.substr(at, end - at);
    const std::size_t mark = one.find_first_of(":>");
    members[one.substr(0, mark)].insert(one.substr(mark));
    at = end + 1;
  }
  return members;
}

constexpr const char* GROUPS = "G:a P>G P:a Q>P R>Q R:b S>G S>P T:a T:c U>T V:a W>V X>W Y:a Z>Y Z:a Z:b N>Z";
constexpr const char* WITHOUT_A = "R:b T:c U>T Z:b N>Z";

class GroupFailures : public zontest::MetadataTest {
 protected:
  // Groups that are gone from a parent although they have members of their own.
  static std::string wronglyWithdrawn(const std::string& left) {
    auto before = membersByGroup(GROUPS);
    auto after = membersByGroup(left);
    std::string wrong;
    for (const auto& [parent, members] : before) {
      for (const std::string& member : members) {
        const bool isGroup = member[0] == '>';
        if (isGroup && after[parent].count(member) == 0 && !after[member.substr(1)].empty()) wrong += parent + member;
      }
    }
    return wrong;
  }
  void reset() {
    for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
      std::filesystem::remove(entry.path());
    }
    zontest::insertGroups(GROUPS);
  }
};

TEST_F(GroupFailures, WithdrawNoGroupThatStillHasAMember) {
  reset();
  ASSERT_EQ(removeMemberFromGroups(zontest::Text("a"), DString("0")), 0U);
  ASSERT_EQ(groups(), WITHOUT_A);
  for (const int error : {EIO, ENOMEM, EACCES}) {
    bool failed = true;
    for (int number = 1; failed; ++number) {
      SCOPED_TRACE("call " + std::to_string(number) + " fails with " + std::to_string(error));
      reset();
      std::uint32_t rc = 0;
      {
        const RefusedCalls refused(error, number);
        rc = removeMemberFromGroups(zontest::Text("a"), DString("0"));
        failed = hasFailed;
      }
      const std::string left = groups();
      ASSERT_EQ(wronglyWithdrawn(left), "") << left;
      if (rc == MD_RC_OK) {
        ASSERT_EQ(left, WITHOUT_A);
      }
      ASSERT_NE(rc, GENREG_RC_NOT_FOUND);
    }
  }
}

TEST_F(GroupFailures, LeaveAnUpdatedGroupWholeWhenItAnswers0) {
  for (const int error : {EIO, ENOMEM}) {
    bool failed = true;
    for (int number = 1; failed; ++number) {
      SCOPED_TRACE("call " + std::to_string(number) + " fails with " + std::to_string(error));
      reset();
      Call call;
      call.in("S").in("new").in("2").rc();
      {
        const RefusedCalls refused(error, number);
        call.run(MDContactGroup_updateDescription);
        failed = hasFailed;
      }
      if (call.rcCell(3) != 0) continue;
      Call list;
      list.in("S").rc().out().out().out().out().run(MDContactGroup_retrieveList);
      ASSERT_EQ(list.textAt(4), zontest::listOf("new|new|"));
    }
  }
}

// No sync succeeds, and one read finds no memory: a step fails, and then the commit of what was done before it.
class FailingCommit {
 public:
  explicit FailingCommit(int readThatFails) {
    untilFailure = readThatFails;
    syncs = 0;
    zon::systemCalls.pread = [](int file, void* data, std::size_t size, off_t at) -> ssize_t {
      return --untilFailure == 0 ? (errno = ENOMEM, -1) : REAL.pread(file, data, size, at);
    };
    zon::systemCalls.fdatasync = [](int) { return ++syncs, errno = EIO, -1; };
    zon::systemCalls.fsync = zon::systemCalls.fdatasync;
  }
  ~FailingCommit() { zon::systemCalls = REAL; }
  FailingCommit(const FailingCommit&) = delete;
  FailingCommit& operator=(const FailingCommit&) = delete;

  static bool hasReadFailed() { return untilFailure <= 0; }
  static bool hasCommitFailed() { return syncs > 0; }

 private:
  static inline int untilFailure = 0;
  static inline int syncs = 0;
};

class GroupCommits : public GroupFailures {
 protected:
  // Every read fails in turn; what the call answers is the commit's code where one was tried.
  template <class Work>
  void expectTheCommitsCode(Work work) {
    int both = 0;
    bool hasReadFailed = true;
    for (int read = 1; hasReadFailed; ++read) {
      SCOPED_TRACE("read " + std::to_string(read) + " fails");
      reset();
      std::uint32_t rc = 0;
      bool hasCommitFailed = false;
      {
        const FailingCommit failing(read);
        rc = work();
        hasReadFailed = FailingCommit::hasReadFailed();
        hasCommitFailed = FailingCommit::hasCommitFailed();
      }
      ASSERT_EQ(rc, hasCommitFailed ? GENREG_RC_DURABILITY_UNKNOWN : GENREG_RC_NO_MEMORY);
      both += hasReadFailed && hasCommitFailed ? 1 : 0;
    }
    EXPECT_GT(both, 0);
  }
};

TEST_F(GroupCommits, OutweighTheCodesOfWithdrawals) {
  expectTheCommitsCode([] { return removeMemberFromGroups(zontest::Text("a"), DString("0")); });
}

TEST_F(GroupCommits, OutweighTheCodesOfChanges) {
  expectTheCommitsCode([] { return MDContactGroup().update(zontest::Text("S"), zontest::Text("new"), DString("2")); });
}

}  // namespace
