#include "transfer/server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <deque>
#include <map>
#include <thread>
#include <vector>

#include "main/transfer/peers.h"
#include "main/transfer/wire.h"
#include "platform/base/diagnostics.h"
#include "transfer/listener.h"
#include "transfer/mailbox.h"
#include "transfer/reporter.h"

namespace {

constexpr std::size_t most_connections = 128;
constexpr std::size_t most_pending = 1024;  // downloads of one connection
constexpr std::size_t most_unsent = 64;  // datagrams; nothing more is read from its end until then
constexpr int most_read = 64;            // datagrams of one connection in a row
constexpr int rest_without_descriptors = 1000;  // milliseconds

constexpr int ready = 3, failed = 4;  // of downloads, as storage has them

// Whether a download can be written there, and be read again to be compared.
bool is_target(int fd) {
  struct stat status {};
  const int flags = ::fcntl(fd, F_GETFL);
  return flags >= 0 && (flags & O_ACCMODE) == O_RDWR && (flags & O_APPEND) == 0 &&
         ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size == 0;
}

std::string answer(std::uint64_t id, bool is_done) {
  return encode_message(
      {.word = transfer_word::done, .status = is_done ? ready : failed, .id = id});
}

}  // namespace

class transfer_server::engine {
 public:
  explicit engine(server_hooks hooks) : hooks_(std::move(hooks)) {}
  engine(const engine &) = delete;
  engine &operator=(const engine &) = delete;
  ~engine() {
    if (!thread_.joinable()) return;
    is_ending_ = true;
    ::eventfd_write(mailbox_->wake.get(), 1);
    thread_.join();
  }

  std::string start(const std::string &path) {
    std::string refused = listener_.open(path);
    if (refused.empty()) thread_ = std::thread(&engine::run, this);
    return refused;
  }

 private:
  struct host {
    unique_fd socket;
    std::deque<std::string> unsent;
    std::size_t pending = 0;
    bool is_asking = false;
  };
  using hosts = std::map<std::uint64_t, host>;

  void run();
  void serve(std::vector<pollfd> &entries);
  void accept_hosts();
  void deliver();
  bool read(std::uint64_t id, host &from);
  bool take(std::uint64_t id, host &from, transfer_message &message);
  void order(std::uint64_t id, host &from, transfer_message &message);
  static bool flush(host &to);

  const server_hooks hooks_;
  const trusted_peers peers_;
  const std::shared_ptr<mailbox> mailbox_ = std::make_shared<mailbox>();
  listening_socket listener_;
  hosts hosts_;
  std::uint64_t last_id_ = 0;
  bool may_accept_ = true;
  std::atomic<bool> is_ending_{false};
  reporter reporter_{hooks_.status, mailbox_};
  std::thread thread_;
};

void transfer_server::engine::run() {
  while (!is_ending_) {
    std::vector<pollfd> entries = {{mailbox_->wake.get(), POLLIN, 0},
                                   {may_accept_ ? listener_.get() : -1, POLLIN, 0}};
    for (const auto &[id, one] : hosts_) {
      const int in = one.unsent.size() < most_unsent ? POLLIN : 0;
      const int out = one.unsent.empty() ? 0 : POLLOUT;
      entries.push_back({one.socket.get(), static_cast<short>(in | out), 0});
    }
    if (::poll(entries.data(), entries.size(), may_accept_ ? -1 : rest_without_descriptors) < 0) {
      continue;
    }
    may_accept_ = true;
    serve(entries);
    if (entries[1].revents != 0) accept_hosts();
  }
}

// The entries are in the order of the hosts, behind the first two.
void transfer_server::engine::serve(std::vector<pollfd> &entries) {
  deliver();
  auto entry = entries.begin() + 2;
  for (auto at = hosts_.begin(); at != hosts_.end(); ++entry) {
    auto &[id, one] = *at;
    const bool has_input = (entry->revents & (POLLIN | POLLHUP | POLLERR)) != 0;
    const bool stays = (!has_input || read(id, one)) && flush(one);
    at = stays ? std::next(at) : hosts_.erase(at);
  }
}

void transfer_server::engine::accept_hosts() {
  for (;;) {
    unique_fd socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) {
      // Short of descriptors or memory: those who wait are taken later.
      may_accept_ = errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
      return;
    }
    if (!peers_.trust(socket.get())) {
      QX_LOG(FR_LOG_WARNING, "refused a connection of a user that is not trusted");
    } else if (hosts_.size() >= most_connections) {
      QX_LOG(FR_LOG_WARNING, "refused a connection: there are %zu", hosts_.size());
    } else {
      hosts_[++last_id_].socket = std::move(socket);
    }
  }
}

void transfer_server::engine::deliver() {
  for (mailbox::letter &one : mailbox_->take()) {
    const auto found = hosts_.find(one.connection);
    if (found == hosts_.end()) continue;
    host &to = found->second;
    if (one.ends_download) {
      --to.pending;
    } else {
      to.is_asking = false;
    }
    for (std::string &datagram : one.datagrams) to.unsent.push_back(std::move(datagram));
  }
}

// False when the connection ends.
bool transfer_server::engine::read(std::uint64_t id, host &from) {
  for (int count = 0; count < most_read && from.unsent.size() < most_unsent; ++count) {
    transfer_message message;
    switch (receive_message(from.socket.get(), message)) {
      case receiving::nothing:
        return true;
      case receiving::ended:
        return false;
      case receiving::message:
        if (take(id, from, message)) break;
        [[fallthrough]];
      case receiving::malformed:
        QX_LOG(FR_LOG_WARNING, "closed a connection that said what is not understood");
        return false;
    }
  }
  return true;
}

// False when it is nothing that a host may say.
bool transfer_server::engine::take(std::uint64_t id, host &from, transfer_message &message) {
  switch (message.word) {
    case transfer_word::download:
      order(id, from, message);
      return true;
    case transfer_word::queued:
      hooks_.queued();
      return true;
    case transfer_word::status:
      // Who asks again before the answer is there gets one answer.
      if (!std::exchange(from.is_asking, true)) reporter_.ask(id);
      return true;
    default:
      return false;
  }
}

void transfer_server::engine::order(std::uint64_t id, host &from, transfer_message &message) {
  if (from.pending >= most_pending || !message.descriptor || !is_target(message.descriptor.get())) {
    from.unsent.push_back(answer(message.id, false));
    return;
  }
  ++from.pending;
  hooks_.download({.location_text = std::move(message.first),
                   .key = std::move(message.second),
                   .target = std::move(message.descriptor),
                   .done = [box = mailbox_, id, download = message.id](bool is_done) {
                     box->put({id, {answer(download, is_done)}, true});
                   }});
}

// Sends what there is room for; false when the connection is lost.
bool transfer_server::engine::flush(host &to) {
  while (!to.unsent.empty()) {
    const int error = send_datagram(to.socket.get(), to.unsent.front());
    if (error != 0) return error == EAGAIN || error == ENOBUFS || error == ENOMEM;
    to.unsent.pop_front();
  }
  return true;
}

transfer_server::transfer_server(server_hooks hooks)
    : engine_(std::make_unique<engine>(std::move(hooks))) {}

transfer_server::~transfer_server() = default;

std::string transfer_server::start(const std::string &path) {
  return engine_->start(path);
}

void transfer_server::stop() {
  engine_.reset();
}
