// A state is never changed once others can see it: a writer makes a copy of the list, changes that, and puts it in
// place of the old one. Scans keep the state that they began with.
#include "platform/registry/harness/memory_engine.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/registry/engine_choice.h"
#include "platform/registry/harness/stub_file.h"

namespace zon::test {
namespace {

constexpr const char* ENGINE_NAME = "memory";
constexpr std::uint64_t SEED = 0x5EED;

struct Record {
  std::shared_ptr<const std::vector<std::byte>> bytes;
  std::array<std::uint64_t, GenRegBase::MAX_INDEXES> digests{};
};

struct State {
  std::vector<Record> records;
  std::uint64_t position = 0;
};

Record makeRecord(const RecordType& type, const void* bytes, std::size_t size) {
  const auto* first = static_cast<const std::byte*>(bytes);
  Record record{.bytes = std::make_shared<const std::vector<std::byte>>(first, first + size)};
  for (std::size_t index = 0; index < type.indexCount; ++index)
    record.digests[index] = type.digestFor(index, bytes, SEED);
  return record;
}

void copyOut(const RecordType& type, const Record& record, std::byte* out) {
  std::memcpy(out, record.bytes->data(), std::min(record.bytes->size(), type.maxSize));
}

// What is asked for: the match callback decides, after the digest of the best index has said that it may match.
class Question {
 public:
  Question(const RecordType& type, unsigned long flags, const void* key)
      : type_(type), flags_(flags), key_(key), index_(type.bestIndex(flags)) {
    if (index_ < type.indexCount) digest_ = type.digestFor(index_, key, SEED);
  }
  bool isAnsweredBy(const Record& record) const {
    if (index_ < type_.indexCount && record.digests[index_] != digest_) return false;
    return type_.matches(flags_, key_, record.bytes->data());
  }
  std::size_t findFrom(const std::vector<Record>& records, std::size_t from) const {
    while (from < records.size() && !isAnsweredBy(records[from])) ++from;
    return from;
  }

 private:
  const RecordType& type_;
  unsigned long flags_;
  const void* key_;
  std::size_t index_;
  std::uint64_t digest_ = 0;
};

// The records of one file, which objects of all threads share. One writer at a time.
class Store {
 public:
  std::shared_ptr<const State> state() {
    const std::lock_guard lock(mutex_);
    return state_;
  }
  void publish(std::shared_ptr<State> state) {
    ++state->position;
    const std::lock_guard lock(mutex_);
    state_ = std::move(state);
  }
  bool takeTurn(std::uint32_t waitMs) {
    std::unique_lock lock(mutex_);
    if (!isFree_.wait_for(lock, std::chrono::milliseconds(waitMs), [this] { return !isTaken_; })) return false;
    isTaken_ = true;
    return true;
  }
  void endTurn() {
    const std::lock_guard lock(mutex_);
    isTaken_ = false;
    isFree_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable isFree_;
  bool isTaken_ = false;
  std::shared_ptr<const State> state_ = std::make_shared<const State>();
};

class Scan final : public RecordScan {
 public:
  Scan(const RecordType& type, std::shared_ptr<const State> state, bool isOfBatch)
      : type_(type), state_(std::move(state)), isOfBatch_(isOfBatch) {}

  GenRegScanExtent extent() const override {
    GenRegScanExtent extent{};
    for (const Record& record : state_->records) extent.bytes += record.bytes->size();
    extent.records = state_->records.size();
    return extent;
  }
  bool isOfBatch() const override { return isOfBatch_; }

 private:
  std::uint32_t nextMatch(unsigned long flags, const void* key, std::byte* out) override {
    const std::size_t found = Question(type_, flags, key).findFrom(state_->records, next_);
    if (found == state_->records.size()) return GENREG_RC_END_OF_SCAN;
    copyOut(type_, state_->records[found], out);
    next_ = found + 1;
    return MD_RC_OK;
  }

  const RecordType type_;
  const std::shared_ptr<const State> state_;
  const bool isOfBatch_;
  std::size_t next_ = 0;
};

// A writer's turn, and the copy of the state that it works on.
class Batch final : public RecordBatch {
 public:
  Batch(const EngineSettings& settings, std::shared_ptr<Store> store)
      : type_(settings.type), waitMs_(settings.lockWaitMs), store_(std::move(store)) {}
  ~Batch() override {
    if (hasTurn_) store_->endTurn();
  }

  std::uint32_t begin() {
    hasTurn_ = store_->takeTurn(waitMs_);
    if (!hasTurn_) return GENREG_RC_LOCK_TIMEOUT;
    state_ = std::make_shared<State>(*store_->state());
    return MD_RC_OK;
  }

  std::uint32_t get(unsigned long flags, const void* key, std::byte* out) override {
    const std::size_t found = find(flags, key);
    if (found == records().size()) return GENREG_RC_NOT_FOUND;
    copyOut(type_, records()[found], out);
    return MD_RC_OK;
  }

  std::uint32_t add(unsigned long flags, const void* record) override {
    std::size_t size = 0;
    if (const std::uint32_t rc = type_.check(flags, record, size)) return rc;
    if (flags != 0 && find(flags, record) != records().size()) return GENREG_RC_DUPLICATE_KEY;
    records().push_back(makeRecord(type_, record, size));
    isChanged_ = true;
    return MD_RC_OK;
  }

  std::uint32_t change(unsigned long flags, const void* key, const void* record) override {
    std::size_t size = 0;
    if (const std::uint32_t rc = type_.check(0, record, size)) return rc;
    const std::size_t found = find(flags, key);
    if (found == records().size()) return GENREG_RC_NOT_FOUND;
    Record newer = makeRecord(type_, record, size);
    if (*newer.bytes == *records()[found].bytes) return GENREG_RC_NO_CHANGE;
    records()[found] = std::move(newer);
    isChanged_ = true;
    return MD_RC_OK;
  }

  std::uint32_t remove(unsigned long flags, const void* key, bool all) override {
    const Question question(type_, flags, key);
    const std::size_t first = question.findFrom(records(), 0);
    if (first == records().size()) return GENREG_RC_NOT_FOUND;
    if (all) {
      std::erase_if(records(), [&question](const Record& record) { return question.isAnsweredBy(record); });
    } else {
      records().erase(records().begin() + static_cast<std::ptrdiff_t>(first));
    }
    isChanged_ = true;
    return MD_RC_OK;
  }

  std::uint32_t openScan(std::unique_ptr<RecordScan>& scan) override {
    scan = std::make_unique<Scan>(type_, state_, true);
    return MD_RC_OK;
  }

  std::uint32_t commit() override {
    if (isChanged_) store_->publish(std::move(state_));
    return MD_RC_OK;
  }

 private:
  std::vector<Record>& records() { return state_->records; }
  std::size_t find(unsigned long flags, const void* key) { return Question(type_, flags, key).findFrom(records(), 0); }

  const RecordType type_;
  const std::uint32_t waitMs_;
  const std::shared_ptr<Store> store_;
  std::shared_ptr<State> state_;
  bool hasTurn_ = false;
  bool isChanged_ = false;
};

class MemoryEngine final : public RecordEngine {
 public:
  MemoryEngine(const EngineSettings& settings, std::shared_ptr<Store> store)
      : settings_(settings), store_(std::move(store)) {}

  std::uint32_t get(unsigned long flags, const void* key, std::byte* out) override {
    const std::shared_ptr<const State> state = store_->state();
    const std::size_t found = Question(settings_.type, flags, key).findFrom(state->records, 0);
    if (found == state->records.size()) return GENREG_RC_NOT_FOUND;
    copyOut(settings_.type, state->records[found], out);
    return MD_RC_OK;
  }
  std::uint32_t add(unsigned long flags, const void* record) override {
    return run([&](Batch& batch) { return batch.add(flags, record); });
  }
  std::uint32_t change(unsigned long flags, const void* key, const void* record) override {
    return run([&](Batch& batch) { return batch.change(flags, key, record); });
  }
  std::uint32_t remove(unsigned long flags, const void* key, bool all) override {
    return run([&](Batch& batch) { return batch.remove(flags, key, all); });
  }
  std::uint32_t openScan(std::unique_ptr<RecordScan>& scan) override {
    scan = std::make_unique<Scan>(settings_.type, store_->state(), false);
    return MD_RC_OK;
  }
  std::uint32_t beginBatch(std::unique_ptr<RecordBatch>& batch) override {
    auto begun = std::make_unique<Batch>(settings_, store_);
    if (const std::uint32_t rc = begun->begin()) return rc;
    batch = std::move(begun);
    return MD_RC_OK;
  }
  std::uint32_t status(GenRegStatus& status) override {
    const std::shared_ptr<const State> state = store_->state();
    status = GenRegStatus{};
    std::string(ENGINE_NAME).copy(status.engine, sizeof status.engine - 1);
    for (const Record& record : state->records) status.recordBytes += record.bytes->size();
    status.records = state->records.size();
    status.changes = state->position;
    return MD_RC_OK;
  }
  std::uint32_t repair() override { return MD_RC_OK; }
  std::uint32_t compact() override { return MD_RC_OK; }
  std::uint32_t acknowledgeLoss() override { return MD_RC_OK; }
  std::uint32_t position(std::uint64_t& position) override {
    position = store_->state()->position;
    return MD_RC_OK;
  }

 private:
  template <class Work>
  std::uint32_t run(Work work) {
    Batch batch(settings_, store_);
    if (const std::uint32_t rc = batch.begin()) return rc;
    const std::uint32_t rc = work(batch);
    return rc != MD_RC_OK ? rc : batch.commit();
  }

  const EngineSettings& settings_;
  const std::shared_ptr<Store> store_;
};

// What stubs lead to, by the settings that they name.
std::mutex storesMutex;
std::map<std::string, std::shared_ptr<Store>, std::less<>> stores;

std::uint32_t makeEngine(const EngineSettings& settings, std::string_view name, std::unique_ptr<RecordEngine>& engine) {
  const std::lock_guard lock(storesMutex);
  const auto found = stores.find(name);
  if (found == stores.end()) return GENREG_RC_NO_ENGINE;
  engine = std::make_unique<MemoryEngine>(settings, found->second);
  return MD_RC_OK;
}

}  // namespace

void keepInMemory(const std::filesystem::path& recordFile) {
  static std::atomic<int> made = 0;
  registerEngine(ENGINE_NAME, makeEngine);
  const std::string name = "store-" + std::to_string(++made);
  {
    const std::lock_guard lock(storesMutex);
    stores.emplace(name, std::make_shared<Store>());
  }
  putFile(recordFile, stubBytes(ENGINE_NAME, name));
}

}  // namespace zon::test
