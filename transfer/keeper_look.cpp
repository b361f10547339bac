// One look at all files of the cache.
// On the keeper's thread; reads cache and transfer folders, and counts.
#include "transfer/keeper_look.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <spoolcap/zarn_str.h>
#include "platform/base/diagnostics.h"
#include "transfer/multipart.h"
#include "transfer/receipt.h"
#include "transfer/tree_walk.h"

namespace {

constexpr double hour = 3600;
// So old is what a process that still runs has surely finished.
constexpr double removing_takes = 600;
constexpr int named_at_most = 5;

// One look, on the keeper's thread. Nothing of it is kept but the report.
class look {
 public:
  look(const keeper_parts &parts, const keeper_settings &settings, bool ask_all,
       const std::function<void()> &between)
      : parts_(parts), settings_(settings), ask_all_(ask_all), between_(between) {}

  std::optional<keeper_report> run() {
    report_.cached_files = report_.cached_bytes = 0;
    // Empty folders go when they are as old as leftovers: a host may be about to use a new one.
    const bool whole = walk_tree(settings_.cache + "/main",
                                 {.visit = [this](const walked_file &file) { return cached(file); },
                                  .remove_empty_before = now_ - trash_age()});
    const int error = errno;
    for (const std::string &folder : {settings_.transfer_in, settings_.transfer_out + "/main"}) {
      walk_tree(folder, {.visit = [this](const walked_file &file) { return transferred(file); }});
    }
    tell();
    if (parts_.stop) return std::nullopt;
    if (!whole && error != ENOENT) {
      QX_LOG(FR_LOG_WARNING, "The cache %s cannot be read: %s.", settings_.cache.c_str(),
             std::strerror(error));
    }
    report_.last_look = now_;
    return report_;
  }

 private:
  double trash_age() const { return settings_.trash_expire * hour; }

  // False ends the walk, which a stop wants at once.
  bool cached(const walked_file &found) {
    between_();
    if (found.name.starts_with(removing_prefix)) {
      restore(found);
    } else if (found.name.starts_with(storing_prefix) || is_orphan_record(found)) {
      sweep(found);
    } else if (!found.name.starts_with('.')) {
      // Other names with a dot are this service's own, such as records of uploads in parts.
      stored(found);
    }
    return !parts_.stop;
  }

  bool transferred(const walked_file &found) {
    // Hosts make their files directly in these folders; what lies deeper is not theirs.
    if (found.key == found.name) sweep(found);
    return !parts_.stop;
  }

  // What is left of an upload in parts whose file is gone.
  static bool is_orphan_record(const walked_file &found) {
    if (!found.name.starts_with(parts_prefix)) return false;
    const char *const file = found.name.c_str() + std::strlen(parts_prefix);
    return ::faccessat(found.folder, file, F_OK, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT;
  }

  void restore(const walked_file &found) {
    struct stat status {};
    if (::fstatat(found.folder, found.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (now_ - static_cast<double>(status.st_ctim.tv_sec) <= removing_takes) return;
    // Most of them were on their way out because they were deleted.
    auto file = cache_file::open(found.folder, found.name);
    const std::string key = found.key.substr(0, found.key.size() - found.name.size()) +
                            found.name.substr(std::strlen(removing_prefix));
    if (file && judge_deletion(parts_, settings_, *file, key) == judgement::removed) return;
    put_back(found.folder, found.name, ask_all_);
  }

  void sweep(const walked_file &found) {
    auto file = cache_file::open(found.folder, found.name);
    if (!file || now_ - file->last_use() <= trash_age()) return;
    if (file->remove() == removal::removed) ++parts_.state.counters.swept;
  }

  void stored(const walked_file &found) {
    auto file = cache_file::open(found.folder, found.name);
    if (!file) return;
    ++report_.cached_files;
    report_.cached_bytes += file->status().st_size;
    const double unused = now_ - file->last_use();
    const bool expired = unused > settings_.cache_expire * hour;
    // Two intervals: a file is committed to the cache first, and queued after that.
    // One in steady use is not young.
    const double age = now_ - std::min(file->made_at(), file->last_use());
    const bool young = age <= settings_.upload_interval * 2;
    // Once a day: the file may have been deleted on another node, or lost its place in the queue.
    const bool is_due = ask_all_ && !young;
    const bool is_known = read_receipt(file->fd()).has_value();
    judgement result = judgement::left;
    if (is_due && is_known) result = judge_deletion(parts_, settings_, *file, found.key);
    if (result == judgement::left && (expired || (is_due && !is_known))) {
      const wanted what = expired ? wanted::removal : wanted::receipt;
      result = judge_file(parts_, settings_, *file, found.key, what, young);
    }
    count(result, found.key, file->status().st_size);
  }

  void count(judgement what, const std::string &key, std::int64_t size) {
    if (what == judgement::removed) {
      --report_.cached_files;
      report_.cached_bytes -= size;
    } else if (what == judgement::different) {
      name_daily(++report_.different, "is not what the store has, is no newer, and is kept", key);
    } else if (what == judgement::lost) {
      name_daily(++report_.not_in_store, "was stored, is not in the store any more, and is kept",
                 key);
    } else if (what == judgement::untold) {
      report_.is_whole = false;
    } else if (what == judgement::queued_again) {
      name(++queued_again_, "was neither queued nor in the store, and is queued again", key);
    }
  }

  // The first few by name; the rest would fill the log.
  static void name(std::int64_t count, const char *what, const std::string &key) {
    if (count <= named_at_most) {
      QX_LOG(FR_LOG_WARNING, "Cached file [%s] %s.", key.c_str(), what);
    }
  }

  // What has not changed need not be logged in each look.
  void name_daily(std::int64_t count, const char *what, const std::string &key) const {
    if (ask_all_) name(count, what, key);
  }

  void tell() const {
    if (queued_again_ > named_at_most) {
      QX_LOG(FR_LOG_WARNING, "Cached files that were queued again in this look: %lld.",
             static_cast<long long>(queued_again_));
    }
  }

  const keeper_parts &parts_;
  const keeper_settings &settings_;
  const bool ask_all_;
  const std::function<void()> &between_;
  const double now_ = qx_get_tstamp();
  keeper_report report_;
  std::int64_t queued_again_ = 0;
};

}  // namespace

std::optional<keeper_report> look_through(const keeper_parts &parts,
                                          const keeper_settings &settings, bool ask_all,
                                          const std::function<void()> &between) {
  return look(parts, settings, ask_all, between).run();
}
