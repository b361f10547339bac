#include <cinttypes>
#include <cstring>

#include "quota/store.h"

namespace {

constexpr size_t record_size = 32;  // with its terminator

bool write_at(int fd, const char *bytes, size_t length, off_t offset) {
  while (length > 0) {
    const ssize_t count = ::pwrite(fd, bytes, length, offset);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes += count;
    length -= static_cast<size_t>(count);
    offset += count;
  }
  return true;
}

// Over the old record, then cut: at every moment the file begins with a whole value and its ".", so
// that a reader without the lock never finds nothing. What stands behind them until the cut is left
// from the old record and can at worst be taken for another revision. (Emptying the file first
// would show it empty, and costs many times as much where truncation waits for the journal.)
bool replace_record(int fd, const char *record, size_t length) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) return false;
  const auto old_length = static_cast<size_t>(status.st_size);
  // A write beyond the end shows its first bytes, cut at the old length, before the file grows. So
  // a short record first grows by bytes that change nothing in how it reads.
  static constexpr char filler[] = "...............................";
  if (old_length > 0 && old_length < length &&
      !write_at(fd, filler, length - old_length, status.st_size)) {
    return false;
  }
  if (!write_at(fd, record, length, 0)) return false;
  return old_length <= length || ::ftruncate(fd, static_cast<off_t>(length)) == 0;
}

}  // namespace

unique_fd open_quota_file(const char *path, int at, bool *created) {
  unique_fd file(::openat(at, path, O_RDWR | O_CLOEXEC));
  if (file || errno != ENOENT) return file;

  // Exactly one of several processes creates it; the others find it there.
  file.reset(::openat(at, path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, quota_file_mode));
  if (!file) {
    if (errno == EEXIST) file.reset(::openat(at, path, O_RDWR | O_CLOEXEC));
    return file;
  }
  if (created != nullptr) *created = true;
  give_to_owner(file.get());
  return file;
}

int quota_read_internal(int fd, int64_t *value, int *revision) {
  if (value == nullptr) return -1;
  char record[record_size];
  size_t length = 0;
  while (length < sizeof record - 1) {
    const ssize_t count = ::read(fd, record + length, sizeof record - 1 - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    if (count == 0) break;
    length += static_cast<size_t>(count);
  }
  record[length] = '\0';
  char *dot = std::strchr(record, '.');
  if (dot == nullptr) return -1;
  *dot = '\0';
  *value = std::atoll(record);
  if (revision != nullptr) *revision = std::atoi(dot + 1);
  return 0;
}

int quota_write_internal(int fd, int64_t value, int revision) {
  char record[record_size];
  const int length = std::snprintf(record, sizeof record, "%" PRId64 ".%d", value, revision);
  const bool fits = length > 0 && static_cast<size_t>(length) < sizeof record;
  if (fits && replace_record(fd, record, static_cast<size_t>(length))) return 0;
  // An old value that looks right would never be computed again; an empty file is.
  [[maybe_unused]] const int emptied = ::ftruncate(fd, 0);
  return -1;
}
