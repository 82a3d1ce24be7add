// What do the calls cost that walk many contacts and groups at once, and how do they grow?
//
// One line for each call: the median time at a tenth of the size and at the full size, the growth between the two (10
// is in proportion), and the syncs of one call at the full size. Excluded: making the records, which is done in memory
// (/dev/shm) and copied, also before every run of a call that removes; and releasing the results.
//
// Usage: groups_report [--directory DIR] [--scale N]     (sizes are N times those that the lines name)
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "zonmdfile/platform/admin.h"
#include "zonmdfile/platform/oss.h"
#include "zonmdfile/zonmdfile.h"

namespace {

std::uint64_t syncs = 0;

}  // namespace

// The program's own definitions stand before those of the C library for every library that it loads.
extern "C" __attribute__((visibility("default"))) int fdatasync(int descriptor) {
  ++syncs;
  return static_cast<int>(syscall(SYS_fdatasync, descriptor));
}

extern "C" __attribute__((visibility("default"))) int fsync(int descriptor) {
  ++syncs;
  return static_cast<int>(syscall(SYS_fsync, descriptor));
}

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using EntryPoint = void (*)(void*, void**, struct sqlca*);

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "groups_report: %s failed\n", what);
  std::exit(1);
}

std::string numbered(const char* prefix, std::size_t number) {
  char name[32];
  std::snprintf(name, sizeof name, "%s%06zu", prefix, number);
  return name;
}

// One call: inputs, then an rc cell, or what the caller adds by hand.
class Call {
 public:
  Call() = default;
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    for (zonOutputCell& cell : outputs_) {
      _ossMemFree(reinterpret_cast<void**>(&cell.text), 0, 0, "groups_report", __LINE__);
    }
  }

  void in(const char* text) {
    inputs_.push_back({0, text});
    slots_.push_back(&inputs_.back());
  }
  void out() {
    outputs_.push_back({0, nullptr});
    slots_.push_back(&outputs_.back());
  }
  void number(std::uint32_t value) {
    numbers_.push_back(value);
    slots_.push_back(&numbers_.back());
  }
  std::int32_t run(EntryPoint entryPoint) {
    struct sqlca sqlca;
    entryPoint(nullptr, slots_.data(), &sqlca);
    return sqlca.sqlcode;
  }
  std::uint32_t numberAt(std::size_t index) const { return numbers_[index]; }
  std::uint32_t lengthAt(std::size_t index) const { return outputs_[index].length; }

 private:
  std::deque<zonInputCell> inputs_;
  std::deque<zonOutputCell> outputs_;
  std::deque<std::uint32_t> numbers_;
  std::vector<void*> slots_;
};

std::int32_t callWithTexts(EntryPoint entryPoint, std::initializer_list<const char*> texts) {
  Call call;
  for (const char* text : texts) call.in(text);
  call.number(0);
  return call.run(entryPoint);
}

void insertContact(const std::string& name) {
  const std::string data = name + "@mail.example\0172\017notified of everything\01760";
  require(callWithTexts(MDContact_insert, {name.c_str(), data.c_str(), "1"}) == 0, "inserting a contact");
}

void insertMember(const std::string& group, const char* kind, const std::string& member) {
  const int sqlcode =
      callWithTexts(MDContactGroup_insert, {group.c_str(), kind, member.c_str(), "those who are on duty tonight", "1"});
  require(sqlcode == 0, "inserting a member");
}

struct Measured {
  double microseconds;
  std::uint64_t syncs;
};

// One question: how records of a size are made, and the call that is timed. The call gets the number of its run.
struct Question {
  const char* what;
  const char* size;
  std::size_t fullSize;
  bool removes;  // needs its records anew before every run
  std::function<void(std::size_t)> load;
  std::function<std::function<void()>(std::size_t, int)> prepare;
};

void copyAll(const fs::path& from, const fs::path& to) {
  fs::remove_all(to);
  fs::create_directories(to);
  for (const auto& entry : fs::directory_iterator(from)) fs::copy_file(entry.path(), to / entry.path().filename());
}

Measured measure(const Question& question, std::size_t size, const fs::path& directory) {
  constexpr int RUNS = 7;
  const fs::path memory = fs::path("/dev/shm") / ("groups_report.load." + std::to_string(getpid()));
  fs::create_directories(memory);
  setMetadataPath(memory.c_str());
  question.load(size);
  setMetadataPath(directory.c_str());

  std::vector<double> times;
  std::uint64_t syncsOfOne = 0;
  for (int run = 0; run < RUNS; ++run) {
    if (run == 0 || question.removes) {
      copyAll(memory, directory);
      sync();
    }
    const std::function<void()> call = question.prepare(size, run);
    const std::uint64_t before = syncs;
    const auto start = Clock::now();
    call();
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    syncsOfOne = syncs - before;
  }
  fs::remove_all(memory);
  fs::remove_all(directory);
  std::nth_element(times.begin(), times.begin() + RUNS / 2, times.end());
  return {times[RUNS / 2], syncsOfOne};
}

// --- The questions.

void loadContacts(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) insertContact(numbered("contact", i));
}

std::function<void()> listAllContacts(std::size_t count, int) {
  auto call = std::make_shared<Call>();
  call->number(1);
  call->number(0);
  for (std::size_t i = 0; i < count; ++i) {
    call->out();
    call->number(0);
    call->out();
    call->number(0);
    call->out();
  }
  return [call, count] {
    require(call->run(ContactAPI_retrieveAll) == 0 && call->numberAt(1) == count, "ContactAPI_retrieveAll");
  };
}

// Contacts in nested groups of a hundred, all of these in the group "everyone".
void loadNestedGroups(std::size_t count) {
  constexpr std::size_t CONTACTS_PER_GROUP = 100;
  for (std::size_t i = 0; i < count; ++i) {
    const std::string group = numbered("group", i / CONTACTS_PER_GROUP);
    if (i % CONTACTS_PER_GROUP == 0) insertMember("everyone", "1", group);
    insertMember(group, "0", numbered("contact", i));
  }
}

std::function<void()> expandEveryone(std::size_t count, int) {
  auto call = std::make_shared<Call>();
  call->in("everyone");
  call->number(0);
  call->out();
  return [call, count] {
    require(call->run(MDContactGroup_retrieveAllContactNames) == 0 &&
                call->lengthAt(0) == count * (numbered("contact", 0).size() + 1) + 1,
            "MDContactGroup_retrieveAllContactNames");
  };
}

void loadGroups(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    insertMember(numbered("group", i), "0", "duty");
    insertMember(numbered("group", i), "0", numbered("contact", i));
  }
}

std::function<void()> listAllGroups(std::size_t count, int) {
  auto call = std::make_shared<Call>();
  call->number(1);
  call->number(0);
  for (std::size_t i = 0; i < 2 * count; ++i) call->out();
  return [call, count] {
    require(call->run(ContactGroupAPI_retrieveAll) == 0 && call->numberAt(1) == count, "ContactGroupAPI_retrieveAll");
  };
}

void loadGroupsOfOneContact(std::size_t count) {
  insertContact("duty");
  loadGroups(count);
}

// The contact is all that these groups hold, and "everyone" holds them.
void loadGroupsToBeEmptied(std::size_t count) {
  insertContact("duty");
  for (std::size_t i = 0; i < count; ++i) {
    insertMember(numbered("group", i), "0", "duty");
    insertMember("everyone", "1", numbered("group", i));
  }
}

std::function<void()> removeContact(std::size_t, int) {
  return [] { require(callWithTexts(MDContact_remove, {"duty"}) == 0, "MDContact_remove"); };
}

void loadOneGroup(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) insertMember("everyone", "0", numbered("contact", i));
}

std::function<void()> updateGroup(std::size_t, int run) {
  return [run] {
    const char* description = run % 2 == 0 ? "those who sleep tonight" : "those who are on duty again";
    require(callWithTexts(MDContactGroup_updateDescription, {"everyone", description, "2"}) == 0,
            "MDContactGroup_updateDescription");
  };
}

void report(const Question& question, std::size_t scale, const fs::path& directory) {
  const std::size_t full = question.fullSize * scale;
  const Measured tenth = measure(question, full / 10, directory);
  const Measured whole = measure(question, full, directory);
  std::printf("%-42s %7zu %-26s %12.0f %12.0f %7.1f %6llu\n", question.what, full, question.size, tenth.microseconds,
              whole.microseconds, whole.microseconds / tenth.microseconds,
              static_cast<unsigned long long>(whole.syncs));
  std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
  fs::path base = ".";
  std::size_t scale = 1;
  for (int at = 1; at < argc; ++at) {
    if (std::strcmp(argv[at], "--directory") == 0 && at + 1 < argc) {
      base = argv[++at];
    } else if (std::strcmp(argv[at], "--scale") == 0 && at + 1 < argc && std::atoi(argv[at + 1]) > 0) {
      scale = static_cast<std::size_t>(std::atoi(argv[++at]));
    } else {
      std::fprintf(stderr, "usage: groups_report [--directory DIR] [--scale N]\n");
      return 2;
    }
  }
  const std::vector<Question> questions = {
      {"ContactAPI_retrieveAll", "contacts", 100000, false, loadContacts, listAllContacts},
      {"MDContactGroup_retrieveAllContactNames", "contacts in nested groups", 100000, false, loadNestedGroups,
       expandEveryone},
      {"ContactGroupAPI_retrieveAll", "groups of two", 10000, false, loadGroups, listAllGroups},
      {"MDContact_remove", "groups hold it", 1000, true, loadGroupsOfOneContact, removeContact},
      {"MDContact_remove", "groups hold only it", 1000, true, loadGroupsToBeEmptied, removeContact},
      {"MDContactGroup_updateDescription", "members", 1000, false, loadOneGroup, updateGroup},
  };
  const fs::path directory = fs::absolute(base / ("groups_report." + std::to_string(getpid())));
  std::printf("%-42s %34s %12s %12s %7s %6s\n", "", "size", "us, a tenth", "us", "growth", "syncs");
  for (const Question& question : questions) report(question, scale, directory);
  return 0;
}
