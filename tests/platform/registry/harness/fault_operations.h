// What a user does to a record file, each with a model that tells what must come of it.
//
// The rule: records are made once, by prepareOperations, so that an operation allocates nothing of its own but in an
// Unfailing scope: every allocation that fails is the engine's.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "platform/registry/harness/test_records.h"

namespace zon::test {

constexpr std::size_t SMALL_RECORDS = 8192;

// What a call answered; of a listing that failed: what it delivered before.
struct Told {
  std::uint32_t rc = MD_RC_OK;
  Values delivered;
  bool hasMetLoss = false;
};

// What it must answer, and the states that it leads through: the first is the one before, the last the one after. A
// crash may leave any of them.
struct Expected {
  std::uint32_t rc = MD_RC_OK;
  std::vector<Values> states;
  Values delivered;
};

struct Operation {
  const char* name;
  std::function<Told(TestStore&)> run;
  std::function<Expected(const Values& before)> expect;
};

// Makes the records of all operations; asks for largestData to be set before.
void prepareOperations();
const std::vector<Operation>& operations();
const Operation& operationNamed(const std::string& name);

// What "add" adds.
const Value& addedRecord();
// What damage may hit: no operation is about this record, but for those about all of them.
const Value& bystander(const Values& values);

// The records in scan order, and how the listing ended.
Told listAll(TestStore& store);

}  // namespace zon::test
