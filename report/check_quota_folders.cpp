// Walks down the quota root by itself, as it looks for what the accounts do not lead to.
// Reads names and times below the quota root; opens no quota file.
#include <sys/stat.h>

#include <filesystem>
#include <limits>

#include "main/quota/settings.h"
#include "platform/base/number.h"
#include "platform/base/utf8.h"
#include "report/checks.h"
#include "report/options.h"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view dirty_ending = ".quota.dirty";

// Of others than root, no link is followed.
bool is_folder(const fs::path &path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return false;
  if (S_ISLNK(status.st_mode) && (status.st_uid != 0 || ::stat(path.c_str(), &status) != 0)) {
    return false;
  }
  return S_ISDIR(status.st_mode);
}

class folder_check {
 public:
  folder_check(const report_platform &platform, findings_writer &out)
      : platform_(platform), out_(out) {}

  // Looks at the folders of the accounts below one, or of the resellers for null.
  void look_into(const fs::path &folder, const report_account *above) {
    for_each_entry(folder, [&](const fs::path &path) {
      const std::string name = path.filename().string();
      const auto id = whole_number<std::uint64_t>(name);
      if (id && is_folder(path)) {
        look_at_account(path, *id, above);
      } else if (above != nullptr) {
        look_at_mark(path, name, *above);
      }
    });
  }

 private:
  void look_at_account(const fs::path &folder, std::uint64_t id, const report_account *above) {
    // A number beyond 32 bits must not be cut to the id of an account.
    const auto *const account = id <= std::numeric_limits<std::uint32_t>::max()
                                    ? platform_.find(static_cast<std::uint32_t>(id))
                                    : nullptr;
    // No other spelling of the id is the account's.
    const bool is_here = account != nullptr && folder.filename() == std::to_string(id) &&
                         account->above == (above == nullptr ? 0 : above->id) &&
                         (above != nullptr || account->level == LEVEL_RESELLER);
    if (is_here) {
      look_into(folder, account);
    } else if (account != nullptr || !exists_now(id)) {
      out_.add({.name = "file_without_account", .where = valid_utf8(folder.string())});
    }
  }

  void look_at_mark(const fs::path &path, const std::string &name, const report_account &account) {
    const std::string kind_name =
        name.ends_with(dirty_ending) ? name.substr(0, name.size() - dirty_ending.size()) : "";
    if (name == "quota.redo") {
      tell("redo_mark", path, account, std::nullopt);
      return;
    }
    for_each_of(all_kinds, [&](unsigned kind) {
      if (kind_name == media_kinds[kind].name) tell("dirty_mark", path, account, kind);
    });
  }

  void tell(const char *mark, const fs::path &path, const report_account &account,
            std::optional<unsigned> kind) {
    struct stat status {};
    std::optional<std::int64_t> age;
    // A refresh may have removed it since; then the finding has no age.
    if (::lstat(path.c_str(), &status) == 0) {
      age = std::max<std::int64_t>(platform_.taken - status.st_mtim.tv_sec, 0);
    }
    out_.add({.name = mark,
              .account = &account,
              .kind = kind,
              .age = age,
              .where = valid_utf8(path.string())});
  }

  const report_platform &platform_;
  findings_writer &out_;
};

}  // namespace

void check_quota_folders(const report_platform &platform, findings_writer &out) {
  folder_check(platform, out).look_into(loaded_settings()->quota_root, nullptr);
}
