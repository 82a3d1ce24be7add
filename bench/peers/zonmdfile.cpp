// Ours: nothing is ever held open, so both ways are the same.
#include <cstring>

#include "peers/peer.h"
#include "zonmdfile/platform/admin.h"
#include "zonmdfile/platform/oss.h"
#include "zonmdfile/zonmdfile.h"

namespace peers {

namespace {

constexpr const char* NAME = "zonmdfile";
constexpr std::int32_t EXISTS = -22272;
constexpr std::int32_t NOT_THERE = -22273;

void giveBack(zonOutputCell& output) {
  void* text = output.text;
  _ossMemFree(&text, 0, 0, NAME, __LINE__);
}

class ZonPeer final : public Peer {
 public:
  explicit ZonPeer(const std::filesystem::path& directory) : directory_(directory) {
    setMetadataPath(directory.c_str());
  }

  bool get(const std::string& key, std::string& data) override {
    zonInputCell input = {0, key.c_str()};
    zonOutputCell outputs[2] = {};
    std::int32_t rc = -1;
    void* block[] = {&input, &rc, &outputs[0], &outputs[1]};
    struct sqlca sqlca;
    MDCustomTree_retrieve(nullptr, block, &sqlca);
    require(rc == 0 || rc == NOT_THERE, NAME, "retrieve");
    if (rc == 0) data.assign(outputs[0].text);
    for (zonOutputCell& output : outputs) giveBack(output);
    return rc == 0;
  }

  bool insert(const std::string& key, const std::string& data) override {
    const std::int32_t rc = write(MDCustomTree_insert, key, data);
    require(rc == 0 || rc == EXISTS, NAME, "insert");
    return rc == 0;
  }

  bool update(const std::string& key, const std::string& data) override {
    const std::int32_t rc = write(MDCustomTree_update, key, data);
    require(rc == 0 || rc == NOT_THERE, NAME, "update");
    return rc == 0;
  }

  bool remove(const std::string& key) override {
    zonInputCell input = {0, key.c_str()};
    std::int32_t rc = -1;
    void* block[] = {&input, &rc};
    struct sqlca sqlca;
    MDCustomTree_remove(nullptr, block, &sqlca);
    require(rc == 0 || rc == NOT_THERE, NAME, "remove");
    return rc == 0;
  }

  // The lists that callers get are texts already: keys, data and versions.
  void list(Listing& listing) override {
    zonOutputCell outputs[3] = {};
    std::int32_t rc = -1;
    void* block[] = {&rc, &outputs[0], &outputs[1], &outputs[2]};
    struct sqlca sqlca;
    MDCustomTree_retrieveAll(nullptr, block, &sqlca);
    require(rc == 0, NAME, "listing");
    for (const char* at = outputs[0].text; (at = std::strchr(at, '\x0e')) != nullptr; ++at) ++listing.count;
    for (zonOutputCell& output : outputs) giveBack(output);
  }

  // Without a batch for C callers: in memory, where a sync costs nothing, then copied.
  void load(std::uint64_t count, const std::function<void(std::uint64_t, std::string&, std::string&)>& make) override {
    const std::filesystem::path memory = std::filesystem::path("/dev/shm") / directory_.filename();
    std::filesystem::create_directories(memory);
    setMetadataPath(memory.c_str());
    std::string key;
    std::string data;
    for (std::uint64_t number = 0; number < count; ++number) {
      make(number, key, data);
      require(insert(key, data), NAME, "loading");
    }
    for (const auto& entry : std::filesystem::directory_iterator(memory))
      std::filesystem::copy_file(entry.path(), directory_ / entry.path().filename());
    std::filesystem::remove_all(memory);
    setMetadataPath(directory_.c_str());
  }

 private:
  static std::int32_t write(void (*entry)(void*, void**, struct sqlca*), const std::string& key,
                            const std::string& data) {
    zonInputCell inputs[3] = {{0, key.c_str()}, {0, data.c_str()}, {0, "1"}};
    std::int32_t rc = -1;
    void* block[] = {&inputs[0], &inputs[1], &inputs[2], &rc};
    struct sqlca sqlca;
    entry(nullptr, block, &sqlca);
    return rc;
  }

  std::filesystem::path directory_;
};

}  // namespace

Kind zonmdfile() {
  return {NAME, "", true,
          [](const std::filesystem::path& directory, bool) { return std::make_unique<ZonPeer>(directory); }};
}

}  // namespace peers
