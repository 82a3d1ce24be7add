// The worked example of docs/file-format.md, byte for byte against a file that the engine makes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "platform/registry/harness/fixed_surroundings.h"
#include "platform/registry/harness/format_reader.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDCustomTree.h"
#include "zonmdfile/platform/return_codes.h"

namespace zontest::format_document {
namespace {

// The example's rows: eight hexadecimal digits, two spaces, bytes with one space between, two spaces, and a note.
std::map<std::uint64_t, Bytes> rowsOfDocument() {
  std::map<std::uint64_t, Bytes> rows;
  std::ifstream document(ZON_FILE_FORMAT_DOCUMENT);
  for (std::string line; std::getline(document, line);) {
    const std::size_t start = line.find_first_not_of(' ');
    if (start == std::string::npos || line.size() < start + 12) continue;
    const std::string offset = line.substr(start, 8);
    const auto isHex = [](unsigned char digit) { return std::isxdigit(digit) != 0; };
    if (!std::all_of(offset.begin(), offset.end(), isHex) || line.compare(start + 8, 2, "  ") != 0) continue;
    const std::size_t first = start + 10;
    std::istringstream digits(line.substr(first, line.find("  ", first) - first));
    Bytes& bytes = rows[std::stoull(offset, nullptr, 16)];
    for (std::string byte; digits >> byte;) bytes.push_back(static_cast<std::uint8_t>(std::stoul(byte, nullptr, 16)));
  }
  return rows;
}

std::string rowOf(std::uint64_t offset, const Bytes& bytes) {
  char digits[16];
  std::snprintf(digits, sizeof digits, "%08x ", static_cast<unsigned>(offset));
  std::string row = digits;
  for (const std::uint8_t byte : bytes) {
    std::snprintf(digits, sizeof digits, " %02x", unsigned{byte});
    row += digits;
  }
  return row;
}

constexpr std::uint64_t EXAMPLE_END = 0x32a0;

class FormatExample : public testing::Test {
 protected:
  FormatExample() {
    MDCustomTree store;
    EXPECT_EQ(store.insert(text("region"), text("north"), text("1")), MD_RC_OK);
    EXPECT_EQ(store.insert(text("tenant"), text("red"), text("1")), MD_RC_OK);
    EXPECT_EQ(store.compact(), MD_RC_OK);
    EXPECT_EQ(store.update(text("region"), text("south"), text("2")), MD_RC_OK);
    file_ = bytesOf(directory_ / MDCustomTree::FILENAME);
  }

  DString& text(const char* content) { return texts_.emplace_back(content); }

  Bytes bytesAt(std::uint64_t offset, std::size_t count) const {
    const auto from = file_.begin() + static_cast<std::ptrdiff_t>(offset);
    return {from, from + static_cast<std::ptrdiff_t>(count)};
  }

  zontest::MetadataDirectory directory_;
  FixedSurroundings surroundings_{directory_.path()};
  std::deque<DString> texts_;
  Bytes file_;
};

TEST_F(FormatExample, HasEveryByteThatTheDocumentShows) {
  const auto rows = rowsOfDocument();
  ASSERT_GT(rows.size(), 50U);
  ASSERT_GE(file_.size(), EXAMPLE_END);
  for (const auto& [offset, bytes] : rows) {
    ASSERT_LE(offset + bytes.size(), EXAMPLE_END);
    EXPECT_EQ(rowOf(offset, bytes), rowOf(offset, bytesAt(offset, bytes.size())));
  }
}

TEST_F(FormatExample, HasOnlyZerosElsewhere) {
  for (const auto& [offset, bytes] : rowsOfDocument())
    std::fill_n(file_.begin() + static_cast<std::ptrdiff_t>(offset), bytes.size(), std::uint8_t{0});
  for (std::uint64_t offset = 0; offset < file_.size(); offset += 16)
    EXPECT_EQ(rowOf(offset, bytesAt(offset, 16)), rowOf(offset, Bytes(16)));
}

TEST_F(FormatExample, IsReadAsTheDocumentTells) {
  Met met;
  const Reader reader(file_, ONE_KEY, FixedSurroundings::bootId(0xB0), met);
  const std::vector<Bytes> records = reader.list();
  EXPECT_EQ(reader.end(), EXAMPLE_END);
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(keyOf(records[0], 0), "region");
  EXPECT_STREQ(reinterpret_cast<const char*>(records[0].data()) + 144, "south");
  EXPECT_EQ(keyOf(records[1], 0), "tenant");
  EXPECT_EQ(reader.find(0, records[1]), std::vector<Bytes>{records[1]});
  EXPECT_TRUE(met.block);
  EXPECT_FALSE(met.overlay);
  EXPECT_EQ(reader.find(0, records[0]), std::vector<Bytes>{records[0]});
  EXPECT_TRUE(met.overlay);
}

}  // namespace
}  // namespace zontest::format_document
