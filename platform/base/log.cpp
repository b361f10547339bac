// Hands log messages to syslog, or to the sink of the host.
// Called from any thread, also in the middle of a failure: it changes no errno.
#include <spoolcap/log.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <shared_mutex>

#include "platform/base/owner.h"
#include "platform/base/text.h"

namespace {

// Null means syslog.
struct sink_setting {
  fr_log_sink sink = nullptr;
  void *context = nullptr;
};

struct process_log {
  // Guards `current`. Held shared while a sink runs, so that a sink is never called after it was
  // replaced.
  std::shared_mutex sink_lock;
  sink_setting current;

  // One thread probes while others wait for its answer. Release and acquire of `probed_at` make the
  // answer visible together with its time.
  std::mutex probing;
  std::atomic<int64_t> probed_at{-1};
  std::atomic<bool> is_reachable{false};

  std::once_flag opened;
};

// Threads may log while the process exits.
constinit never_destroyed<process_log> process;

// Asks as the C library's syslog does: first by datagrams, then by a stream. Never blocks, so that
// a daemon that hangs cannot hold up the thread that logs.
bool connects(int socket_type) {
  const unique_fd probe(::socket(AF_UNIX, socket_type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  return ::connect(probe.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

// The coarse clock needs no system call, and this runs for each message.
int64_t coarse_seconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec;
}

// Whether a syslog daemon listens, looked up at most once a second.
bool syslog_reachable() {
  process_log &own = process.value;
  const int64_t now = coarse_seconds();
  if (own.probed_at.load(std::memory_order_acquire) != now) {
    const std::lock_guard lock(own.probing);
    if (own.probed_at.load(std::memory_order_relaxed) != now) {
      own.is_reachable.store(connects(SOCK_DGRAM) || connects(SOCK_STREAM),
                             std::memory_order_relaxed);
      own.probed_at.store(now, std::memory_order_release);
    }
  }
  return own.is_reachable.load(std::memory_order_relaxed);
}

// The name is not copied by openlog; this one lives as long as the process.
void open_syslog() {
  std::call_once(process->opened,
                 [] { ::openlog(program_invocation_short_name, LOG_PID, LOG_USER); });
}

// Messages end with a newline by custom, and syslog sets its own line ends.
__attribute__((format(printf, 1, 0))) c_string format_message(const char *format, va_list args) {
  c_string text = vformat_text(format, args);
  if (!text) return nullptr;
  size_t length = std::strlen(text.get());
  while (length > 0 && text.get()[length - 1] == '\n') text.get()[--length] = '\0';
  return text;
}

void log_message(fr_log_record record, const char *format, va_list args) {
  const std::shared_lock lock(process->sink_lock);
  const auto [sink, context] = process->current;
  // Without a listener, as in a container, a message is not even formatted.
  if (sink == nullptr && !syslog_reachable()) return;
  const c_string text = format_message(format, args);
  if (!text) return;
  record.text = text.get();
  if (sink != nullptr) {
    sink(&record, context);
  } else {
    open_syslog();
    ::syslog(record.priority, "%s", record.text);
  }
}

}  // namespace

void fr_log_impl(const char *file, int line, const char *function, int channel, int priority,
                 const char *format, ...) {
  // Callers log in the middle of handling a failure and look at errno afterwards.
  const int saved_errno = errno;
  va_list args;
  va_start(args, format);
  no_throw([&] { log_message({file, line, function, channel, priority, nullptr}, format, args); });
  va_end(args);
  errno = saved_errno;
}

void fr_log_set_sink(fr_log_sink sink, void *context) {
  const std::unique_lock lock(process->sink_lock);
  process->current = {sink, context};
}
