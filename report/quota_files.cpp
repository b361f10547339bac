// Walks down the quota tree with the accounts, from folder to folder, each listed once.
// Reads only, and by the engine's rule for links; up to four threads.
#include "report/quota_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <functional>
#include <new>
#include <system_error>
#include <thread>

#include "main/quota/careful_open.h"
#include "main/quota/settings.h"
#include "report/command.h"

namespace {

// They wait for the disk more than for the processor.
constexpr size_t most_threads = 4;
constexpr size_t longest_record = 31;

// What lies in the quota directory of one account.
struct folder_content {
  kind_set files = 0;
  kind_set dirty = 0;
  bool redo = false;
};

void take_name(folder_content &content, std::string_view name) {
  if (name == "quota.redo") {
    content.redo = true;
    return;
  }
  for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
    const std::string_view file = media_kinds[kind].quota_file;
    if (!name.starts_with(file)) continue;
    if (name.size() == file.size()) content.files |= set_of(kind);
    // A mark without its file counts nothing: there is no figure to distrust.
    if (name.substr(file.size()) == ".dirty") content.dirty |= set_of(kind);
  }
}

// Nothing when the folder cannot be read.
std::optional<folder_content> list(int folder) {
  folder_content content;
  alignas(dirent64) char entries[32768];
  for (;;) {
    const ssize_t length = ::getdents64(folder, entries, sizeof entries);
    if (length < 0) return std::nullopt;
    if (length == 0) return content;
    for (ssize_t at = 0; at < length;) {
      const auto *entry = reinterpret_cast<const dirent64 *>(entries + at);
      // Most names in the folder of a client are those of its users.
      if (entry->d_name[0] > '9') take_name(content, entry->d_name);
      at += entry->d_reclen;
    }
  }
}

void set_all(report_account &account, figure_state state) {
  for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) account.states[kind] = state;
}

struct record_text {
  std::int64_t value;
  std::int32_t updates;
  bool is_whole;  // false when a writer was killed before it had cut the file
};

// Stricter than the engine, which takes "12 apes." for twelve bytes: what is no number deserves no
// trust. Behind the record may stand dots where a writer was killed.
std::optional<record_text> record_in(std::string_view text) {
  record_text record = {};
  const char *const end = text.data() + text.size();
  const auto value = std::from_chars(text.data(), end, record.value);
  if (value.ec != std::errc() || value.ptr == end || *value.ptr != '.') return std::nullopt;
  const auto updates = std::from_chars(value.ptr + 1, end, record.updates);
  if (updates.ec != std::errc() || record.value < 0 || record.updates < 0) return std::nullopt;
  record.is_whole = updates.ptr == end;
  if (std::string_view(updates.ptr, end).find_first_not_of('.') != text.npos) return std::nullopt;
  return record;
}

// A file is a record only as the engine takes it: no link, no device, no second name.
figure_state read_record(int folder, unsigned kind, report_account &account) {
  const unique_fd file(open_entry(folder, media_kinds[kind].quota_file,
                                  O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) return errno == ENOENT ? figure_state::missing : figure_state::unreadable;
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return figure_state::unreadable;
  if (!S_ISREG(status.st_mode) || status.st_nlink > 1) return figure_state::unreadable;
  // Also for a file that holds no record: it has an age.
  account.modified[kind] = status.st_mtim.tv_sec;
  char text[longest_record + 1];
  const ssize_t length = ::read(file.get(), text, sizeof text);
  if (length < 0 || static_cast<size_t>(length) > longest_record) return figure_state::unreadable;
  const auto record = record_in({text, static_cast<size_t>(length)});
  if (!record) return figure_state::unreadable;
  account.used[kind] = record->value;
  account.updates[kind] = record->updates;
  if (!record->is_whole) return figure_state::redo;
  return record->updates > 0 ? figure_state::updated : figure_state::measured;
}

figure_state state_with_marks(figure_state state, unsigned kind, const folder_content &content) {
  // Worse than any mark.
  if (state >= figure_state::missing) return state;
  if (content.redo) return figure_state::redo;
  return (content.dirty & set_of(kind)) != 0 ? figure_state::dirty : state;
}

void read_folder(int folder, report_account &account) {
  const std::optional<folder_content> content = list(folder);
  if (!content) return set_all(account, figure_state::unreadable);
  for (unsigned kind = 0; kind < QUOTA_ALL_KINDS; ++kind) {
    if ((content->files & set_of(kind)) == 0) continue;
    account.states[kind] = state_with_marks(read_record(folder, kind, account), kind, *content);
  }
}

// Reads one account and all below it.
void read_subtree(report_platform &platform, int above, report_account &account) {
  const std::string name = std::to_string(account.id);
  const unique_fd folder(open_entry(above, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) {
    // Then nothing below it can have files either.
    if (errno == ENOENT) return;
    set_all(account, figure_state::unreadable);
  } else {
    read_folder(folder.get(), account);
  }
  for (const std::uint32_t place : platform.children_of(account.id)) {
    read_subtree(platform, folder.get(), platform.accounts[place]);
  }
}

// Runs it in `most` threads at most, and not in more than there are processors.
void run_side_by_side(const std::function<void()> &work, size_t most) {
  std::vector<std::jthread> helpers;
  try {
    while (helpers.size() + 1 < std::min<size_t>(most, std::thread::hardware_concurrency())) {
      helpers.emplace_back(work);
    }
  } catch (const std::system_error &) {
    // Then with those that there are.
  }
  work();
}

}  // namespace

void read_quota_files(report_platform &platform) {
  const quota_settings *settings = loaded_settings();
  if (settings == nullptr) throw report_trouble("The configuration of the quotas cannot be read");
  const unique_fd root(::open(settings->quota_root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  // Before the first refresh there is none.
  if (!root && errno != ENOENT) {
    throw report_trouble(settings->quota_root + ": " + std::strerror(errno));
  }
  if (!root) return;
  std::vector<report_account *> resellers;
  for (const std::uint32_t place : platform.children_of(0)) {
    report_account &account = platform.accounts[place];
    if (account.level == LEVEL_RESELLER) resellers.push_back(&account);
  }
  // No two resellers have an account in common.
  // Resellers differ in size, so threads take one after the other.
  std::atomic<size_t> next = 0;
  std::atomic<bool> is_short_of_memory = false;
  const auto read = [&] {
    try {
      for (size_t i = next++; i < resellers.size(); i = next++) {
        read_subtree(platform, root.get(), *resellers[i]);
      }
    } catch (const std::bad_alloc &) {
      is_short_of_memory = true;
    }
  };
  run_side_by_side(read, std::min(most_threads, resellers.size()));
  if (is_short_of_memory) throw std::bad_alloc();
}
