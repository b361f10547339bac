// What a failed system call says about the thing that it was made for.
#ifndef PLATFORM_BASE_ERRORS_H
#define PLATFORM_BASE_ERRORS_H

#include <cerrno>

// Whether the error says that there is nothing, or nothing that this process may see. Any other
// error (a bad disk, no descriptors or memory left) leaves open what is there.
constexpr bool means_nothing_there(int error) {
  switch (error) {
    case ENOENT:
    case ENOTDIR:
    case ELOOP:
    case ENAMETOOLONG:
    case EACCES:
    case EPERM:
      return true;
    default:
      return false;
  }
}

// Makes a system call again while signals interrupt it, a limited number of times.
template <class Call>
auto retry_interrupted(Call call) {
  auto result = call();
  for (int times = 0; result < 0 && errno == EINTR && times < 100; ++times) result = call();
  return result;
}

#endif
