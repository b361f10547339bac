// Owners for what C interfaces hand out: each releases what it holds on every path.
#ifndef PLATFORM_BASE_OWNER_H
#define PLATFORM_BASE_OWNER_H

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include <spoolcap/safestr.h>

// A deleter without state: the owner is no larger than the pointer, and null is never released.
template <auto Function>
struct call_to_release {
  template <class T>
  void operator()(T *pointer) const noexcept {
    Function(pointer);
  }
};

// What comes from malloc, as C callers expect it.
template <class T>
using c_memory = std::unique_ptr<T, call_to_release<std::free>>;
using c_string = c_memory<char>;

// Counted strings (safestr.h), which free() must not be given.
using safestr_owner = std::unique_ptr<char, call_to_release<safestr_free>>;

// The error of fclose is lost here: code that writes a file closes it by hand first.
using c_file = std::unique_ptr<FILE, call_to_release<std::fclose>>;

// A file descriptor; -1 holds nothing.
class unique_fd {
 public:
  unique_fd() noexcept = default;
  explicit unique_fd(int fd) noexcept : fd_(fd) {}
  // Moving leaves the other one empty.
  unique_fd(unique_fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  unique_fd &operator=(unique_fd &&other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
  }
  ~unique_fd() { reset(); }

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  // The descriptor is the caller's to close from then on.
  int release() noexcept { return std::exchange(fd_, -1); }
  // errno survives, so that the cause of a failure can be logged afterwards.
  void reset(int fd = -1) noexcept {
    if (fd_ >= 0) {
      const int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// A value that lasts to the very end of the process: other threads may use it while the process
// exits. Needs no memory of its own where a heap object would.
template <class T>
union never_destroyed {
  constexpr never_destroyed() noexcept : value() {}
  ~never_destroyed() {}
  T *operator->() noexcept { return &value; }
  T value;
};

// Runs the body of a function of the C face: no exception leaves it, `failure` is returned instead.
template <class Result, class Body>
Result no_throw(Result failure, Body &&body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    return failure;
  }
}

template <class Body>
void no_throw(Body &&body) noexcept {
  no_throw(0, [&body] {
    std::forward<Body>(body)();
    return 0;
  });
}

#endif
