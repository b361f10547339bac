// Reading a text file line by line.
#ifndef PLATFORM_BASE_LINE_READER_H
#define PLATFORM_BASE_LINE_READER_H

#include <cerrno>
#include <cstdio>
#include <new>
#include <optional>
#include <string_view>

#include "platform/base/owner.h"

// Used by one thread. The file is closed with the reader. Lines may have any length and hold NUL
// bytes.
class line_reader {
 public:
  // Opens the file; errno has the reason when the reader is false after that.
  explicit line_reader(const char *path) noexcept : file_(std::fopen(path, "re")) {}
  explicit operator bool() const noexcept { return file_ != nullptr; }

  // The next line with its line end, borrowed until the next call, with a NUL byte behind it.
  // Throws std::bad_alloc for a line that there is no memory for.
  std::optional<std::string_view> next() {
    char *buffer = line_.release();
    const ssize_t length = ::getline(&buffer, &capacity_, file_.get());
    line_.reset(buffer);
    if (length < 0 && failed() && errno == ENOMEM) throw std::bad_alloc();
    if (length < 0) return std::nullopt;
    return std::string_view(buffer, static_cast<size_t>(length));
  }

  // After next() returned nothing: true if it stopped on a read error instead of end of file.
  bool failed() const noexcept { return std::feof(file_.get()) == 0; }

 private:
  c_file file_;
  c_string line_;
  size_t capacity_ = 0;
};

#endif
