// The thread of a host: takes the daemon's answers, and ends downloads.
// Started with the first connection; the only place that calls `done`.
#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>

#include "main/transfer/host.h"
#include "platform/base/diagnostics.h"

namespace {

// A daemon that hangs, or is stopped, keeps its end of the connection. One that works answers at
// once when it is asked for its state, however long its downloads take.
constexpr std::chrono::minutes ask_after{1};
constexpr std::chrono::minutes silent_for_good{10};

}  // namespace

void transfer_host::run(const std::shared_ptr<line> &own) {
  for (;;) {
    std::shared_ptr<connection> lost, current;
    bool is_ending = false;
    int patience = -1;
    {
      const std::lock_guard guard(lock_);
      patience = watch(*own);
      // Taken out under the lock and ended without it, as `done` calls into the host.
      lost.swap(own->lost);
      current = own->current;
      is_ending = own->is_ending;
    }
    for (; lost; lost = std::move(lost->next_lost)) end_downloads(*lost);
    if (is_ending) return;

    pollfd entries[] = {{own->wake.get(), POLLIN, 0},
                        {current ? current->socket.get() : -1, POLLIN, 0}};
    if (::poll(entries, 2, patience) < 0) continue;
    eventfd_t count = 0;
    if (entries[0].revents != 0) ::eventfd_read(own->wake.get(), &count);
    if (entries[1].revents != 0) read_answers(*own, current);
  }
}

// Ends the connection to a daemon that owes answers and says nothing any more. How long the thread
// may wait, for poll; the lock is held.
int transfer_host::watch(line &own) {
  if (!own.current) return -1;
  constexpr auto next_look = static_cast<int>(std::chrono::milliseconds(ask_after).count());
  connection &to = *own.current;
  if (to.pending.empty()) return next_look;
  const auto now = clock::now();
  if (now - to.heard >= silent_for_good) {
    QX_LOG(FR_LOG_WARNING, "The transfer service does not answer any more; its downloads fail.\n");
    lose_current(own);
    return -1;
  }
  // At most one question a minute; any answer counts as a sign of life.
  if (now - std::max(to.heard, to.asked) >= ask_after) {
    to.asked = now;
    no_throw(
        [&] { send_datagram(to.socket.get(), encode_message({.word = transfer_word::status})); });
  }
  return next_look;
}

// Takes all answers that are there; why it stopped.
receiving transfer_host::take_answers(connection &from) {
  transfer_message answer;
  for (;;) {
    // Without memory for an answer it is lost, and all that runs must end.
    const receiving what =
        no_throw(receiving::malformed, [&] { return receive_message(from.socket.get(), answer); });
    if (what != receiving::message) return what;
    take_answer(from, answer);
  }
}

void transfer_host::read_answers(line &own, const std::shared_ptr<connection> &from) {
  const receiving what = take_answers(*from);
  if (what == receiving::nothing) return;
  if (what == receiving::malformed) {
    QX_LOG(FR_LOG_WARNING, "The transfer service said what is not understood.\n");
  }
  const std::lock_guard guard(lock_);
  if (own.current == from) lose_current(own);
}

void transfer_host::take_answer(connection &from, const transfer_message &answer) {
  ordered_download *request = nullptr;
  {
    const std::lock_guard guard(lock_);
    from.heard = clock::now();
    const auto found = from.pending.find(answer.id);
    if (answer.word != transfer_word::done || found == from.pending.end()) return;
    request = found->second;
    from.pending.erase(found);
  }
  finish(request, answer.status == QX_STORAGE_READY);
}

// Of a connection that is no longer used; what came over it before its end counts.
void transfer_host::end_downloads(connection &of) {
  take_answers(of);
  std::map<std::uint64_t, ordered_download *> rest;
  {
    const std::lock_guard guard(lock_);
    rest.swap(of.pending);
  }
  for (const auto &[id, request] : rest) finish(request, false);
}

void transfer_host::finish(ordered_download *request, bool has_file) {
  // The request may be released before this returns.
  request->done(request->cookie, has_file ? QX_STORAGE_READY : QX_STORAGE_FAILED,
                request->path.c_str());
}
