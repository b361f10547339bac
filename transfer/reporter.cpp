// Makes the state's text on a thread of its own, so that no other part waits for a slow DisDB.
// Its text goes out in pieces, over the connections that asked.
#include "transfer/reporter.h"

#include "main/transfer/wire.h"
#include "platform/base/diagnostics.h"

namespace {

// A text in pieces, and an empty one as its end.
std::vector<std::string> pieces_of(const std::string &text) {
  constexpr std::size_t most = longest_datagram - sizeof(transfer_head);
  std::vector<std::string> pieces;
  for (std::size_t from = 0; from < text.size(); from += most) {
    pieces.push_back(
        encode_message({.word = transfer_word::report, .first = text.substr(from, most)}));
  }
  pieces.push_back(encode_message({.word = transfer_word::report}));
  return pieces;
}

}  // namespace

reporter::reporter(const std::function<std::string()> &status)
    : status_(status), thread_(&reporter::run, this) {}

reporter::~reporter() {
  {
    const std::lock_guard guard(lock_);
    is_ending_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void reporter::ask(std::shared_ptr<outlet> who) {
  const std::lock_guard guard(lock_);
  askers_.push_back(std::move(who));
  changed_.notify_one();
}

void reporter::run() {
  std::unique_lock guard(lock_);
  for (;;) {
    changed_.wait(guard, [this] { return is_ending_ || !askers_.empty(); });
    if (is_ending_) return;
    const auto askers = std::exchange(askers_, {});
    guard.unlock();
    for (const auto &one : askers) one->is_asking = false;
    const bool is_told = no_throw(false, [&] {
      const std::vector<std::string> pieces = pieces_of(status_());
      for (const auto &one : askers) one->say(pieces);
      return true;
    });
    // A host must not wait for the rest of a broken answer.
    for (const auto &one : askers) {
      if (!is_told) one->break_off();
    }
    guard.lock();
  }
}
