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

// "1 <length> <etag>". Another version is no receipt, so the store is asked.
constexpr std::string_view version = "1 ";
constexpr size_t longest = 256;

}  // namespace

std::optional<receipt> read_receipt(int fd) {
  char bytes[longest];
  const ssize_t length = ::fgetxattr(fd, receipt_attribute, bytes, sizeof bytes);
  struct stat facts {};
  if (length <= 0 || ::fstat(fd, &facts) != 0) return std::nullopt;
  std::string_view text(bytes, static_cast<size_t>(length));
  if (!text.starts_with(version)) return std::nullopt;
  text.remove_prefix(version.size());
  receipt found;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), found.length);
  if (error != std::errc() || end == text.data() + text.size() || *end != ' ') return std::nullopt;
  found.etag = text.substr(static_cast<size_t>(end + 1 - text.data()));
  // A file that grew or shrank since is not the one that was stored.
  if (found.etag.empty() || found.length != facts.st_size) return std::nullopt;
  return found;
}

int write_receipt(int fd, const receipt &what) {
  const std::string text = std::string(version) + std::to_string(what.length) + " " + what.etag;
  if (text.size() > longest) return EINVAL;
  return ::fsetxattr(fd, receipt_attribute, text.data(), text.size(), 0) == 0 ? 0 : errno;
}
