// The walk over media directories, whose names and links are their owners' affair.
// Reads the disk and changes nothing; keeps nothing of what it has passed.
#include "main/quota/measure.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include <spoolcap/quota.h>
#include "main/quota/directory_entries.h"
#include "platform/base/diagnostics.h"
#include "platform/base/errors.h"
#include "platform/base/owner.h"

namespace {

constexpr size_t open_levels = 32;      // of the current path, counted from its deep end
constexpr int most_linked = 100'000;    // directories of one walk with a link on the way
constexpr size_t most_levels = 20'000;  // renames may make a path longer while it is walked

// A directory by what it is, as one directory can have many names.
struct identity {
  dev_t device;
  ino_t inode;
  bool operator==(const identity &) const = default;
};

std::optional<identity> identity_of(int directory) {
  struct stat status {};
  if (::fstat(directory, &status) != 0) return {};
  return identity{status.st_dev, status.st_ino};
}

// A directory of the current path. It was read as a whole; what is left are its subdirectories,
// whose names lie in the arena from `first` to where the next level's begin.
struct level {
  unique_fd directory;  // empty once it was closed
  size_t first;
  size_t current;  // the subdirectory that the path goes on with
  size_t next;     // the one after it
  bool by_link;
  std::optional<identity> id;  // not taken before it is needed
};

// One walk. The levels of the current path form a stack, and so do their names; nothing of it lives
// on the call stack, so depth costs some bytes of heap only.
//
// Descriptors are few: a level is closed as soon as its last subdirectory is open, and only the
// deepest ones of those with more to enter stay open. A level that was closed too early is found
// again by going down the path by its names.
class tree_walk {
 public:
  tree_walk(const char *path, bool recurse) : path_(path), recurse_(recurse) {}

  disk_usage run() {
    unique_fd root = open_directory(AT_FDCWD, path_, true);
    if (!root) {
      note_failure();
      return found_;
    }
    found_.is_opened = true;
    enter(std::move(root), false, {});
    while (!levels_.empty()) step();
    return found_;
  }

 private:
  void note_failure() { note_failed_call(found_); }

  // Names by their offset: the arena moves in memory when it grows.
  const char *name_at(size_t entry) const { return arena_.data() + entry; }
  size_t names_end(size_t index) const {
    return index + 1 < levels_.size() ? levels_[index + 1].first : arena_.size();
  }

  // Counts a directory's files and, when there are subdirectories to enter, makes it a level.
  void enter(unique_fd directory, bool by_link, std::optional<identity> id) {
    const size_t first = arena_.size();
    entries_.read(directory.get(), recurse_, found_, arena_);
    if (arena_.size() == first) return;
    levels_.push_back({std::move(directory), first, first, first, by_link, id});
    if (by_link) ++links_;
    if (levels_.size() > open_levels) close_level(levels_[levels_.size() - 1 - open_levels]);
  }

  // Goes on with the next subdirectory of the deepest level, or leaves the level after its last.
  void step() {
    level &top = levels_.back();
    const bool is_done = top.next == arena_.size();
    if (is_done || (!top.directory && !retrace(levels_.size() - 1))) {
      // Whatever became of its name: what was left to enter is not measured.
      if (!is_done) found_.is_all = false;
      leave();
      return;
    }
    top.current = top.next;
    const char *name = name_at(top.current);
    top.next = top.current + std::strlen(name) + 1;

    // First without following: most are plain folders, and a link has to be known as one.
    unique_fd directory = open_directory(top.directory.get(), name, false);
    const bool by_link = !directory && (errno == ENOTDIR || errno == ELOOP);
    const bool is_linked = by_link || links_ > 0;
    if ((is_linked && !may_enter_linked()) || levels_.size() >= most_levels) {
      found_.is_all = false;
      return;
    }
    if (by_link) directory = open_directory(top.directory.get(), name, true);
    if (!directory) {
      note_failure();
      return;
    }
    // Only a link leads back up: without one on the path, identities are not needed.
    std::optional<identity> id;
    if (is_linked) {
      id = identity_of(directory.get());
      if (!id || !identify_path()) {
        note_failure();
        return;
      }
      // A circle: it was counted when it was entered the first time.
      if (is_on_path(*id)) return;
      ++entered_by_link_;
    }
    // Nothing more is opened from it, so its descriptor is free for deeper levels.
    if (top.next == arena_.size()) top.directory.reset();
    enter(std::move(directory), by_link, id);
  }

  // Below the bound every link is followed, so that a directory that is linked twice counts twice.
  bool may_enter_linked() {
    if (entered_by_link_ < most_linked) return true;
    if (entered_by_link_ == most_linked) {
      ++entered_by_link_;
      QX_LOG(FR_LOG_WARNING,
             "%s:%d:%s: more than %d folders are entered through links, the rest is not measured\n",
             QX_LOG_SOURCE, __LINE__, path_, most_linked);
    }
    return false;
  }

  void leave() {
    arena_.resize(levels_.back().first);
    if (levels_.back().by_link) --links_;
    levels_.pop_back();
    identified_ = std::min(identified_, levels_.size());
  }

  unique_fd open_directory(int at, const char *name, bool follow) {
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY | (follow ? 0 : O_NOFOLLOW);
    for (;;) {
      unique_fd directory(retry_interrupted([&] { return ::openat(at, name, flags); }));
      // Out of descriptors: gives up one of its own and tries again.
      if (directory || (errno != EMFILE && errno != ENFILE) || !close_shallowest(at)) {
        return directory;
      }
    }
  }

  // Closes a level that must be reopened by path. Remembers its identity first, so that a replaced
  // directory is noticed.
  static void close_level(level &closed) {
    if (!closed.directory) return;
    if (!closed.id) closed.id = identity_of(closed.directory.get());
    closed.directory.reset();
  }

  bool close_shallowest(int except) {
    for (level &candidate : levels_) {
      if (!candidate.directory || candidate.directory.get() == except) continue;
      close_level(candidate);
      return true;
    }
    return false;
  }

  // Goes down the current path by its names, from the nearest open directory above level `first`
  // to the deepest level. Learns or checks the identity of each, and reopens those that have more
  // to enter. False when the path has changed.
  bool retrace(size_t first) {
    size_t index = first;
    while (index > 0 && !levels_[index - 1].directory) --index;
    unique_fd passing;
    int at = index > 0 ? levels_[index - 1].directory.get() : AT_FDCWD;
    for (; index < levels_.size(); ++index) {
      level &here = levels_[index];
      if (!here.directory) {
        passing = index > 0 ? open_directory(at, name_at(levels_[index - 1].current), here.by_link)
                            : open_directory(AT_FDCWD, path_, true);
        if (!passing) return false;
        at = passing.get();
      } else {
        passing.reset();
        at = here.directory.get();
      }
      if (!here.id || passing) {
        const std::optional<identity> found = identity_of(at);
        if (!found) return false;
        if (here.id && *here.id != *found) {
          errno = ESTALE;  // another directory has its name now
          return false;
        }
        here.id = found;
      }
      const bool deep = index + open_levels >= levels_.size();
      if (passing && deep && here.next < names_end(index)) here.directory.reset(passing.release());
    }
    return true;
  }

  bool identify_path() {
    while (identified_ < levels_.size() && levels_[identified_].id) ++identified_;
    if (identified_ < levels_.size() && retrace(identified_)) identified_ = levels_.size();
    return identified_ == levels_.size();
  }

  bool is_on_path(const identity &id) const {
    return std::any_of(levels_.begin(), levels_.end(),
                       [&](const level &other) { return other.id == id; });
  }

  const char *path_;
  bool recurse_;
  disk_usage found_;
  directory_entries entries_;
  std::vector<char> arena_;
  std::vector<level> levels_;
  size_t links_ = 0;         // levels of the path that were entered through a link
  int entered_by_link_ = 0;  // in all; one more than the bound once some were not
  size_t identified_ = 0;    // levels from the top whose identity is known
};

}  // namespace

disk_usage measure_directory(const char *path, bool recurse) {
  return tree_walk(path, recurse).run();
}

int compute_quota(const char *path, int64_t *total, int recurse) {
  if (path == nullptr) return -1;
  const disk_usage found = measure_directory(path, recurse != 0);
  if (!found.is_opened) return -1;
  // Added without a sign: a sum beyond the range wraps instead of being undefined.
  *total = static_cast<int64_t>(static_cast<uint64_t>(*total) + found.bytes);
  return 0;
}

int compute_quota_dir(char **path, int64_t *total, int recurse) {
  return compute_quota(*path, total, recurse);
}

int64_t quota_get_dirsize(const char *path) {
  return no_throw<int64_t>(-1, [&] {
    // The count starts one short: callers add the one.
    int64_t total = -1;
    compute_quota(path, &total, 1);
    return total;
  });
}
