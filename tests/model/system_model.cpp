// The model's stores, entry points, expansion and cascade.
//
// The rule: return codes and SQLCODEs stand here as numbers of their own where callers know them as numbers.
#include "model/system_model.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include "zonmdfile/platform/return_codes.h"

namespace zonmodel {

namespace {

using Texts = std::vector<std::string>;

constexpr char LIST = 0x0E;
constexpr char FIELD = 0x0F;
constexpr std::size_t MAX_KEY_BYTES = 128;
constexpr std::size_t MAX_DATA_BYTES = 1024000;
constexpr std::size_t MAX_MESSAGE_BYTES = 70;

std::size_t maxVersionBytes(std::size_t keyCount) { return 11 - keyCount; }

// --- Tokenized strings, split from the start for each field.

std::uint32_t parse(const std::string& source, char token, std::size_t index, std::string& field) {
  std::string_view work = source;
  std::string_view head;
  std::uint32_t rc = 0;
  for (std::size_t pass = 0; pass < index; ++pass) {
    if (work.empty()) {
      rc = MD_RC_TOKEN_MISSING;
      continue;
    }
    rc = 0;
    const std::size_t at = work.find(token);
    head = work.substr(0, at);
    if (at != std::string_view::npos) work = work.substr(at + 1);
  }
  field = head;
  return rc;
}

std::size_t countOf(const std::string& list) {
  return static_cast<std::size_t>(std::count(list.begin(), list.end(), LIST));
}

std::string entryOf(const std::string& list, std::size_t index) {
  std::string entry;
  parse(list, LIST, index, entry);
  return entry;
}

Texts entriesOf(const std::string& list) {
  Texts entries;
  for (std::size_t i = 1; i <= countOf(list); ++i) entries.push_back(entryOf(list, i));
  return entries;
}

std::string joinNames(const Texts& names) {
  std::string list;
  for (const std::string& name : names) list += name + LIST;
  return list;
}

bool contains(const Texts& texts, const std::string& text) {
  return std::find(texts.begin(), texts.end(), text) != texts.end();
}

// --- Checks.

std::uint32_t checkKey(const std::string& key) {
  if (key.empty()) return MD_RC_KEY_EMPTY;
  return key.size() > MAX_KEY_BYTES ? MD_RC_KEY_TOO_LONG : 0;
}

std::uint32_t checkKeys(const Texts& keys) {
  for (const std::string& key : keys) {
    if (const std::uint32_t rc = checkKey(key)) return rc;
  }
  return 0;
}

std::uint32_t checkContent(const std::string& data, const std::string& version, std::size_t keyCount) {
  if (data.empty()) return MD_RC_DATA_EMPTY;
  if (data.size() > MAX_DATA_BYTES) return MD_RC_DATA_TOO_LONG;
  return version.size() > maxVersionBytes(keyCount) ? MD_RC_DATA_TOO_LONG : 0;
}

// --- Listings: a column is a key by its number, the data or the version.

constexpr std::size_t DATA = 100;
constexpr std::size_t VERSION = 101;

using Record = SystemModel::Record;
using Records = SystemModel::Records;

const std::string& columnOf(const Record& record, std::size_t column) {
  if (column == DATA) return record.data;
  return column == VERSION ? record.version : record.keys[column];
}

template <class IsWanted>
std::uint32_t list(const Records& records, const std::vector<std::size_t>& columns, Texts& lists, IsWanted isWanted) {
  lists.assign(columns.size(), "");
  bool foundAny = false;
  for (const Record& record : records) {
    if (!isWanted(record)) continue;
    foundAny = true;
    for (std::size_t i = 0; i < columns.size(); ++i) lists[i] += columnOf(record, columns[i]) + LIST;
  }
  return foundAny ? 0 : GENREG_RC_NOT_FOUND;
}

std::uint32_t listAll(const Records& records, const std::vector<std::size_t>& columns, Texts& lists) {
  return list(records, columns, lists, [](const Record&) { return true; });
}

std::uint32_t listGroup(const Records& records, const std::string& group, const std::vector<std::size_t>& columns,
                        Texts& lists) {
  if (const std::uint32_t rc = checkKey(group)) return rc;
  return list(records, columns, lists, [&](const Record& record) { return record.keys[0] == group; });
}

std::uint32_t listKind(const Records& records, const std::string& group, const std::string& kind,
                       const std::vector<std::size_t>& columns, Texts& lists) {
  if (const std::uint32_t rc = checkKeys({group, kind})) return rc;
  return list(records, columns, lists,
              [&](const Record& record) { return record.keys[0] == group && record.keys[1] == kind; });
}

std::uint32_t listParents(const Records& records, const std::string& kind, const std::string& member, Texts& lists) {
  if (const std::uint32_t rc = checkKeys({member, kind})) return rc;
  return list(records, {0, DATA, VERSION}, lists,
              [&](const Record& record) { return record.keys[1] == kind && record.keys[2] == member; });
}

Records::iterator find(Records& records, const Texts& keys) {
  return std::find_if(records.begin(), records.end(), [&](const Record& record) { return record.keys == keys; });
}

std::uint32_t removeGroup(Records& records, const std::string& group) {
  if (const std::uint32_t rc = checkKey(group)) return rc;
  return std::erase_if(records, [&](const Record& record) { return record.keys[0] == group; }) != 0
             ? 0
             : GENREG_RC_NOT_FOUND;
}

// --- Reports.

std::int32_t sqlcodeOf(std::uint32_t rc, bool isContact) {
  switch (rc) {
    case 0:
      return 0;
    case 0x900001F1:
      return isContact ? -22270 : -22272;
    case 0x900001F6:
      return isContact ? -22271 : -22273;
    default:
      // The library's own codes, 31001 and on, have SQLCODEs in a row.
      return -22300 - static_cast<std::int32_t>(rc - 31000);
  }
}

// The SQLCODE and, for a record that is missing or there already, the tokens with blanks between them.
std::int32_t report(Outcome& outcome, std::uint32_t rc, bool isContact, const std::vector<Text>& tokens) {
  const std::int32_t sqlcode = sqlcodeOf(rc, isContact);
  outcome.sqlcode = sqlcode;
  if (sqlcode > -22270 || sqlcode < -22273) return sqlcode;
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    outcome.message += (i > 0 ? " " : "") + tokens[i].value_or("").substr(0, MAX_KEY_BYTES);
  }
  outcome.message.resize(std::min(outcome.message.size(), MAX_MESSAGE_BYTES));
  return sqlcode;
}

std::size_t slotsBefore(const Step& step) { return step.function->slots.size(); }

}  // namespace

bool SystemModel::hasPlainNames() const {
  const auto found = stores_.find("MDContactGroup");
  if (found == stores_.end()) return true;
  return std::all_of(found->second.begin(), found->second.end(), [](const Record& record) {
    return std::all_of(record.keys.begin(), record.keys.end(),
                       [](const std::string& key) { return key.find(LIST) == std::string::npos; });
  });
}

Outcome SystemModel::apply(const Step& step) {
  Outcome outcome;
  Texts in;
  for (const Text& text : step.texts) in.push_back(text.value_or(""));
  const std::string name(step.function->name);

  if (name == "removeMemberFromGroups") {
    outcome.returned = withdraw(in[0], in[1], Reentry::REFUSED);
    return outcome;
  }
  if (name.starts_with("MDContactGroup.")) {
    applyExpansion(in, outcome);
    return outcome;
  }
  if (name == "mapMDFileRcToSqlca") {
    const std::vector<Text> tokens(step.texts.begin(), step.texts.begin() + step.numbers[2]);
    outcome.returned = static_cast<std::uint32_t>(report(outcome, step.numbers[0], step.numbers[1] == 1, tokens));
    return outcome;
  }
  if (name.starts_with("ContactAPI_")) {
    applyContactApi(name.substr(11), step, outcome);
    return outcome;
  }
  if (name.starts_with("ContactGroupAPI_")) {
    applyGroupApi(name.substr(16), step, outcome);
    return outcome;
  }

  const std::size_t mark = name.find_first_of("_.");
  const std::string store = name.substr(0, mark);
  const std::string operation = name.substr(mark + 1);
  Answer answer = store == "MDContactGroup" ? callGroups(operation, in) : callStore(store, operation, in);

  if (name[mark] == '.') {
    // The class itself: codes as they are, outputs emptied by what is not found and left alone by failed checks.
    const bool hasAnswered = answer.rc == 0 || answer.rc == GENREG_RC_NOT_FOUND;
    for (std::size_t slot = 0, next = 0; slot < step.function->slots.size(); ++slot) {
      if (step.function->slots[slot] != 'o' || !hasAnswered) continue;
      outcome.texts[slot] = next < answer.results.size() ? answer.results[next] : "";
      ++next;
    }
    outcome.returned = answer.rc;
    return outcome;
  }

  if (answer.rc == 0 && contains(answer.results, "")) answer.rc = MD_RC_NO_DATA;
  std::vector<Text> tokens;
  for (const char digit : step.function->tokens) tokens.push_back(step.texts[static_cast<std::size_t>(digit - '0')]);
  const std::int32_t sqlcode = report(outcome, answer.rc, store.starts_with("MDContact"), tokens);
  for (std::size_t slot = 0, next = 0; slot < step.function->slots.size(); ++slot) {
    if (step.function->slots[slot] == 'r') outcome.numbers[slot] = sqlcode;
    if (step.function->slots[slot] == 'o' && answer.rc == 0) outcome.texts[slot] = answer.results[next++];
  }
  return outcome;
}

// The one-key, two-key and three-key stores: the number of names before data and version is the number of keys.
SystemModel::Answer SystemModel::callStore(const std::string& store, std::string_view operation, const Texts& in) {
  static const std::map<std::string, std::size_t> KEY_COUNTS = {
      {"MDJCLSkeleton", 2}, {"MDCloningHistory", 2}, {"MDUtilityHistory", 2}, {"MDCloningMapping", 3}};
  const auto known = KEY_COUNTS.find(store);
  const std::size_t keyCount = known != KEY_COUNTS.end() ? known->second : 1;
  Records& records = stores_[store];
  Answer answer;

  std::vector<std::size_t> columns;
  for (std::size_t i = 0; i < keyCount; ++i) columns.push_back(i);
  if (operation == "retrieveKeys") {
    answer.rc = listAll(records, columns, answer.results);
    return answer;
  }
  if (operation == "retrieveAll") {
    columns.insert(columns.end(), {DATA, VERSION});
    answer.rc = listAll(records, columns, answer.results);
    return answer;
  }
  if (operation == "removeList") {
    answer.rc = removeGroup(records, in[0]);
    return answer;
  }
  if (operation == "retrieveList") {
    answer.rc = listGroup(records, in[0], {1, DATA, VERSION}, answer.results);
    return answer;
  }

  const Texts keys(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(keyCount));
  const bool isWrite = operation == "insert" || operation == "update";
  answer.rc = checkKeys(keys);
  if (answer.rc == 0 && isWrite) answer.rc = checkContent(in[keyCount], in[keyCount + 1], keyCount);
  if (answer.rc != 0) return answer;

  const auto record = find(records, keys);
  const bool exists = record != records.end();
  if (operation == "insert") {
    if (!exists) records.push_back({keys, in[keyCount], in[keyCount + 1]});
    answer.rc = exists ? GENREG_RC_DUPLICATE_KEY : 0;
    return answer;
  }
  if (!exists) {
    answer.rc = GENREG_RC_NOT_FOUND;
    return answer;
  }
  if (operation == "update") {
    record->data = in[keyCount];
    record->version = in[keyCount + 1];
  } else if (operation == "retrieve") {
    answer.results = {record->data, record->version};
  } else {
    records.erase(record);
    if (store == "MDContact") answer.rc = withdraw(in[0], "0", Reentry::REFUSED);
  }
  return answer;
}

SystemModel::Answer SystemModel::callGroups(std::string_view operation, const Texts& in) {
  Records& records = groups();
  Answer answer;
  if (operation == "retrieveAllContactNames") return expandToList(in[0]);
  if (operation == "updateDescription") return updateGroup(in[0], in[1], in[2]);
  if (operation == "retrieveKeys") {
    answer.rc = listAll(records, {0, 1, 2}, answer.results);
  } else if (operation == "retrieveAll") {
    answer.rc = listAll(records, {0, 1, 2, DATA, VERSION}, answer.results);
  } else if (operation == "retrieveParentGroupList") {
    answer.rc = listParents(records, in[0], in[1], answer.results);
  } else if (operation == "retrieveContactOrGroupList") {
    answer.rc = listKind(records, in[0], in[1], {2, DATA, VERSION}, answer.results);
  } else if (operation == "retrieveList") {
    answer.rc = listGroup(records, in[0], {1, 2, DATA, VERSION}, answer.results);
  } else if (operation == "insert") {
    const Texts keys(in.begin(), in.begin() + 3);
    answer.rc = checkKeys(keys);
    if (answer.rc == 0) answer.rc = checkContent(in[3], in[4], 3);
    if (answer.rc == 0 && find(records, keys) != records.end()) answer.rc = GENREG_RC_DUPLICATE_KEY;
    if (answer.rc == 0) records.push_back({keys, in[3], in[4]});
  } else if (operation == "removeList") {
    answer.rc = checkKeys({in[0], in[1]});
    if (answer.rc != 0) return answer;
    const auto removed = std::erase_if(
        records, [&](const Record& record) { return record.keys[0] == in[0] && record.keys[1] == in[1]; });
    answer.rc = removed != 0 ? withdraw(in[0], "1", Reentry::REFUSED) : GENREG_RC_NOT_FOUND;
    if (answer.rc == GENREG_RC_MEMBER_ABSENT) answer.rc = 0;
  } else if (operation == "removeAll") {
    answer.rc = removeGroup(records, in[0]);
    if (answer.rc == 0) answer.rc = withdraw(in[0], "1", Reentry::REFUSED);
    if (answer.rc == GENREG_RC_MEMBER_ABSENT) answer.rc = 0;
  } else {  // remove: whatever the kind of the record, the cascade is that of a nested group
    answer.rc = removeMembership(in[0], in[1], in[2]);
    if (answer.rc == 0) answer.rc = withdraw(in[2], "1", Reentry::REFUSED);
  }
  return answer;
}

// Every record by the keys that the lists read back as; the first failure ends it and undoes nothing.
SystemModel::Answer SystemModel::updateGroup(const std::string& group, const std::string& description,
                                             const std::string& version) {
  Answer answer;
  answer.rc = checkKey(group);
  if (answer.rc == 0) answer.rc = checkContent(description, version, 3);
  if (answer.rc != 0) return answer;
  Texts lists;
  answer.rc = listGroup(groups(), group, {1, 2}, lists);
  if (answer.rc != 0) return answer;
  for (std::size_t i = 1; i <= countOf(lists[0]); ++i) {
    std::string kind;
    std::string member;
    answer.rc = parse(lists[0], LIST, i, kind);
    if (answer.rc == 0) answer.rc = parse(lists[1], LIST, i, member);
    if (answer.rc != 0) return answer;
    const auto record = find(groups(), {group, kind, member});
    if (record == groups().end()) {
      answer.rc = GENREG_RC_NOT_FOUND;
      return answer;
    }
    record->data = description;
    record->version = version;
  }
  return answer;
}

std::uint32_t SystemModel::removeMembership(const std::string& group, const std::string& kind,
                                            const std::string& member) {
  if (const std::uint32_t rc = checkKeys({group, kind, member})) return rc;
  const auto record = find(groups(), {group, kind, member});
  if (record == groups().end()) return GENREG_RC_NOT_FOUND;
  groups().erase(record);
  return 0;
}

std::uint32_t SystemModel::expand(const std::string& group, Texts& contacts, Texts& visited) {
  const auto isFailure = [](std::uint32_t rc) { return rc != 0 && rc != GENREG_RC_NOT_FOUND; };
  std::size_t found = 0;
  std::uint32_t nestedFailure = 0;

  Texts lists;
  const std::uint32_t contactsRc = listKind(groups(), group, "0", {2}, lists);
  if (contactsRc == 0) {
    for (const std::string& contact : entriesOf(lists[0])) {
      if (!contains(contacts, contact)) contacts.push_back(contact);
      ++found;
    }
  }
  const std::uint32_t groupsRc = listKind(groups(), group, "1", {2}, lists);
  if (groupsRc == 0) {
    for (const std::string& nested : entriesOf(lists[0])) {
      if (contains(visited, nested)) continue;
      visited.push_back(nested);
      const std::uint32_t rc = expand(nested, contacts, visited);
      if (rc == 0) ++found;
      if (isFailure(rc)) nestedFailure = rc;
    }
  }

  if (isFailure(groupsRc)) return groupsRc;
  if (nestedFailure != 0) return nestedFailure;
  if (isFailure(contactsRc)) return contactsRc;
  return found > 0 ? 0 : GENREG_RC_NOT_FOUND;
}

// The expansion into sets: as the class gives it, with one name from a group on, with two from a step on.
void SystemModel::applyExpansion(const Texts& in, Outcome& outcome) {
  const bool isStep = in.size() == 2;
  Texts contacts;
  Texts visited = {in.back()};
  outcome.returned = expand(in[0], contacts, visited);
  outcome.texts[in.size()] = joinNames(contacts);
  if (isStep) outcome.texts[in.size() + 1] = joinNames(visited);
}

SystemModel::Answer SystemModel::expandToList(const std::string& group) {
  Answer answer;
  Texts contacts;
  Texts visited = {group};
  answer.rc = expand(group, contacts, visited);
  if (answer.rc == 0 && contacts.empty()) answer.rc = GENREG_RC_NOT_FOUND;
  if (answer.rc != 0) return answer;
  answer.results = {joinNames(contacts)};
  return answer;
}

std::uint32_t SystemModel::withdraw(const std::string& member, const std::string& kind, Reentry reentry) {
  Texts underWay;
  return withdraw(member, kind, reentry, underWay);
}

// `underWay` are the groups that this call is nested in.
std::uint32_t SystemModel::withdraw(const std::string& member, const std::string& kind, Reentry reentry,
                                    Texts& underWay) {
  constexpr std::size_t DEEPEST = 1000;
  if (underWay.size() > DEEPEST) throw EndlessWithdrawal();
  Texts lists;
  std::uint32_t rc = listParents(groups(), kind, member, lists);
  if (rc == 0) {
    underWay.push_back(kind == "1" ? member : "");
    for (const std::string& parent : entriesOf(lists[0])) {
      rc = removeMembership(parent, kind, member);
      Texts rest;
      const bool isEmptied = listGroup(groups(), parent, {2}, rest) != 0;
      const bool isUnderWay = reentry == Reentry::REFUSED && contains(underWay, parent);
      if (isEmptied && !isUnderWay) withdraw(parent, "1", reentry, underWay);
    }
    underWay.pop_back();
  }
  return rc == GENREG_RC_NOT_FOUND ? 0 : rc;
}

void SystemModel::applyContactApi(std::string_view operation, const Step& step, Outcome& outcome) {
  if (operation == "retrieveAll") {
    Answer answer = callStore("MDContact", "retrieveAll", {});
    if (answer.rc == 0) {
      const std::size_t count = countOf(answer.results[0]);
      outcome.numbers[1] = static_cast<std::int32_t>(count);
      for (std::size_t k = 1; step.numbers[0] != 0 && k <= count; ++k) {
        const std::size_t first = 2 + 5 * (k - 1);
        const std::string data = entryOf(answer.results[1], k);
        std::array<std::string, 5> field;
        for (std::size_t i = 1; i <= 4; ++i) parse(data, FIELD, i, field[i]);
        outcome.texts[first] = entryOf(answer.results[0], k);
        outcome.numbers[first + 1] = std::atoi(field[2].c_str());
        outcome.texts[first + 2] = field[1];
        outcome.numbers[first + 3] = std::atoi(field[4].c_str());
        outcome.texts[first + 4] = field[3];
      }
    } else {
      answer.rc = 0;  // no contact at all
      outcome.numbers[1] = 0;
    }
    report(outcome, answer.rc, true, {});
    return;
  }

  const std::string name = step.texts[0].value_or("");
  if (operation == "retrieve") {
    Answer answer = callStore("MDContact", "retrieve", {name});
    if (answer.rc == 0 && contains(answer.results, "")) {
      answer.rc = MD_RC_NO_DATA;
    } else if (answer.rc == 0) {
      std::array<std::string, 5> field;
      for (std::size_t i = 1; i <= 4; ++i) {
        if (const std::uint32_t rc = parse(answer.results[0], FIELD, i, field[i])) answer.rc = rc;
      }
      outcome.texts[2] = field[1];
      outcome.texts[4] = field[3];
      outcome.numbers[1] = std::atoi(field[2].c_str());
      outcome.numbers[3] = std::atoi(field[4].c_str());
    }
    report(outcome, answer.rc, true, {step.texts[0]});
    return;
  }

  const std::string data = step.texts[1].value_or("") + FIELD + std::to_string(step.numbers[0]) + FIELD +
                           step.texts[2].value_or("") + FIELD + std::to_string(step.numbers[1]);
  const Answer answer = callStore("MDContact", operation, {name, data, std::to_string(step.numbers[2])});
  report(outcome, answer.rc, true, {step.texts[0]});
}

void SystemModel::applyGroupApi(std::string_view operation, const Step& step, Outcome& outcome) {
  const bool wantsDetail = step.numbers[0] != 0;
  const std::size_t firstRow = slotsBefore(step);
  if (operation == "retrieveAllContactNames") {
    Answer answer = expandToList(step.texts[0].value_or(""));
    if (answer.rc != 0) {
      answer.rc = MD_RC_NO_DATA;
    } else {
      const Texts names = entriesOf(answer.results[0]);
      outcome.numbers[2] = static_cast<std::int32_t>(names.size());
      for (std::size_t k = 0; wantsDetail && k < names.size(); ++k) outcome.texts[firstRow + k] = names[k];
    }
    report(outcome, answer.rc, true, {step.texts[0]});
    return;
  }

  if (operation == "retrieveList") {
    const Answer answer = callGroups("retrieveList", {step.texts[0].value_or("")});
    if (answer.rc == 0) {
      const std::string& kinds = answer.results[0];
      const std::string& members = answer.results[1];
      outcome.texts[3] = entryOf(answer.results[2], 1);
      outcome.numbers[2] = static_cast<std::int32_t>(countOf(members));
      for (std::size_t k = 1; wantsDetail && k <= countOf(members); ++k) {
        outcome.texts[2 + 2 * k] = entryOf(kinds, k);
        outcome.texts[3 + 2 * k] = entryOf(members, k);
      }
    }
    report(outcome, answer.rc, true, {step.texts[0]});
    return;
  }

  Answer answer = callGroups("retrieveAll", {});
  if (answer.rc != 0) {
    answer.rc = 0;  // no group at all
    outcome.numbers[1] = 0;
  } else {
    Texts names;
    for (const std::string& group : entriesOf(answer.results[0])) {
      if (!contains(names, group)) names.push_back(group);
    }
    // A set that starts with room for one and grows one by one has room for its members.
    outcome.numbers[1] = static_cast<std::int32_t>(std::max<std::size_t>(names.size(), 1));
    for (std::size_t k = 1; wantsDetail && k <= names.size(); ++k) {
      const Answer members = callGroups("retrieveList", {names[k - 1]});
      answer.rc = members.rc;  // that of the last group stands
      outcome.texts[2 * k] = names[k - 1];
      outcome.texts[2 * k + 1] = members.rc == 0 ? entryOf(members.results[2], 1) : "";
    }
  }
  report(outcome, answer.rc, true, {});
}

}  // namespace zonmodel
