// Sets the process up: limits, signals, memory.
// On the main thread, before any other one is started.
#include "transfer/process.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include <spoolcap/log.h>
#include "platform/base/owner.h"
#include "platform/base/utf8.h"

namespace {

// For sockets, cached files, and the targets of hosts' downloads.
constexpr rlim_t wanted_descriptors = 8192;

// Whether standard error is the stream that systemd says it is.
bool is_journal_stream() {
  const char *const stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (stream == nullptr || ::fstat(STDERR_FILENO, &status) != 0) return false;
  return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

// One line, whatever the names in it: keys and members come from others.
void write_line(const char *head, const char *text) {
  no_throw([&] { std::fprintf(stderr, "%s%s\n", head, without_controls(text).c_str()); });
}

// The number in front is the priority, which the journal takes off. Debug messages of the library
// are dropped in both.
void write_for_journal(const fr_log_record *record, void * /*context*/) {
  if (record->priority > FR_LOG_NOTICE) return;
  write_line(("<" + std::to_string(record->priority) + ">").c_str(), record->text);
}

void write_with_time(const fr_log_record *record, void * /*context*/) {
  if (record->priority > FR_LOG_NOTICE) return;
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  char time[32] = "";
  if (::localtime_r(&now, &local) != nullptr) std::strftime(time, sizeof time, "%F %T ", &local);
  write_line(time, record->text);
}

void raise_descriptor_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wanted_descriptors) return;
  limit.rlim_cur = std::min(limit.rlim_max, wanted_descriptors);
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

// The sanitizers' frames need more than these.
void bound_stacks() {
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
  pthread_attr_t attributes;
  if (::pthread_attr_init(&attributes) != 0) return;
  if (::pthread_attr_setstacksize(&attributes, 256 << 10) == 0) {
    ::pthread_setattr_default_np(&attributes);
  }
  ::pthread_attr_destroy(&attributes);
#endif
}

}  // namespace

void log_to_standard_error() {
  fr_log_set_sink(is_journal_stream() ? write_for_journal : write_with_time, nullptr);
}

void set_up_process() {
  // The group shares files with the hosts; others get nothing.
  ::umask(0007);
  const rlimit none{0, 0};
  ::setrlimit(RLIMIT_CORE, &none);
  raise_descriptor_limit();
  // Some forty threads with an arena each would keep much more memory than they use.
  ::mallopt(M_ARENA_MAX, 2);
  bound_stacks();
}

signal_watch::signal_watch() {
  std::signal(SIGPIPE, SIG_IGN);
  // Sent when a process opens a leased file; the lease is given back anyhow.
  std::signal(SIGIO, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);  // a limit of the size of files is an error of the write
  sigset_t watched;
  ::sigemptyset(&watched);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) ::sigaddset(&watched, signal);
  // Threads inherit the mask, so this comes before the first of them.
  ::pthread_sigmask(SIG_BLOCK, &watched, nullptr);
  signals_.reset(::signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK));
}

process_event signal_watch::wait(std::chrono::milliseconds limit) {
  pollfd entry{signals_.get(), POLLIN, 0};
  if (::poll(&entry, 1, static_cast<int>(limit.count())) <= 0) return process_event::time_passed;
  signalfd_siginfo signal{};
  if (::read(signals_.get(), &signal, sizeof signal) != sizeof signal) {
    return process_event::time_passed;
  }
  return signal.ssi_signo == SIGHUP ? process_event::reload : process_event::stop;
}
