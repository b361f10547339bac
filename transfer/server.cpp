// Serves hosts and people on the socket.
// One thread; hands orders on and never waits for the DisDB or a store.
#include "transfer/server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <thread>
#include <vector>

#include "main/transfer/peers.h"
#include "main/transfer/wire.h"
#include "platform/base/diagnostics.h"
#include "transfer/listener.h"
#include "transfer/outlet.h"
#include "transfer/reporter.h"

namespace {

constexpr std::size_t most_connections = 128;
constexpr std::size_t most_downloads = 1024;         // of one connection
constexpr std::size_t most_downloads_in_all = 4096;  // each keeps a descriptor, of some 8,000
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

using host = std::shared_ptr<outlet>;
using number = std::shared_ptr<std::atomic<std::size_t>>;

// Counts a download of a host, and of all, for as long as it lives.
class counted_download {
 public:
  counted_download(host from, number all) : from_(std::move(from)), all_(std::move(all)) {
    ++from_->downloads;
    ++*all_;
  }
  counted_download(const counted_download &) = delete;
  counted_download &operator=(const counted_download &) = delete;
  ~counted_download() {
    --from_->downloads;
    --*all_;
  }

 private:
  const host from_;
  const number all_;
};

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
    wake_->set();
    thread_.join();
    // Hosts with a running download keep their end of the connection.
    // Answers of downloads that end later are dropped: their hosts see the connection end.
    for (const host &one : hosts_) one->close();
  }

  std::string start(const std::string &path) {
    std::string refused = listener_.open(path);
    if (refused.empty()) thread_ = std::thread(&engine::run, this);
    return refused;
  }

 private:
  void run();
  void turn();
  void serve(std::vector<pollfd> &entries);
  void accept_hosts();
  bool read(const host &from);
  bool take(const host &from, transfer_message &message);
  void order(const host &from, transfer_message &message);

  const server_hooks hooks_;
  const trusted_peers peers_;
  const std::shared_ptr<const wake_event> wake_ = std::make_shared<wake_event>();
  listening_socket listener_;
  std::list<host> hosts_;
  // Downloads of all connections; those that end after this object count it down, too.
  const number running_ = std::make_shared<std::atomic<std::size_t>>(0);
  bool may_accept_ = true;
  std::atomic<bool> is_ending_{false};
  reporter reporter_{hooks_.status};
  std::thread thread_;
};

void transfer_server::engine::run() {
  while (!is_ending_) {
    const bool went_well = no_throw(false, [this] {
      turn();
      return true;
    });
    if (went_well) continue;
    QX_LOG(FR_LOG_WARNING, "The server of the socket is short of memory, and goes on in a second.");
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}

// Waits until there is something to do, and does it.
void transfer_server::engine::turn() {
  // Made anew each time: with at most 128 connections that costs nothing.
  std::vector<pollfd> entries = {{wake_->fd.get(), POLLIN, 0},
                                 {may_accept_ ? listener_.get() : -1, POLLIN, 0}};
  for (const host &one : hosts_) {
    const std::size_t unsent = one->unsent();
    const int in = unsent < most_unsent ? POLLIN : 0;
    const int out = unsent > 0 ? POLLOUT : 0;
    entries.push_back({one->socket(), static_cast<short>(in | out), 0});
  }
  if (::poll(entries.data(), entries.size(), may_accept_ ? -1 : rest_without_descriptors) < 0) {
    return;
  }
  may_accept_ = true;
  serve(entries);
  if (entries[1].revents != 0) accept_hosts();
}

// The entries are in the order of the hosts, behind the first two.
void transfer_server::engine::serve(std::vector<pollfd> &entries) {
  if (entries[0].revents != 0) wake_->clear();
  auto entry = entries.begin() + 2;
  for (auto at = hosts_.begin(); at != hosts_.end(); ++entry) {
    const bool has_input = (entry->revents & (POLLIN | POLLHUP | POLLERR)) != 0;
    // An exception ends this connection only.
    const bool stays = no_throw(false, [&] { return (!has_input || read(*at)) && (*at)->flush(); });
    if (!stays) (*at)->close();
    at = stays ? std::next(at) : hosts_.erase(at);
  }
}

void transfer_server::engine::accept_hosts() {
  for (;;) {
    unique_fd socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) {
      // Short of descriptors or memory: accept the waiting hosts later.
      may_accept_ = errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
      return;
    }
    // A host that is connected may order any object, so the kernel is asked which user it is.
    if (!peers_.trust(socket.get())) {
      QX_LOG(FR_LOG_WARNING, "refused a connection of a user that is not trusted");
    } else if (hosts_.size() >= most_connections) {
      QX_LOG(FR_LOG_WARNING, "refused a connection: there are %zu", hosts_.size());
    } else {
      hosts_.push_back(std::make_shared<outlet>(std::move(socket), wake_));
    }
  }
}

// False when the connection ends.
bool transfer_server::engine::read(const host &from) {
  for (int count = 0; count < most_read && from->unsent() < most_unsent; ++count) {
    transfer_message message;
    switch (receive_message(from->socket(), message)) {
      case receiving::nothing:
        return true;
      case receiving::ended:
        return false;
      case receiving::message:
        if (take(from, message)) break;
        [[fallthrough]];
      case receiving::malformed:
        QX_LOG(FR_LOG_WARNING, "closed a connection that said what is not understood");
        return false;
    }
  }
  return true;
}

// False when it is nothing that a host may say.
bool transfer_server::engine::take(const host &from, transfer_message &message) {
  switch (message.word) {
    case transfer_word::download:
      order(from, message);
      return true;
    case transfer_word::queued:
      hooks_.queued();
      return true;
    case transfer_word::status:
      // A host that asks again before the answer is there gets one answer.
      if (!from->is_asking.exchange(true)) reporter_.ask(from);
      return true;
    default:
      return false;
  }
}

void transfer_server::engine::order(const host &from, transfer_message &message) {
  // Refused orders are answered like failed ones: the host has no other service to ask.
  if (from->downloads >= most_downloads || *running_ >= most_downloads_in_all ||
      !message.descriptor || !is_target(message.descriptor.get())) {
    from->say({answer(message.id, false)});
    return;
  }
  auto counted = std::make_shared<counted_download>(from, running_);
  hooks_.download({.location_text = std::move(message.first),
                   .key = std::move(message.second),
                   .target = std::move(message.descriptor),
                   .done =
                       [from, counted = std::move(counted), id = message.id](bool is_done) mutable {
                         // Before the answer: the host may then order the next one at once.
                         counted.reset();
                         // An answer that is lost would leave its host waiting.
                         const bool is_said = no_throw(false, [&] {
                           from->say({answer(id, is_done)});
                           return true;
                         });
                         if (!is_said) from->break_off();
                       },
                   .is_wanted = [from] { return from->is_open(); }});
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
