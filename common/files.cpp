// Writes that survive signals, and checks of paths and names.
// The C face of `utils.h`: most of it is for programs outside of this tree.
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include <spoolcap/utils.h>
#include "platform/base/owner.h"
#include "platform/base/view.h"

namespace {

// Counted, so that a NUL byte inside a name does not end it.
std::string_view view_of(const char *safestr) noexcept {
  return safestr == nullptr ? std::string_view()
                            : std::string_view(safestr, safestr_length(safestr));
}

// What follows the last dot; empty for no extension.
std::string_view extension_of(std::string_view name) noexcept {
  const size_t dot = name.rfind('.');
  name.remove_prefix(dot == name.npos ? name.size() : dot + 1);
  return name;
}

bool same_ignoring_case(std::string_view left, std::string_view right) noexcept {
  return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                    [](char a, char b) { return ascii_lower(a) == ascii_lower(b); });
}

}  // namespace

// Fewer bytes than asked for only when the system takes none at all.
int write_safe(int fd, const void *buffer, int length) {
  const auto *bytes = static_cast<const char *>(buffer);
  int total = 0;
  while (total < length) {
    const ssize_t written = ::write(fd, bytes + total, static_cast<size_t>(length - total));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return -1;
    if (written == 0) break;
    total += static_cast<int>(written);
  }
  return total;
}

// It writes, despite its name: callers rely on that.
int read_safe(int fd, const void *buffer, int length) {
  return write_safe(fd, buffer, length);
}

int check_subdir_of(const char *path, const char *directory) {
  // realpath takes NULL for an error of its own.
  const c_string inner(::realpath(path, nullptr));
  const c_string outer(::realpath(directory, nullptr));
  if (!inner || !outer) return 0;
  // A plain comparison, as callers know it: longer-named siblings of the directory count as inside.
  return std::string_view(inner.get()).starts_with(outer.get()) ? 1 : 0;
}

safestr_t pad(int number, int width) {
  if (number < 0 || width <= 0) return nullptr;
  return no_throw<safestr_t>(nullptr, [&] {
    std::string digits = std::to_string(number);
    const auto wanted = static_cast<size_t>(width);
    if (digits.size() < wanted) digits.insert(0, wanted - digits.size(), '0');
    return safestr_create(digits.data(), digits.size());
  });
}

safestr_t get_extension(const char *name) {
  const std::string_view extension = extension_of(view_of(name));
  return extension.empty() ? nullptr : safestr_create(extension.data(), extension.size());
}

int validate_file_ext(const char *name, const char *const *extensions, int case_sensitive) {
  const std::string_view extension = extension_of(view_of(name));
  if (extension.empty() || extensions == nullptr) return 0;
  for (; *extensions != nullptr; ++extensions) {
    if (case_sensitive != 0 ? extension == *extensions
                            : same_ignoring_case(extension, *extensions)) {
      return 1;
    }
  }
  return 0;
}

int validate_alnum(const char *text, int length) {
  if (text == nullptr) return 0;
  const std::string_view bytes = view_of(text);
  if (length > 0 && bytes.size() != static_cast<size_t>(length)) return 0;
  return std::all_of(bytes.begin(), bytes.end(),
                     [](char byte) {
                       return byte == '_' || std::isalnum(static_cast<unsigned char>(byte)) != 0;
                     })
             ? 1
             : 0;
}

void free_pw_nam(struct passwd *entry) {
  if (entry == nullptr) return;
  for (char *text :
       {entry->pw_name, entry->pw_passwd, entry->pw_gecos, entry->pw_dir, entry->pw_shell}) {
    std::free(text);
  }
  std::free(entry);
}

void free_gr_nam(struct group *entry) {
  if (entry == nullptr) return;
  std::free(entry->gr_name);
  std::free(entry->gr_passwd);
  for (char **member = entry->gr_mem; member != nullptr && *member != nullptr; ++member) {
    std::free(*member);
  }
  std::free(entry->gr_mem);
  std::free(entry);
}

// The caller frees it.
char *get_version_string(void) {
  return ::strdup("spoolcap " SPOOLCAP_VERSION);
}
