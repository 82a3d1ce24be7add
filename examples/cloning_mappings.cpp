// Cloning mappings have no plain entry points: a C++ program uses their class. Usage:
//
//   cloning_mappings load METADATA-DIRECTORY DATA-FOLDER     inserts the sample mappings and changes some
//   cloning_mappings check METADATA-DIRECTORY DATA-FOLDER    compares what is there with the data files
//
// The rule: a store object serves one operation; a return code is turned into words with the platform's functions.
#include <cstdint>
#include <cstdio>
#include <string_view>

#include "zonmdfile/MDCloningMapping.h"
#include "zonmdfile/platform/DString.h"
#include "zonmdfile/platform/admin.h"
#include "zonmdfile/platform/oss.h"

extern "C" {
#include "site_data.h"
}

namespace {

constexpr int KEYS = 3;
constexpr char LIST_END = '\x0E';
int failures = 0;

void printHead(const char* sentence) {
  std::printf("\ncloning mappings (cloning_mappings.tsv), through the class MDCloningMapping\n%s\n", sentence);
  std::printf("  %-41s %-52s %s\n", "operation", "what it did", "return code");
}

void report(const char* operation, std::uint32_t rc, std::uint32_t expected, const DString& what) {
  std::printf("  MDCloningMapping::%-23s %-52s %s\n", operation, what.c_str(), ecfErrorGetName(rc));
  if (rc == expected) return;
  std::printf("      DIFFERENT: %s expected\n", ecfErrorGetName(expected));
  ++failures;
}

void expect(bool holds, const char* what) {
  if (holds) return;
  std::printf("      DIFFERENT: %s\n", what);
  ++failures;
}

DString number(std::size_t value) {
  char text[32];
  std::snprintf(text, sizeof text, "%zu", value);
  return DString(text);
}

// The three keys of a mapping, as the operations want them.
struct Keys {
  explicit Keys(const SiteRecord& record) : group(record.keys[0]), subGroup(record.keys[1]), key(record.keys[2]) {}
  DString joined() const { return group + " / " + subGroup + " / " + key; }

  DString group, subGroup, key;
};

std::uint32_t insert(const SiteRecord& record) {
  Keys keys(record);
  DString data(record.data);
  return MDCloningMapping().insert(keys.group, keys.subGroup, keys.key, data, record.version);
}

std::uint32_t retrieve(const SiteRecord& record, DString& data, DString& version) {
  Keys keys(record);
  return MDCloningMapping().retrieve(keys.group, keys.subGroup, keys.key, data, version);
}

void insertAll(const SiteRecords& mappings) {
  std::uint32_t rc = MD_RC_OK;
  std::size_t done = 0;
  while (done < mappings.count && rc == MD_RC_OK) rc = insert(mappings.records[done++]);
  report("insert", rc, MD_RC_OK, number(done) + " mappings");
}

void showRefusals(const SiteRecord& present) {
  report("insert", insert(present), GENREG_RC_DUPLICATE_KEY, "on purpose: this mapping exists");
  DString group("no.such.group"), subGroup("volume"), key("V1"), data, version;
  report("retrieve", MDCloningMapping().retrieve(group, subGroup, key, data, version), GENREG_RC_NOT_FOUND,
         "on purpose: there is no such mapping");
}

void update(const SiteRecord& record) {
  Keys keys(record);
  DString before, version, data(record.data);
  const std::uint32_t found = retrieve(record, before, version);
  expect(found == MD_RC_OK, "the mapping to change is not there");
  const std::uint32_t rc = MDCloningMapping().update(keys.group, keys.subGroup, keys.key, data, record.version);
  report("update", rc, MD_RC_OK, keys.joined());
  std::printf("      version %s -> %s\n", version.c_str(), record.version);
}

void remove(const SiteRecord& record) {
  Keys keys(record);
  DString data, version;
  report("remove", MDCloningMapping().remove(keys.group, keys.subGroup, keys.key), MD_RC_OK, keys.joined());
  report("retrieve", retrieve(record, data, version), GENREG_RC_NOT_FOUND, "the same: it is gone");
}

void applyChanges(const SiteChanges& changes) {
  for (std::size_t i = 0; i < changes.count; ++i) {
    const SiteChange& change = changes.changes[i];
    if (std::string_view(change.store) != "cloning_mappings") continue;
    if (std::string_view(change.action) == "update") update(change.record);
    if (std::string_view(change.action) == "remove") remove(change.record);
  }
}

void listKeys(std::size_t expected) {
  DString groups, subGroups, keys;
  const std::uint32_t rc = MDCloningMapping().retrieveKeys(groups, subGroups, keys);
  const std::size_t count = keys.occurrencesOf(LIST_END);
  report("retrieveKeys", rc, MD_RC_OK, number(count) + " mappings");
  expect(count == expected, "another number of mappings was expected");
}

void load(const char* folder) {
  printHead("A mapping has three keys: the pair of subsystems, what is mapped, and the name to be mapped.");
  SiteRecords mappings = siteRead(folder, "cloning_mappings", KEYS);
  SiteChanges changes = siteReadChanges(folder);
  insertAll(mappings);
  listKeys(mappings.count);
  showRefusals(mappings.records[0]);
  applyChanges(changes);
  siteFreeChanges(&changes);
  siteFree(&mappings);
}

void check(const char* folder) {
  printHead("Another process reads them back.");
  SiteRecords mappings = siteRead(folder, "cloning_mappings", KEYS);
  SiteChanges changes = siteReadChanges(folder);
  siteApplyChanges(&mappings, &changes, "cloning_mappings");
  listKeys(mappings.count);
  std::size_t same = 0;
  for (std::size_t i = 0; i < mappings.count; ++i) {
    const SiteRecord& expected = mappings.records[i];
    DString data, version;
    const std::uint32_t rc = retrieve(expected, data, version);
    if (rc == MD_RC_OK && data == expected.data && version == expected.version) ++same;
  }
  report("retrieve", same == mappings.count ? MD_RC_OK : GENREG_RC_NOT_FOUND, MD_RC_OK,
         number(same) + " of " + number(mappings.count) + " are the same");
  siteFreeChanges(&changes);
  siteFree(&mappings);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view command = argc == 4 ? argv[1] : "";
  if (command != "load" && command != "check") {
    std::fprintf(stderr, "usage: %s load|check METADATA-DIRECTORY DATA-FOLDER\n", argv[0]);
    return 2;
  }
  if (setMetadataPath(argv[2]) != 0) {
    std::fprintf(stderr, "%s: the path is too long\n", argv[2]);
    return 1;
  }
  if (command == "load") {
    load(argv[3]);
  } else {
    check(argv[3]);
  }
  expect(ossMemOutstanding("MDCloningMapping") == 0, "record buffers were not given back");
  return failures == 0 ? 0 : 1;
}
