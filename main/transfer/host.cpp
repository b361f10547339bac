// The host's end of the transfer service: one connection, and the downloads that wait on it.
// Called by the host's threads; what the host's own thread does is in host_thread.cpp.
#include "main/transfer/host.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <csignal>
#include <cstring>

#include "platform/base/diagnostics.h"
#include "platform/base/text.h"
#include "platform/base/view.h"

namespace {

// Room for many orders that the daemon has not read yet; the kernel cuts it to its limit.
constexpr int send_room = 1 << 20;

// No signal of the host's is delivered to a thread that starts in this scope.
class signals_blocked {
 public:
  signals_blocked() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &old_);
  }
  signals_blocked(const signals_blocked &) = delete;
  signals_blocked &operator=(const signals_blocked &) = delete;
  ~signals_blocked() { ::pthread_sigmask(SIG_SETMASK, &old_, nullptr); }

 private:
  sigset_t old_{};
};

// What sending says of a daemon that is gone.
bool means_lost(int error) {
  return error == EPIPE || error == ECONNRESET || error == ECONNREFUSED || error == ENOTCONN;
}

}  // namespace

void transfer_host::start(transfer_config config) {
  auto made = std::make_shared<const settings>(settings{std::move(config), {}});
  const std::lock_guard guard(lock_);
  const bool has_moved = settings_ && settings_->config.socket != made->config.socket;
  settings_ = std::move(made);
  // A new configuration keeps the connection, unless the socket lies elsewhere now.
  if (!has_moved || !line_) return;
  lose_current(*line_);
  wake(*line_);
}

void transfer_host::stop() {
  std::shared_ptr<line> ended;
  {
    const std::lock_guard guard(lock_);
    settings_.reset();
    ended.swap(line_);
    if (!ended) return;
    ended->is_ending = true;
    lose_current(*ended);
    wake(*ended);
  }
  // Without the lock, which the thread needs to end the downloads.
  ended->thread->join();
}

void transfer_host::after_fork_in_child() {
  if (line_) {
    // The thread is not here; its downloads are the parent's.
    // Leaked: destroying a joinable thread would end the process.
    static_cast<void>(line_->thread.release());
    line_->wake.reset();
    if (line_->current) line_->current->socket.reset();
    for (auto one = line_->lost; one; one = one->next_lost) one->socket.reset();
    line_.reset();
  }
  lock_.unlock();
}

bool transfer_host::is_usable() const {
  const std::lock_guard guard(lock_);
  return settings_ != nullptr;
}

c_string transfer_host::location(int first_id) const {
  std::shared_ptr<const settings> now;
  {
    const std::lock_guard guard(lock_);
    now = settings_;
  }
  return now ? copy_text(now->config.location_text(first_id)) : nullptr;
}

void *transfer_host::download(const char *key, const char *location, const char *path,
                              qx_storage_done_fn done, void *cookie) {
  if (is_empty(location)) {
    QX_LOG(FR_LOG_WARNING, "Cannot fetch [%s]: its row does not say where it is.\n", key);
    return nullptr;
  }
  // The service writes through this descriptor, so it needs no right to the folder.
  const unique_fd target(::open(path, O_RDWR | O_NOFOLLOW | O_CLOEXEC));
  if (!target) {
    QX_LOG(FR_LOG_WARNING, "Cannot open [%s]: %s.\n", path, std::strerror(errno));
    return nullptr;
  }
  // Storage's from the moment on in which `done` is called; until then it is ours.
  auto request = std::make_unique<ordered_download>(ordered_download{done, cookie, path});
  const std::lock_guard guard(lock_);
  const std::uint64_t id = ++last_id_;
  const std::string datagram =
      encode_message({.word = transfer_word::download, .id = id, .first = location, .second = key});
  if (datagram.empty() || !send(datagram, target.get(), id, request.get())) return nullptr;
  return request.release();
}

void transfer_host::queued() {
  const std::lock_guard guard(lock_);
  // A failure does no harm: the daemon also looks at the queue by itself, only later.
  send(encode_message({.word = transfer_word::queued}), -1, 0, nullptr);
}

bool transfer_host::send(const std::string &datagram, int target, std::uint64_t id,
                         ordered_download *request) {
  // The daemon may have been started anew since it was last spoken to.
  for (int attempt = 0; attempt < 2 && connect(); ++attempt) {
    connection &to = *line_->current;
    // The answer cannot be overlooked: its reader needs the lock.
    if (request != nullptr) {
      // The thread looks once a minute, so it need not be woken to watch the daemon.
      if (to.pending.empty()) to.heard = clock::now();
      to.pending.emplace(id, request);
    }
    const int error = send_datagram(to.socket.get(), datagram, target);
    if (error == 0) return true;
    to.pending.erase(id);
    if (!means_lost(error)) {
      if (request != nullptr) {
        QX_LOG(FR_LOG_WARNING, "The transfer service cannot take a download now: %s.\n",
               std::strerror(error));
      }
      return false;
    }
    lose_current(*line_);
    wake(*line_);
  }
  return false;
}

// Whether there is a connection, perhaps a new one.
bool transfer_host::connect() {
  if (!settings_) return false;
  if (line_ && line_->current) return true;
  const std::string &path = settings_->config.socket;
  unique_fd socket = connect_to_service(path);
  const int error = errno;
  const bool is_trusted = socket && settings_->peers.trust(socket.get());
  if (!is_trusted) {
    if (!is_away_told_) {
      QX_LOG(FR_LOG_WARNING, "Cannot reach the transfer service at [%s]: %s.\n", path.c_str(),
             socket ? "it runs as a user that is not trusted" : std::strerror(error));
    }
    is_away_told_ = true;
    return false;
  }
  is_away_told_ = false;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUF, &send_room, sizeof send_room);
  auto made = std::make_shared<connection>();
  made->socket = std::move(socket);
  if (!line_) start_thread();
  if (!line_) return false;
  line_->current = std::move(made);
  wake(*line_);
  return true;
}

void transfer_host::start_thread() {
  auto made = std::make_shared<line>();
  made->wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!made->wake) {
    QX_LOG(FR_LOG_WARNING, "Cannot make an event descriptor: %s.\n", std::strerror(errno));
    return;
  }
  const signals_blocked none;
  made->thread = std::make_unique<std::thread>(&transfer_host::run, this, made);
  line_ = std::move(made);
}

void transfer_host::wake(const line &what) {
  ::eventfd_write(what.wake.get(), 1);
}

void transfer_host::lose_current(line &what) {
  if (!what.current) return;
  what.current->next_lost = std::move(what.lost);
  what.lost = std::move(what.current);
}
