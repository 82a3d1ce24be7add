// Listings and groups in a process that may hardly take more memory than it has (RLIMIT_AS): the answer is complete, or
// the call fails and touches nothing.
//
// The method: a child process makes the call under a limit that rises from the memory it has already, until the call
// succeeds; the parent has made the same call without a limit. A sanitizer's shadow leaves no room for such limits.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/cells.h"
#include "support/failing_memory.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDContactGroup.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/zonmdfile.h"

namespace {

using zontest::Call;
using zontest::Text;

constexpr int RECORDS = 1500;
constexpr std::uint64_t STEP_BYTES = 64 * 1024;
constexpr std::uint64_t MOST_BYTES = 64 * 1024 * 1024;

struct Listing {
  const char* name;
  zontest::EntryPoint function;
  const char* slots;  // g: the group, o: output, r: rc, #: number, *: an output for each record
};

std::unique_ptr<Call> callOf(const Listing& listing) {
  auto call = std::make_unique<Call>();
  for (const char* slot = listing.slots; *slot != '\0'; ++slot) {
    if (*slot == 'g') call->in("group");
    if (*slot == 'o') call->out();
    if (*slot == 'r') call->rc();
    if (*slot == '#') call->number();
    if (*slot == '*') {
      for (int i = 0; i < RECORDS; ++i) call->out();
    }
  }
  return call;
}

std::vector<std::string> outputsOf(const Call& call) {
  std::vector<std::string> outputs;
  const std::size_t first = call.slotCount() - call.outputCount();
  for (std::size_t i = first; i < call.slotCount(); ++i) outputs.push_back(call.textAt(i));
  return outputs;
}

std::uint64_t addressSpaceBytes() {
  std::uint64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

enum Outcome : int { COMPLETE, REFUSED, WRONG };

class AddressSpace : public testing::TestWithParam<Listing> {
 protected:
  AddressSpace() {
    const std::string data(400, 'd');
    MDCustomTree trees;
    MDContactGroup groups;
    EXPECT_EQ(trees.beginBatch() + groups.beginBatch(), 0U);
    for (int i = 0; i < RECORDS; ++i) {
      const std::string name = "member" + std::to_string(i);
      EXPECT_EQ(trees.insert(Text(name), Text(data), DString("1")), 0U);
      EXPECT_EQ(groups.insert(Text("group"), DString("0"), Text(name), Text(data), DString("1")), 0U);
    }
    EXPECT_EQ(trees.commitBatch() + groups.commitBatch(), 0U);
  }

  Outcome listWithin(std::uint64_t bytes, const std::vector<std::string>& truth) {
    const pid_t child = ::fork();
    if (child == 0) listInChild(bytes, truth);
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? static_cast<Outcome>(WEXITSTATUS(status)) : WRONG;
  }

  const zontest::MetadataDirectory directory_{zontest::inMemory()};
  std::uint32_t version_ = 3;  // what the reserved argument says

 private:
  // Nothing but the call itself is made under the limit; no exception may lead back into the parent's tests.
  [[noreturn]] void listInChild(std::uint64_t bytes, const std::vector<std::string>& truth) noexcept {
    const auto call = callOf(GetParam());
    std::vector<void*> block = call->block();
    struct sqlca sqlca {};
    ::malloc_trim(0);  // what the parent has given back is no room for the child
    const struct rlimit none { RLIM_INFINITY, RLIM_INFINITY };
    const struct rlimit limit { addressSpaceBytes() + bytes, RLIM_INFINITY };
    ::setrlimit(RLIMIT_AS, &limit);
    GetParam().function(&version_, block.data(), &sqlca);
    ::setrlimit(RLIMIT_AS, &none);
    if (sqlca.sqlcode != 0) ::_exit(call->areOutputsUntouched() ? REFUSED : WRONG);
    ::_exit(outputsOf(*call) == truth ? COMPLETE : WRONG);
  }
};

std::string nameOf(const testing::TestParamInfo<Listing>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Of, AddressSpace,
                         testing::Values(Listing{"MDCustomTree_retrieveAll", MDCustomTree_retrieveAll, "rooo"},
                                         Listing{"MDContactGroup_retrieveAll", MDContactGroup_retrieveAll, "rooooo"},
                                         Listing{"MDContactGroup_retrieveList", MDContactGroup_retrieveList, "groooo"},
                                         Listing{"MDContactGroup_retrieveAllContactNames",
                                                 MDContactGroup_retrieveAllContactNames, "gro"},
                                         Listing{"ContactGroupAPI_retrieveAllContactNames",
                                                 ContactGroupAPI_retrieveAllContactNames, "g##*"}),
                         nameOf);

TEST_P(AddressSpace, ThatRunsOutIsToldByListings) {
  if (zontest::hasSanitizer()) GTEST_SKIP() << "no limit of the address space beside a sanitizer's shadow";
  const auto unlimited = callOf(GetParam());
  unlimited->run(GetParam().function, &version_);
  ASSERT_EQ(unlimited->sqlcode(), 0);
  const std::vector<std::string> truth = outputsOf(*unlimited);
  int refused = 0;
  Outcome outcome = REFUSED;
  for (std::uint64_t bytes = 0; outcome == REFUSED; bytes += STEP_BYTES) {
    ASSERT_LT(bytes, MOST_BYTES);
    outcome = listWithin(bytes, truth);
    ASSERT_NE(outcome, WRONG) << bytes;
    refused += outcome == REFUSED ? 1 : 0;
  }
  EXPECT_GT(refused, 0);
}

}  // namespace
