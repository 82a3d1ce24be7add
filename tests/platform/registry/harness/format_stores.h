// Stores of all record types with random records, laid out as docs/file-format.md tells, and a fixture that holds what
// the document's reader answers of their files against what the engine answers.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "platform/registry/harness/fixed_surroundings.h"
#include "platform/registry/harness/format_reader.h"
#include "support/metadata_test.h"
#include "zonmdfile/MDOneKeyReg.h"
#include "zonmdfile/MDThreeKeyReg.h"
#include "zonmdfile/MDTwoKeyReg.h"
#include "zonmdfile/platform/return_codes.h"

namespace zontest::format_document {

// What the engine answers, record by record, of a file with one of the three record types.
template <class Type>
class Store : public Type {
 public:
  explicit Store(const Layout& layout) : Type("formats"), layout_(layout) {
    this->options_ = 0;  // a sync changes no byte
  }

  std::uint32_t add(Bytes record) { return this->Add(wholeKey(), record.data()); }
  std::uint32_t change(Bytes match, Bytes record) { return this->Change(wholeKey(), match.data(), record.data()); }
  std::uint32_t remove(std::size_t index, Bytes match) {
    if (index != 0) this->setFeature(GenRegBase::FEATURE_DELETE_ALL);
    const std::uint32_t rc = this->Delete(layout_.indexes[index], match.data());
    this->unsetFeature(GenRegBase::FEATURE_DELETE_ALL);
    return rc;
  }

  // All records, or those whose fields of an index are those of `match`, in scan order.
  std::vector<Bytes> list(unsigned flags = 0, Bytes match = {}) {
    std::vector<Bytes> records;
    EXPECT_EQ(this->OpenScan(), MD_RC_OK);
    while (this->GetNext(flags, match.data(), out_.data()) == MD_RC_OK) records.push_back(sized());
    EXPECT_EQ(this->CloseScan(), MD_RC_OK);
    return records;
  }
  std::optional<Bytes> get(Bytes match) {
    const std::uint32_t rc = this->Get(wholeKey(), match.data(), out_.data());
    EXPECT_TRUE(rc == MD_RC_OK || rc == GENREG_RC_NOT_FOUND) << rc;
    return rc == MD_RC_OK ? std::optional(sized()) : std::nullopt;
  }

 private:
  unsigned long wholeKey() const { return layout_.indexes[0]; }

  Bytes sized() {
    unsigned long size = 0;
    Type::GetRecordSize(out_.data(), &size);
    return {out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(size)};
  }

  const Layout& layout_;
  Bytes out_ = Bytes(2'000'000);
};

template <class Type>
struct Described;
template <>
struct Described<MDOneKeyReg> {
  static const Layout& layout() { return ONE_KEY; }
};
template <>
struct Described<MDTwoKeyReg> {
  static const Layout& layout() { return TWO_KEYS; }
};
template <>
struct Described<MDThreeKeyReg> {
  static const Layout& layout() { return THREE_KEYS; }
};

template <class Type>
class FormatDocument : public testing::Test {
 protected:
  const Layout& layout() const { return Described<Type>::layout(); }
  unsigned below(unsigned limit) { return std::uniform_int_distribution<unsigned>(0, limit - 1)(random_); }
  Bytes file() const { return bytesOf(path_); }
  std::string groupText() { return "group " + std::to_string(below(groups_)); }

  // A record as the document lays it out, with random keys and data.
  Bytes record(unsigned keys) {
    std::string data = std::string(below(30) == 0 ? below(20000) : below(40), static_cast<char>('a' + below(26)));
    if (below(4) == 0) data.insert(data.size() / 2, 3, '.');
    Bytes bytes(layout().dataOffset + data.size() + 5);
    for (const auto& [flag, offset] : layout().keys) {
      const std::string text = flag == 8 ? "key " + std::to_string(below(keys)) : groupText();
      std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    bytes[layout().versionOffset] = '1';
    const auto size = static_cast<std::uint32_t>(data.size() + 1);
    for (std::size_t at = 0; at < 4; ++at)
      bytes[layout().dataSizeOffset + at] = static_cast<std::uint8_t>(size >> 8 * at);
    std::copy(data.begin(), data.end(), bytes.begin() + static_cast<std::ptrdiff_t>(layout().dataOffset));
    return bytes;
  }

  void step(unsigned keys) {
    const unsigned kind = below(100);
    if (kind < 40) {
      store_.add(record(keys));
    } else if (kind < 70) {
      Bytes newer = record(keys);
      store_.change(newer, newer);
    } else if (kind < 80) {
      // The keys change as well, to some that are free.
      const Bytes newer = record(keys);
      if (!store_.get(newer)) store_.change(record(keys), newer);
    } else if (kind < 99) {
      store_.remove(0, record(keys));
    } else {
      store_.remove(layout().indexes.size() - 1, record(keys));
    }
  }

  void expectSameAnswers(const Bytes& bootId, unsigned keys) {
    const Reader reader(file(), layout(), bootId, met_);
    ASSERT_TRUE(reader.isUnique());
    const std::vector<Bytes> records = store_.list();
    ASSERT_EQ(reader.list(), records);
    for (int round = 0; round < 40; ++round) {
      const Bytes match = record(keys);
      const std::optional<Bytes> answer = store_.get(match);
      ASSERT_EQ(reader.findWholeKey(match), answer);
      for (std::size_t index = 0; index < layout().indexes.size(); ++index)
        ASSERT_EQ(reader.find(index, match), store_.list(layout().indexes[index], match)) << "index " << index;
    }
  }

  // The file as a crash of the machine leaves it that lost the last slot: the header page is of a moment ago.
  void loseSlots(const Bytes& before) {
    Bytes now = file();
    std::copy_n(before.begin(), LOG_START, now.begin());
    write(path_, now);
  }

  zontest::MetadataDirectory directory_;
  FixedSurroundings surroundings_{directory_.path()};
  std::filesystem::path path_ = directory_ / "formats";
  Store<Type> store_{Described<Type>::layout()};
  std::mt19937 random_{20};
  unsigned groups_ = 6;
  Met met_;
};

}  // namespace zontest::format_document
