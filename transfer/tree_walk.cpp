// Walks the files of a folder in bounded memory.
// On the keeper's thread; removes empty folders, and nothing else by itself.
#include "transfer/tree_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "platform/base/owner.h"

namespace {

using open_folder = std::unique_ptr<DIR, call_to_release<::closedir>>;

// Keys have four levels; what lies deeper is no file of a host.
constexpr int deepest = 16;

// A link in place of a folder is not followed: it may lead anywhere.
open_folder open_below(int parent, const char *name) {
  unique_fd fd(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  open_folder folder(fd ? ::fdopendir(fd.get()) : nullptr);
  if (folder) fd.release();
  return folder;
}

bool is_dot(std::string_view name) {
  return name == "." || name == "..";
}

class walk {
 public:
  explicit walk(const walk_options &options) : options_(options) {}

  // False when it was ended.
  bool folder(DIR *open, std::string &key, int depth) {
    // Names are relative to it, so a folder that is renamed meanwhile does no harm.
    const int fd = ::dirfd(open);
    const std::size_t length = key.size();
    while (const dirent *entry = ::readdir(open)) {
      if (is_dot(entry->d_name)) continue;
      const std::string name = entry->d_name;
      key += name;
      const bool go_on =
          is_folder(fd, *entry) ? subfolder(fd, name, key, depth) : file(fd, name, key);
      // One text for the whole walk; each level takes its part away again.
      key.resize(length);
      if (!go_on) return false;
    }
    return true;
  }

 private:
  static bool is_folder(int parent, const dirent &entry) {
    if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
    struct stat status {};
    return ::fstatat(parent, entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISDIR(status.st_mode);
  }

  bool file(int parent, const std::string &name, const std::string &key) {
    return options_.visit({.folder = parent, .name = name, .key = key});
  }

  bool subfolder(int parent, const std::string &name, std::string &key, int depth) {
    if (depth >= deepest) return true;
    {
      const open_folder open = open_below(parent, name.c_str());
      // A folder that vanished or is closed to us does not end the walk.
      if (!open) return true;
      key += '/';
      if (!folder(open.get(), key, depth + 1)) return false;
    }
    remove_if_left(parent, name.c_str());
    return true;
  }

  // A host that finds the folder gone makes it again, once. It is never gone twice: removing a
  // folder renews the time of the one above, so each look removes one level.
  void remove_if_left(int parent, const char *name) const {
    struct stat status {};
    if (::fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (static_cast<double>(status.st_mtim.tv_sec) < options_.remove_empty_before) {
      ::unlinkat(parent, name, AT_REMOVEDIR);
    }
  }

  const walk_options &options_;
};

}  // namespace

bool walk_tree(const std::string &root, const walk_options &options) {
  const open_folder open = open_below(AT_FDCWD, root.c_str());
  if (!open) return false;
  std::string key;
  return walk(options).folder(open.get(), key, 0);
}
