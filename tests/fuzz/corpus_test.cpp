// The inputs that a fuzzer keeps, each given to it once, as a test of its own.
//
// The rule: the fuzzer itself says what must hold, by ending the process; a test here adds nothing to that.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size);

// A fuzzer may have the run-time change an input, which nobody asks it to here.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t*, std::size_t, std::size_t) { std::abort(); }

namespace {

std::vector<std::filesystem::path> keptInputs() {
  std::vector<std::filesystem::path> inputs;
  for (const auto& entry : std::filesystem::directory_iterator(ZON_CORPUS)) inputs.push_back(entry.path());
  std::sort(inputs.begin(), inputs.end());
  return inputs;
}

// libFuzzer names what it finds by a hash behind a dash.
std::string nameOf(const testing::TestParamInfo<std::filesystem::path>& input) {
  std::string name = input.param.filename();
  std::replace_if(
      name.begin(), name.end(), [](unsigned char letter) { return std::isalnum(letter) == 0; }, '_');
  return name;
}

class Corpus : public testing::TestWithParam<std::filesystem::path> {};
INSTANTIATE_TEST_SUITE_P(ZON_FUZZER, Corpus, testing::ValuesIn(keptInputs()), nameOf);

TEST_P(Corpus, IsMetWithoutHarm) {
  std::ifstream file(GetParam(), std::ios::binary);
  ASSERT_TRUE(file.is_open());
  std::vector<std::uint8_t> bytes(std::istreambuf_iterator<char>(file), {});
  EXPECT_EQ(LLVMFuzzerTestOneInput(bytes.data(), bytes.size()), 0);
}

}  // namespace
