// Reads and writes records; knows nothing of accounts.
// The form of a record and how it is replaced; opening is the folder's affair.
#include "main/quota/record.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

namespace {

constexpr size_t record_size = 32;  // with its terminator
constexpr size_t longest_record = record_size - 1;
// Stands behind a record where the file is longer for a moment. It changes nothing in how the
// record reads.
constexpr char filler = '.';

bool write_at(int fd, const char *bytes, size_t length, size_t offset) {
  while (length > 0) {
    const ssize_t count = ::pwrite(fd, bytes, length, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes += count;
    length -= static_cast<size_t>(count);
    offset += static_cast<size_t>(count);
  }
  return true;
}

bool cut(int fd, size_t length) {
  int status = 0;
  do {
    status = ::ftruncate(fd, static_cast<off_t>(length));
  } while (status != 0 && errno == EINTR);
  return status == 0;
}

// Bytes from the file's position on, up to `wanted` or as many as a record may have, less where the
// file ends.
std::optional<size_t> read_bytes(int fd, char *bytes, size_t wanted) {
  size_t length = 0;
  while (length < wanted && length < longest_record) {
    const ssize_t count = ::read(fd, bytes + length, longest_record - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) break;
    length += static_cast<size_t>(count);
  }
  bytes[length] = '\0';
  return length;
}

// Lenient as it always was: text that is no number counts as 0, but a dot must be there.
std::optional<quota_record> parse(char *text) {
  char *dot = std::strchr(text, '.');
  if (dot == nullptr) return std::nullopt;
  const std::string_view rest(dot + 1);
  quota_record record{0, std::atoi(dot + 1), !rest.ends_with(filler)};
  *dot = '\0';
  record.value = std::atoll(text);
  return record;
}

bool holds_dot(int fd) {
  char bytes[longest_record];
  const ssize_t count = ::pread(fd, bytes, sizeof bytes, 0);
  return count > 0 && std::memchr(bytes, '.', static_cast<size_t>(count)) != nullptr;
}

// Writes over the old record in one call and then cuts the file, so that it is never empty or half
// written. (Emptying it first costs many times as much if that waits for the journal.) Where the
// lengths differ, filler covers what is neither old nor new. A process killed here leaves a record
// that reads right and shows that it was not finished.
bool replace_record(int fd, const char *record, size_t length, size_t old_length) {
  char bytes[record_size];
  std::memset(bytes, filler, sizeof bytes);
  if (old_length > 0 && old_length < length) {
    // A number without a dot must never become a record by the dots that are put behind it.
    const bool extended =
        holds_dot(fd) ? write_at(fd, bytes, length - old_length, old_length) : cut(fd, 0);
    if (!extended) return false;
  }
  std::memcpy(bytes, record, length);
  // One write of the longer of both lengths: what the new record does not fill gets filler.
  if (!write_at(fd, bytes, std::clamp(old_length, length, longest_record), 0)) return false;
  return old_length <= length || cut(fd, length);
}

}  // namespace

int quota_read_internal(int fd, int64_t *value, int *revision) {
  char bytes[record_size];
  if (value == nullptr || !read_bytes(fd, bytes, longest_record)) return -1;
  const std::optional<quota_record> record = parse(bytes);
  if (!record) return -1;
  *value = record->value;
  if (revision != nullptr) *revision = record->revision;
  return 0;
}

int quota_write_internal(int fd, int64_t value, int revision, off_t size) {
  char record[record_size];
  // The value takes 20 bytes and the revision 11 at most, so the dot and both fit.
  char *const dot = std::to_chars(record, record + longest_record, value).ptr;
  *dot = '.';
  const auto end = std::to_chars(dot + 1, record + record_size, revision);
  const auto length = static_cast<size_t>(end.ptr - record);
  const bool fits = end.ec == std::errc{} && length < record_size;
  struct stat status {};
  if (size < 0 && ::fstat(fd, &status) == 0) size = status.st_size;
  if (fits && size >= 0 && replace_record(fd, record, length, static_cast<size_t>(size))) {
    return 0;
  }
  // An old value that looks right would never be computed again; an empty file is.
  cut(fd, 0);
  return -1;
}

std::optional<quota_record> record_of(const quota_file &file) {
  char bytes[record_size];
  // The size is known: no second read has to find the end.
  if (!read_bytes(file.fd.get(), bytes, static_cast<size_t>(file.size))) return std::nullopt;
  return parse(bytes);
}

int is_rev_inrange(const quota_folder &folder, const char *file, int64_t *value) {
  const quota_file opened = folder.open_to_read(file, true);
  const std::optional<quota_record> record = opened ? record_of(opened) : std::nullopt;
  if (!record) return 0;
  *value = record->value;
  const bool fresh = record->revision >= 0 && record->revision <= highest_fresh_revision;
  return fresh && record->is_whole ? 1 : 0;
}

int quota_real_update(const quota_folder &folder, const char *file, int64_t value, int revision,
                      bool *written) {
  quota_file opened = folder.open_to_write(file);
  if (!opened) return -1;
  // Where locks cannot be had at all, a value written without one is better than none. A write that
  // failed leaves an empty file, which is computed again. The lock goes with the descriptor.
  wait_for_lock(opened);
  const int status = quota_write_internal(opened.fd.get(), value, revision, opened.size);
  if (written != nullptr) *written = status == 0;
  return 0;
}

void expire_quota_file(const quota_folder &folder, const char *file) {
  int64_t value = 0;
  // A file that is missing, or due anyway, needs neither lock nor write.
  if (is_rev_inrange(folder, file, &value) == 0) return;
  quota_file opened = folder.open_to_write(file);
  if (!opened || !wait_for_lock(opened)) return;
  const std::optional<quota_record> record = record_of(opened);
  if (!record) return;
  quota_write_internal(opened.fd.get(), record->value, expired_revision, opened.size);
}
