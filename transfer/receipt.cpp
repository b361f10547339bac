// Reads and writes receipts.
// An attribute of the file that the caller has open.
#include "transfer/receipt.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <charconv>
#include <string_view>

#include "main/storage/files.h"

namespace {

constexpr std::string_view committed_word = "1 ", fetched_word = "2 ";
constexpr size_t longest = 256;

}  // namespace

std::optional<receipt> read_receipt(int fd) {
  char bytes[longest];
  const ssize_t length = ::fgetxattr(fd, receipt_attribute, bytes, sizeof bytes);
  struct stat facts {};
  if (length <= 0 || ::fstat(fd, &facts) != 0) return std::nullopt;
  std::string_view text(bytes, static_cast<size_t>(length));
  receipt found;
  found.is_fetched = text.starts_with(fetched_word);
  if (!found.is_fetched && !text.starts_with(committed_word)) return std::nullopt;
  text.remove_prefix(fetched_word.size());
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), found.length);
  if (error != std::errc() || end == text.data() + text.size() || *end != ' ') return std::nullopt;
  found.etag = text.substr(static_cast<size_t>(end + 1 - text.data()));
  // A file that grew or shrank since is not the one that was stored.
  if (found.etag.empty() || found.length != facts.st_size) return std::nullopt;
  return found;
}

bool can_have_receipt(int fd) {
  return ::fgetxattr(fd, receipt_attribute, nullptr, 0) >= 0 || errno != ENOTSUP;
}

int write_receipt(int fd, const receipt &what) {
  const std::string text = std::string(what.is_fetched ? fetched_word : committed_word) +
                           std::to_string(what.length) + " " + what.etag;
  if (text.size() > longest) return EINVAL;
  return ::fsetxattr(fd, receipt_attribute, text.data(), text.size(), 0) == 0 ? 0 : errno;
}
