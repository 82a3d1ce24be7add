// Makes the same exported call many times over, and nothing else, for tools that count instructions or system calls of
// a whole process: the difference between two numbers of calls is what the calls cost, without the start of the
// process.
//
// Usage: call_loop DIR load RECORDS     makes the files
//        call_loop DIR CALL TIMES       CALL: retrieve absent insert update remove list group parents
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "zonmdfile/platform/admin.h"
#include "zonmdfile/platform/oss.h"
#include "zonmdfile/zonmdfile.h"

namespace {

using Entry = void (*)(void*, void**, struct sqlca*);

constexpr std::size_t DATA_SIZE = 200;
constexpr std::uint64_t GROUP_SIZE = 10;
constexpr std::uint64_t MOST_IN_GROUPS = 1000;  // two-key and group records that are loaded at most
constexpr std::int32_t NOT_THERE = -22273;

std::string keyOf(std::uint64_t number) { return "tree." + std::to_string(1000000000 + number); }
std::string groupOf(std::uint64_t number) { return "group." + std::to_string(number); }
std::string dataOf(std::uint64_t number) {
  std::string data = "value of record " + std::to_string(number) + ' ';
  data.resize(DATA_SIZE, static_cast<char>('a' + number % 26));
  return data;
}

// The block of nearly every entry point: inputs, the rc cell, outputs.
std::int32_t call(Entry entry, const std::vector<std::string>& texts, std::size_t outputCount) {
  std::vector<zonInputCell> inputs;
  for (const std::string& text : texts) inputs.push_back({static_cast<std::uint32_t>(text.size()), text.c_str()});
  std::vector<zonOutputCell> outputs(outputCount);
  std::int32_t rc = -1;
  std::vector<void*> block;
  for (zonInputCell& input : inputs) block.push_back(&input);
  block.push_back(&rc);
  for (zonOutputCell& output : outputs) block.push_back(&output);
  struct sqlca sqlca;
  entry(nullptr, block.data(), &sqlca);
  for (zonOutputCell& output : outputs) {
    void* text = output.text;
    _ossMemFree(&text, 0, 0, "call_loop", __LINE__);
  }
  return rc;
}

void require(std::int32_t rc, std::int32_t expected, const char* what) {
  if (rc == expected) return;
  std::fprintf(stderr, "call_loop: %s answered %d\n", what, rc);
  std::exit(1);
}

std::string countFile(const char* directory) { return std::string(directory) + "/call_loop.records"; }

void load(const char* directory, std::uint64_t records) {
  for (std::uint64_t number = 0; number < records; ++number) {
    require(call(MDCustomTree_insert, {keyOf(number), dataOf(number), "1"}, 0), 0, "MDCustomTree_insert");
  }
  for (std::uint64_t number = 0; number < std::min(records, MOST_IN_GROUPS); ++number) {
    const std::string group = groupOf(number / GROUP_SIZE);
    require(call(MDJCLSkeleton_insert, {group, keyOf(number), dataOf(number), "1"}, 0), 0, "MDJCLSkeleton_insert");
    const std::string member = "member." + std::to_string(number / GROUP_SIZE);
    const std::string holder = groupOf(number % (MOST_IN_GROUPS / GROUP_SIZE));
    require(call(MDContactGroup_insert, {holder, "0", member, "d", "1"}, 0), 0, "MDContactGroup_insert");
  }
  std::ofstream(countFile(directory)) << records << '\n';
}

std::uint64_t loadedRecords(const char* directory) {
  std::uint64_t records = 0;
  std::ifstream(countFile(directory)) >> records;
  if (records == 0) {
    std::fprintf(stderr, "call_loop: %s holds no files of ours; load them first\n", directory);
    std::exit(2);
  }
  return records;
}

using Work = std::function<void(std::uint64_t)>;
struct Named {
  const char* name;
  Work work;
};

std::vector<Named> callsOn(std::uint64_t records) {
  const std::uint64_t groups = std::min(records, MOST_IN_GROUPS) / GROUP_SIZE;
  return {
      {"retrieve",
       [=](std::uint64_t n) {
         require(call(MDCustomTree_retrieve, {keyOf(n * 7919 % records)}, 2), 0, "MDCustomTree_retrieve");
       }},
      {"absent",
       [](std::uint64_t n) {
         require(call(MDCustomTree_retrieve, {"none." + keyOf(n)}, 2), NOT_THERE, "MDCustomTree_retrieve");
       }},
      {"insert",
       [=](std::uint64_t n) {
         require(call(MDCustomTree_insert, {keyOf(records + n), dataOf(n), "1"}, 0), 0, "MDCustomTree_insert");
       }},
      {"update",
       [=](std::uint64_t n) {
         const std::string key = keyOf(n * 7919 % records);
         require(call(MDCustomTree_update, {key, dataOf(n + 1), "2"}, 0), 0, "MDCustomTree_update");
       }},
      {"remove", [=](std::uint64_t n) { require(call(MDCustomTree_remove, {keyOf(n)}, 0), 0, "MDCustomTree_remove"); }},
      {"list", [](std::uint64_t) { require(call(MDCustomTree_retrieveAll, {}, 3), 0, "MDCustomTree_retrieveAll"); }},
      {"group",
       [=](std::uint64_t n) {
         require(call(MDJCLSkeleton_retrieveList, {groupOf(n % groups)}, 3), 0, "MDJCLSkeleton_retrieveList");
       }},
      {"parents",
       [=](std::uint64_t n) {
         const std::string member = "member." + std::to_string(n % groups);
         require(call(MDContactGroup_retrieveParentGroupList, {"0", member}, 3), 0, "retrieveParentGroupList");
       }},
  };
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t number = argc == 4 ? std::strtoull(argv[3], nullptr, 10) : 0;
  if (argc != 4) {
    std::fprintf(stderr, "usage: call_loop DIR load RECORDS | call_loop DIR CALL TIMES\n");
    return 2;
  }
  setMetadataPath(argv[1]);
  if (std::strcmp(argv[2], "load") == 0) {
    load(argv[1], number);
    return 0;
  }
  for (const Named& named : callsOn(loadedRecords(argv[1]))) {
    if (std::strcmp(argv[2], named.name) != 0) continue;
    for (std::uint64_t n = 0; n < number; ++n) named.work(n);
    return 0;
  }
  std::fprintf(stderr, "call_loop: no call is named %s\n", argv[2]);
  return 2;
}
