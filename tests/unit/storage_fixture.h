// A platform with file storage set up, and a check after each test that nothing was left behind.
#ifndef TESTS_UNIT_STORAGE_FIXTURE_H
#define TESTS_UNIT_STORAGE_FIXTURE_H

#include <algorithm>
#include <filesystem>
#include <fstream>

#include <spoolcap/zarn_storage.h>
#include "tests/support/platform_test.h"
#include "tests/support/transfer_service.h"

using storage_session =
    std::unique_ptr<qx_storage_session_t, call_to_release<qx_storage_release_session>>;

inline const std::string scache = "usr/local/quorvex/scache/main/";

class storage_test : public platform_test {
 protected:
  explicit storage_test(const std::string &engine) {
    box.write_file("etc/quorvex/storage.conf", "STORAGE_SYSTEM " + engine + "\n");
    for (const std::string kind : {"recording", "voicemail", "fax_center"}) {
      box.sql("INSERT INTO extension_" + kind + " (id, extension_id, " + column(kind) +
              ", se, az) VALUES (7, 1, 'old', 'old', 'old'), (8, 1, 'old', 'old', 'old')");
    }
    EXPECT_EQ(qx_storage_initialize(base.c_str(), nullptr), 0);
  }
  ~storage_test() override {
    service.reset();
    for (const std::string folder :
         {"base/monitor/tmp", "base/voicemail/tmp", "base/fax/tmp", "usr/local/quorvex/stmp"}) {
      EXPECT_EQ(files(folder), texts{}) << folder;
    }
    qx_storage_cleanup();
  }

  // "<file name>|<engine>|<location>"
  std::string row(const std::string &kind, int id) const {
    return box
        .sql_value("SELECT CONCAT_WS('|', " + column(kind) + ", se, az) FROM extension_" + kind +
                   " WHERE id = " + std::to_string(id))
        .value();
  }
  // All files below a folder, and what is in the sorted set of a queue.
  texts files(const std::string &folder) const {
    namespace fs = std::filesystem;
    texts found;
    if (!fs::is_directory(box.path(folder))) return found;
    for (const auto &entry : fs::recursive_directory_iterator(box.path(folder))) {
      if (!entry.is_directory()) found.push_back(fs::relative(entry.path(), box.path(folder)));
    }
    std::sort(found.begin(), found.end());
    return found;
  }
  std::string members(const std::string &queue) const {
    return box
        .redis({"EVAL", "return table.concat(redis.call('ZRANGE', KEYS[1], 0, -1), ' ')", "1",
                "storage:" + queue + "queue:s3:main"})
        .value();
  }
  static int mode(const std::string &path) {
    return static_cast<int>(std::filesystem::status(path).permissions());
  }

  // A session of owner 1, 2 with its file written; the same committed; one for a stored file.
  static storage_session written(int type, const char *extension, const std::string &text) {
    storage_session made(qx_storage_session_create(type, 1, 2, extension));
    if (made) std::ofstream(qx_storage_get_temp_file(made.get())) << text;
    return made;
  }
  static int stored(int type, int id, const std::string &text) {
    return qx_storage_commit_file(written(type, "wav", text).get(), id);
  }
  static storage_session fetched(int type, const std::string &name, const char *engine) {
    return storage_session(qx_storage_session_retrieve(type, name.c_str(), engine, "how to"));
  }
  // The commit of a recording as number 7 fails, and nothing but the temporary file is there.
  void expect_not_stored(const storage_session &made, const std::string &text) const {
    EXPECT_EQ(qx_storage_commit_file(made.get(), 7), -1);
    EXPECT_EQ(box.read_file(qx_storage_get_temp_file(made.get())), text);
    EXPECT_EQ(qx_storage_get_file_path(made.get()), nullptr);
    EXPECT_EQ(row("recording", 7), "old|old|old");
    EXPECT_FALSE(std::filesystem::is_regular_file(base + "/monitor/1/2/7.wav"));
    EXPECT_EQ(members("up"), "");
  }

  std::string base = box.path("base");
  std::optional<support::transfer_service> service;

 private:
  static std::string column(const std::string &kind) {
    return kind == "fax_center" ? "file_name" : "filename";
  }
};

#endif
