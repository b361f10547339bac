// Compares rows of stored files with the files, by the ids of rows that the names of files have.
// Reads names below storage and cache; opens no stored file.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

#include "main/storage/config.h"
#include "main/storage/engine.h"
#include "main/storage/names.h"
#include "platform/base/number.h"
#include "platform/base/utf8.h"
#include "report/checks.h"
#include "report/command.h"
#include "report/statement.h"

namespace {

namespace fs = std::filesystem;

using file_id = std::uint64_t;
// Eight bytes a file: a node may have millions of them.
using file_ids = std::vector<file_id>;  // sorted, each once

using visit_entry = std::function<void(file_id id, const fs::directory_entry &entry)>;

// Visits the folders or files in a folder whose names begin with a number up to a dot or the end.
void for_each_numbered(const fs::path &folder, const visit_entry &visit) {
  for_each_entry(folder, [&](const fs::directory_entry &entry) {
    const std::string name = entry.path().filename().string();
    if (const auto id = whole_number<file_id>(std::string_view(name).substr(0, name.find('.')))) {
      visit(*id, entry);
    }
  });
}

// Visits the files <first id>/<second id>/<file id>.<extension>, as both engines name them.
void for_each_file(const fs::path &folder, const visit_entry &visit) {
  const visit_entry visit_file = [&](file_id id, const fs::directory_entry &entry) {
    std::error_code error;
    // A name of another shape may have more folders in it.
    if (!entry.is_directory(error)) visit(id, entry);
  };
  for_each_numbered(folder, [&](file_id, const fs::path &first) {
    for_each_numbered(
        first, [&](file_id, const fs::path &second) { for_each_numbered(second, visit_file); });
  });
}

file_ids ids_below(const fs::path &folder) {
  file_ids ids;
  for_each_file(folder, [&](file_id id, const fs::path &) { ids.push_back(id); });
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

bool has(const file_ids &ids, file_id id) {
  return std::binary_search(ids.begin(), ids.end(), id);
}

// Whether the transfer service may still have to remove a cached file, or to store it.
bool is_kept(const fs::directory_entry &entry, int cache_expire) {
  std::error_code error;
  const fs::file_time_type last_use = entry.last_write_time(error);
  // One that the service removed meanwhile is no finding either.
  return error || fs::file_time_type::clock::now() - last_use <= std::chrono::hours(cache_expire);
}

// Whether the file of a row lies in a local folder. A row without an engine waits for its file.
bool is_local(const std::optional<std::string_view> &engine) {
  return engine && engine_of(std::string(*engine).c_str()) == &posix_engine;
}

// One kind of media: its rows, and where its files are.
class kind_check {
 public:
  kind_check(unsigned kind, const storage_config &config, findings_writer &out)
      : kind_(kind),
        local_(folder_of_type(config, media_kinds[kind].storage_type)),
        cache_(fs::path(config.cache) / storage_shard / media_kinds[kind].key_word),
        cache_expire_(config.cache_expire),
        out_(out) {}

  void run() {
    // Before the rows: a file that is stored meanwhile is not looked for among them.
    const file_ids local = ids_below(local_);
    const file_ids cached = ids_below(cache_);
    file_ids rows;
    for_each_row([&](file_id id, bool lies_here) {
      rows.push_back(id);
      if (lies_here && !has(local, id)) rows_without_files_.push_back(id);
    });
    std::sort(rows.begin(), rows.end());
    tell_files(local, rows, local_, [](const fs::directory_entry &) { return false; });
    tell_files(cached, rows, cache_,
               [this](const fs::directory_entry &entry) { return is_kept(entry, cache_expire_); });
    tell_rows();
  }

 private:
  void for_each_row(const std::function<void(file_id id, bool is_local)> &visit) const {
    const report_session session(server_choice::master);
    ::for_each_row(
        session.get(), std::string("SELECT id, se FROM ") + table(), [&](const sql_fields &row) {
          // Another engine's rows need no local file: theirs may be in the store only.
          visit(whole_number<file_id>(row[0].value_or("")).value_or(0), is_local(row[1]));
        });
  }

  const char *table() const { return media_kinds[kind_].rows.table; }

  // Those of these files that have no row and are not skipped, with their paths.
  void tell_files(const file_ids &files, const file_ids &rows, const fs::path &folder,
                  const std::function<bool(const fs::directory_entry &entry)> &is_skipped) {
    if (std::includes(rows.begin(), rows.end(), files.begin(), files.end())) return;
    for_each_file(folder, [&](file_id id, const fs::directory_entry &entry) {
      if (!has(files, id) || has(rows, id) || is_skipped(entry)) return;
      out_.add(
          {.name = "file_without_row", .kind = kind_, .where = valid_utf8(entry.path().string())});
    });
  }

  // A file may have come since the first look.
  void tell_rows() {
    if (rows_without_files_.empty()) return;
    const file_ids local = ids_below(local_);
    for (const file_id id : rows_without_files_) {
      if (has(local, id)) continue;
      out_.add({.name = "row_without_file",
                .kind = kind_,
                .where = std::string(table()) + " " + std::to_string(id)});
    }
  }

  unsigned kind_;
  fs::path local_;  // of the engine POSIX
  fs::path cache_;  // of the object store
  int cache_expire_;
  findings_writer &out_;
  file_ids rows_without_files_;
};

}  // namespace

void check_stored_files(const char *storage, findings_writer &out) {
  // Only the folders are of interest; `storage` stands for the hosts' base directory.
  if (load_config(QX_HERE, storage, nullptr) != 0) {
    throw report_trouble("The configuration of the storage cannot be read");
  }
  const storage_snapshot now = take_snapshot();
  for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
    if (media_kinds[kind].rows.table != nullptr) kind_check(kind, *now.config, out).run();
  }
}
