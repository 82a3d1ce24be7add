// See file_engine.h.
#include "platform/registry/file_engine.h"

#include <fcntl.h>

#include <array>
#include <span>
#include <utility>

#include "platform/registry/file_status.h"
#include "platform/registry/files/file_io.h"
#include "platform/registry/files/stub.h"
#include "platform/registry/reader.h"

namespace zon {

namespace {

bool isCut(std::string_view path) { return path.size() == GenRegBase::PATH_SIZE - 1; }

WriterSettings writerSettings(const EngineSettings& settings) {
  WriterSettings writer;
  const GenRegBase::FileNames& names = settings.names;
  writer.paths = FilePaths{.directory = directoryOf(names.file),
                           .file = lastComponent(names.file),
                           .backup = lastComponent(names.backup),
                           .temporary = lastComponent(names.temporary),
                           .corrupt = lastComponent(names.corruptCopy),
                           .lock = lastComponent(names.lock),
                           .isCut = isCut(names.file) || isCut(names.backup) || isCut(names.temporary) ||
                                    isCut(names.corruptCopy) || isCut(names.lock)};
  writer.fileMode = settings.fileMode;
  writer.companionMode = settings.companionMode;
  writer.lockWaitMs = settings.lockWaitMs;
  writer.repairs = settings.repairs;
  writer.keepsBackup = settings.keepsBackup;
  writer.durable = settings.durable;
  return writer;
}

bool isStubAt(const char* path) {
  Descriptor file;
  FileState state;
  std::array<std::byte, format::STUB_FILE_SIZE> bytes{};
  std::size_t got = 0;
  Stub stub;
  return openRegular(AT_FDCWD, path, O_RDONLY, 0, file) == MD_RC_OK && stateOf(file.get(), state) == MD_RC_OK &&
         readAt(file.get(), 0, bytes, got) == MD_RC_OK &&
         stub.take(std::span(bytes).first(got), state.size) != GENREG_RC_NOT_RECORD_FILE;
}

// What a writer needs to begin, a right to write above all, a stub need not grant: who fails looks whether it is one.
// Memory every engine needs.
std::uint32_t beginOrStub(Transaction& transaction, bool create, const char* path) {
  const std::uint32_t rc = transaction.begin(create);
  const bool mayHideStub = rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND && rc != RC_STUB && rc != GENREG_RC_NO_MEMORY;
  return mayHideStub && isStubAt(path) ? RC_STUB : rc;
}

// The state that a transaction is about to commit.
class FileBatch final : public RecordBatch {
 public:
  explicit FileBatch(const EngineSettings& settings)
      : filePath_(settings.names.file.data()), transaction_(settings.type, writerSettings(settings)) {}

  // Without a file there is nothing to change or remove yet; the first record added makes it.
  [[nodiscard]] std::uint32_t begin() {
    const std::uint32_t rc = beginOrStub(transaction_, false, filePath_);
    return rc == GENREG_RC_NOT_FOUND ? MD_RC_OK : rc;
  }

  [[nodiscard]] std::uint32_t get(unsigned long flags, const void* key, std::byte* out) override {
    if (!transaction_.hasFile()) return GENREG_RC_NOT_FOUND;
    if (const std::uint32_t rc = transaction_.requireOwner()) return rc;
    LiveRecord found{};
    std::size_t size = 0;
    return codeForCallers(findFirst(transaction_.view(), flags, key, out, found, size));
  }
  [[nodiscard]] std::uint32_t add(unsigned long flags, const void* record) override {
    return run(true, [&] { return transaction_.add(flags, record); });
  }
  [[nodiscard]] std::uint32_t change(unsigned long flags, const void* key, const void* record) override {
    return run(false, [&] { return transaction_.change(flags, key, record); });
  }
  [[nodiscard]] std::uint32_t remove(unsigned long flags, const void* key, bool all) override {
    return run(false, [&] { return transaction_.remove(flags, key, all); });
  }
  [[nodiscard]] std::uint32_t openScan(std::unique_ptr<RecordScan>& scan) override {
    if (const std::uint32_t rc = transaction_.requireOwner()) return rc;
    scan = std::make_unique<Scan>(transaction_);
    return MD_RC_OK;
  }
  [[nodiscard]] std::uint32_t commit() override {
    return transaction_.hasFile() ? codeForCallers(transaction_.commit()) : MD_RC_OK;
  }
  bool hasMetLoss() const override { return transaction_.hasMetLoss(); }

 private:
  template <class Work>
  std::uint32_t run(bool create, Work work) {
    std::uint32_t rc = transaction_.hasFile() ? MD_RC_OK : transaction_.begin(create);
    // Somebody put a stub where there was no file when the batch began: what follows the batch finds that.
    if (rc == RC_STUB) return GENREG_RC_LOCK_TIMEOUT;
    if (rc == MD_RC_OK) rc = work();
    if (rc == MD_RC_OK) rc = transaction_.commitWhenHeavy();
    return codeForCallers(rc);
  }

  const char* filePath_;
  Transaction transaction_;
};

}  // namespace

template <class Work>
std::uint32_t FileEngine::withFile(WriterSettings settings, bool create, Work work) {
  Transaction transaction(settings_.type, std::move(settings));
  std::uint32_t rc = beginOrStub(transaction, create, settings_.names.file.data());
  if (rc == MD_RC_OK) rc = work(transaction);
  if (transaction.hasMetLoss()) hasMetLoss_ = true;
  return codeForCallers(rc);
}

template <class Work>
std::uint32_t FileEngine::runChange(bool create, Work work) {
  return withFile(writerSettings(settings_), create, [&work](Transaction& transaction) {
    const std::uint32_t rc = work(transaction);
    return rc != MD_RC_OK ? rc : transaction.commit();
  });
}

std::uint32_t FileEngine::get(unsigned long flags, const void* key, std::byte* out) {
  return codeForCallers(Reader(settings_.type, settings_.names.file, settings_.names.backup).get(flags, key, out));
}

std::uint32_t FileEngine::add(unsigned long flags, const void* record) {
  return runChange(true, [&](Transaction& transaction) { return transaction.add(flags, record); });
}

std::uint32_t FileEngine::change(unsigned long flags, const void* key, const void* record) {
  return runChange(false, [&](Transaction& transaction) { return transaction.change(flags, key, record); });
}

std::uint32_t FileEngine::remove(unsigned long flags, const void* key, bool all) {
  return runChange(false, [&](Transaction& transaction) { return transaction.remove(flags, key, all); });
}

std::uint32_t FileEngine::openScan(std::unique_ptr<RecordScan>& scan) {
  auto opened = std::make_unique<Scan>(settings_.type, settings_.names.file, settings_.names.backup);
  if (const std::uint32_t rc = opened->open()) return codeForCallers(rc);
  scan = std::move(opened);
  return MD_RC_OK;
}

std::uint32_t FileEngine::beginBatch(std::unique_ptr<RecordBatch>& batch) {
  auto begun = std::make_unique<FileBatch>(settings_);
  const std::uint32_t rc = begun->begin();
  if (begun->hasMetLoss()) hasMetLoss_ = true;
  if (rc == MD_RC_OK) batch = std::move(begun);
  return codeForCallers(rc);
}

std::uint32_t FileEngine::status(GenRegStatus& status) { return codeForCallers(readStatus(settings_, status)); }

std::uint32_t FileEngine::repair() {
  WriterSettings writer = writerSettings(settings_);
  writer.repairs = true;
  GenRegStatus before;
  const std::uint32_t told = status(before);
  if (told != MD_RC_OK && told != GENREG_RC_NOT_RECORD_FILE) return told;
  const std::uint32_t rc = withFile(std::move(writer), false, [&before](Transaction& transaction) {
    return before.damaged == 0 || transaction.isRepaired() ? MD_RC_OK : transaction.repair();
  });
  return rc == GENREG_RC_NOT_FOUND ? MD_RC_OK : rc;
}

std::uint32_t FileEngine::compact() {
  const std::uint32_t rc = withFile(writerSettings(settings_), false, [this](Transaction& transaction) {
    const std::uint32_t compacted = transaction.compact();
    const bool mayRepair = settings_.repairs && !transaction.isRepaired();
    return isDamage(compacted) && mayRepair ? transaction.repair() : compacted;
  });
  return rc == GENREG_RC_NOT_FOUND ? MD_RC_OK : rc;
}

std::uint32_t FileEngine::acknowledgeLoss() {
  return withFile(writerSettings(settings_), false,
                  [](Transaction& transaction) { return transaction.acknowledgeLoss(); });
}

std::uint32_t FileEngine::position(std::uint64_t& position) {
  Reader reader(settings_.type, settings_.names.file, settings_.names.backup);
  const std::uint32_t rc = reader.open();
  if (rc != MD_RC_OK && rc != GENREG_RC_NOT_FOUND) return codeForCallers(rc);
  position = rc == MD_RC_OK ? reader.view().slot().commits : 0;
  return MD_RC_OK;
}

}  // namespace zon
