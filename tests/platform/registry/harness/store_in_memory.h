// A store in a folder where a sync costs nothing, for fixtures to have, and what is put there before many a test.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "platform/registry/harness/test_records.h"

namespace zon::test {

class StoreInMemory {
 protected:
  void fill(int records, int groups = 10) {
    ASSERT_EQ(store_.beginBatch(), MD_RC_OK);
    for (int at = 0; at < records; ++at) {
      ASSERT_EQ(store_.add({numbered("g", at % groups), numbered("k", at), noise(100, static_cast<unsigned>(at))}),
                MD_RC_OK);
    }
    ASSERT_EQ(store_.commitBatch(), MD_RC_OK);
  }

  // Every question and every change answers as it does where nothing was added yet.
  void expectNothingThere() {
    Value value;
    EXPECT_EQ(store_.get("g", "k", value), GENREG_RC_NOT_FOUND);
    std::uint32_t rc = GENREG_RC_INTERNAL;
    EXPECT_TRUE(store_.list(0, {}, &rc).empty());
    EXPECT_EQ(rc, MD_RC_OK);
    EXPECT_EQ(store_.change({"g", "k", "x"}), GENREG_RC_NOT_FOUND);
    EXPECT_EQ(store_.remove("g", "k"), GENREG_RC_NOT_FOUND);
    EXPECT_EQ(store_.removeAll("g", "", GROUP), GENREG_RC_NOT_FOUND);
    GenRegStatus status;
    ASSERT_EQ(store_.status(status), MD_RC_OK);
    EXPECT_EQ(status.records, 0u);
    EXPECT_EQ(status.damaged, 0u);
    EXPECT_EQ(store_.compact(), MD_RC_OK);
    EXPECT_EQ(store_.repair(), MD_RC_OK);
    EXPECT_EQ(store_.beginBatch(), MD_RC_OK);
    EXPECT_EQ(store_.commitBatch(), MD_RC_OK);
  }

  TestFolder folder_{inMemory()};
  TestStore store_{folder_.path()};
};

}  // namespace zon::test
