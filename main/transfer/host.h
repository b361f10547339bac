// The transfer service as hosts have it: a connection to the daemon of this node, and the downloads
// that run over it.
#ifndef MAIN_TRANSFER_HOST_H
#define MAIN_TRANSFER_HOST_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <spoolcap/zarn_storage.h>
#include "main/transfer/config.h"
#include "main/transfer/peers.h"
#include "main/transfer/wire.h"

// What storage holds of a download. It is storage's from the moment on in which `done` is called.
struct ordered_download {
  qx_storage_done_fn done;
  void *cookie;
  std::string path;
};

// One for each process, used from any thread. It holds no file and no queue: it only asks.
class transfer_host {
 public:
  // Also with a new configuration while it runs; the connection stays if the socket does.
  void start(transfer_config config);
  // Ends all downloads.
  void stop();

  // The operations of the table.
  bool is_usable() const;
  // Malloc'ed; null while stopped.
  c_string location(int first_id) const;
  // Null when it is refused.
  void *download(const char *key, const char *location, const char *path, qx_storage_done_fn done,
                 void *cookie);
  // Tells the daemon that a queue has grown. Lost without harm.
  void queued();

  // Around fork(), so that the child finds everything whole.
  void before_fork() { lock_.lock(); }
  void after_fork_in_parent() { lock_.unlock(); }
  // Leaves thread, connection and downloads to the parent; the child begins with none.
  void after_fork_in_child();

 private:
  using clock = std::chrono::steady_clock;

  // Replaced as a whole by `start`, so that a reader may keep the one that it has.
  struct settings {
    transfer_config config;
    trusted_peers peers;
  };
  // One connection to the daemon, with the downloads that it owes an answer for.
  struct connection {
    unique_fd socket;
    std::map<std::uint64_t, ordered_download *> pending;
    clock::time_point heard;  // when the daemon said something, or had nothing to say, last
    clock::time_point asked;  // when it was last asked for a sign of life
    std::shared_ptr<connection> next_lost;
  };
  // What the thread works with; a host that was stopped and started again has another one.
  struct line {
    unique_fd wake;                       // an eventfd
    std::shared_ptr<connection> current;  // null while there is none
    std::shared_ptr<connection> lost;     // a list; their downloads are still to be ended
    bool is_ending = false;
    std::unique_ptr<std::thread> thread;
  };

  // Makes the thread look at its line again. Needs no lock.
  static void wake(const line &what);
  // Puts the connection on the list of lost ones. The lock is held.
  static void lose_current(line &what);
  // Calls `done`, without the lock. The request is not to be touched afterwards.
  static void finish(ordered_download *request, bool has_file);

  // These three run under the lock. `connect` and `send` give false when the daemon cannot be
  // reached, or is not trusted.
  bool connect();
  // Leaves `line_` null when there are no descriptors left.
  void start_thread();
  // Sends over the connection there is, or over a new one when the daemon is gone. A request is
  // entered before it is sent.
  bool send(const std::string &datagram, int target, std::uint64_t id, ordered_download *request);

  // On the thread of the line, from here on.
  void run(const std::shared_ptr<line> &own);
  // Under the lock.
  int watch(line &own);
  // On the host's thread: takes what came over a connection, and gives the connection up when it
  // ended.
  void read_answers(line &own, const std::shared_ptr<connection> &from);
  receiving take_answers(connection &from);
  // One answer; a download that is `done` is ended, all else only counts as a sign of life.
  void take_answer(connection &from, const transfer_message &answer);
  // Without the lock, as `done` is called for each.
  void end_downloads(connection &of);

  // Guards all that follows, and what a line and its connections have. Never held across a wait or
  // a call of `done`.
  mutable std::mutex lock_;
  std::shared_ptr<const settings> settings_;  // null while stopped
  std::shared_ptr<line> line_;                // null before the first use
  std::uint64_t last_id_ = 0;
  bool is_away_told_ = false;
};

#endif
