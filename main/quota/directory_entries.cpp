// The entries of a directory by the system call: readdir would need a buffer for each level.
// Reads the disk and changes nothing.
#include "main/quota/directory_entries.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstring>

#include "platform/base/errors.h"
#include "platform/base/owner.h"

namespace {

constexpr size_t buffer_size = 256 * 1024;

bool is_dot_or_dot_dot(const char *name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

void add_name(const char *name, std::vector<char> &names) {
  names.insert(names.end(), name, name + std::strlen(name) + 1);
}

}  // namespace

void note_failed_call(disk_usage &found) {
  if (!means_nothing_there(errno)) found.is_all = false;
}

void directory_entries::read(int directory, bool recurse, disk_usage &found,
                             std::vector<char> &names) {
  const auto take_folder = [&](const char *name) {
    if (recurse && !is_dot_or_dot_dot(name)) add_name(name, names);
  };
  const auto take_by_status = [&](const char *name) {
    struct stat status;
    if (::fstatat(directory, name, &status, 0) != 0) {  // vanished, or a link to nowhere
      note_failed_call(found);
    } else if (S_ISREG(status.st_mode)) {
      found.bytes += static_cast<uint64_t>(status.st_size);
    } else if (S_ISDIR(status.st_mode)) {
      take_folder(name);
    }
  };
  if (!buffer_) buffer_ = std::make_unique_for_overwrite<char[]>(buffer_size);
  ssize_t length = 0;
  while ((length = retry_interrupted(
              [&] { return ::getdents64(directory, buffer_.get(), buffer_size); })) > 0) {
    for (ssize_t at = 0; at < length;) {
      const auto *entry = reinterpret_cast<const dirent64 *>(buffer_.get() + at);
      at += entry->d_reclen;
      switch (entry->d_type) {
        case DT_REG:
        case DT_LNK:
        // Some file systems tell no type.
        case DT_UNKNOWN:
          take_by_status(entry->d_name);
          break;
        case DT_DIR:
          take_folder(entry->d_name);
          break;
        default:  // fifos, sockets and devices hold nothing that counts
          break;
      }
    }
  }
  if (length < 0) note_failed_call(found);
}
