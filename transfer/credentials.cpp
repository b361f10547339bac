// Reads the keys to the object stores, and refuses a file that others can read.
// Reads one file; its content goes only to the caller.
#include "transfer/credentials.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <optional>

#include "platform/base/owner.h"
#include "platform/base/view.h"

namespace {

// A file of keys has some hundred bytes; this keeps out what was named by mistake.
constexpr off_t largest_file = 1 << 20;

std::string read_whole(int fd, size_t size) {
  std::string text(size, '\0');
  size_t at = 0;
  while (at < size) {
    const ssize_t got = ::read(fd, &text[at], size - at);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    at += static_cast<size_t>(got);
  }
  text.resize(at);
  return text;
}

// "key = value" into its place; other keys mean nothing here.
void take(std::string_view line, s3_credentials &keys) {
  const size_t equals = line.find('=');
  if (equals == std::string_view::npos) return;
  const std::string_view name = trimmed(line.substr(0, equals));
  const std::string_view value = trimmed(line.substr(equals + 1));
  if (name == "aws_access_key_id") keys.access_key = value;
  if (name == "aws_secret_access_key") keys.secret_key = value;
  if (name == "aws_session_token") keys.session_token = value;
}

void parse(std::string_view text, credentials_reading &reading) {
  s3_credentials *section = nullptr;
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = trimmed(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    // A section that comes twice goes on where it was.
    if (line.front() == '[' && line.back() == ']') {
      section = &reading.keys[std::string(trimmed(line.substr(1, line.size() - 2)))];
    } else if (section != nullptr) {
      take(line, *section);
    }
  }
}

}  // namespace

credentials_reading read_credentials(const std::string &path) {
  credentials_reading reading;
  // A pipe must not make the service wait for whoever writes it.
  const unique_fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat facts {};
  if (!file || ::fstat(file.get(), &facts) != 0) {
    reading.error = path + ": " + std::strerror(errno);
  } else if (!S_ISREG(facts.st_mode) || facts.st_size > largest_file) {
    reading.error = path + ": is not a file of keys";
  } else if ((facts.st_mode & S_IRWXO) != 0) {
    // The group may read it: hosts and service share a group on many nodes.
    reading.error = path + ": others may open it; take their rights away (chmod o=)";
  } else {
    parse(read_whole(file.get(), static_cast<size_t>(facts.st_size)), reading);
  }
  return reading;
}
