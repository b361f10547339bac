// The node's id and its clock.
// The id is read anew on each call; nothing is kept.
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <spoolcap/zarn_str.h>
#include "common/paths.h"
#include "platform/base/owner.h"

char *get_nodeid(void) {
  const c_file file(std::fopen(qx_path(QX_PATH_NODE_ID), "re"));
  char line[1024];
  if (!file || std::fgets(line, sizeof line, file.get()) == nullptr) return nullptr;
  size_t length = std::strlen(line);
  // The line's end, and blanks that an editor left behind the id.
  while (length > 0 && static_cast<unsigned char>(line[length - 1]) <= 32) --length;
  return ::strndup(line, length);
}

int zarn_sleep(float seconds) {
  constexpr float longest = 1e9F;  // more does not fit every time_t
  if (!(seconds >= 0 && seconds <= longest)) {
    errno = EINVAL;
    return -1;
  }
  timespec left{};
  left.tv_sec = static_cast<time_t>(seconds);
  left.tv_nsec = static_cast<long>((seconds - static_cast<float>(left.tv_sec)) * 1000000000);
  // A signal leaves the rest in `left`, so the whole time is slept.
  while (::nanosleep(&left, &left) != 0) {
    if (errno != EINTR) return -1;
  }
  return 0;
}

double qx_get_tstamp(void) {
  timeval now{};
  ::gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1000000;
}
