// What the service knows of itself, for `--status`, metrics and the journal. Counters are written
// by the workers, read by the server; all members are safe from several threads.
#ifndef TRANSFER_STATE_H
#define TRANSFER_STATE_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// Since the start of the process.
struct transfer_counters {
  std::atomic<std::uint64_t> uploads{0}, upload_bytes{0}, upload_failures{0};
  std::atomic<std::uint64_t> deletes{0}, delete_failures{0};
  std::atomic<std::uint64_t> downloads{0}, download_bytes{0}, download_failures{0};
  std::atomic<std::uint64_t> evicted{0}, evicted_bytes{0}, queued_again{0}, swept{0};
};

// A member that cannot be processed for now, and why.
struct parked_member {
  std::string member;
  std::string reason;  // one line
  double since = 0;    // seconds since the epoch
  double next = 0;     // when it is tried again
  int tries = 0;
};

// For the status; `name` is the member, or what a download is named by.
struct running_job {
  std::string kind;  // "upload", "delete", "download"
  std::string name;
  double since = 0;
};

// Outlives all tickets, as the service's parts are destroyed before it.
class transfer_state {
 public:
  transfer_counters counters;

  // A job that runs, for as long as the ticket lives.
  class ticket {
   public:
    // `kind` as in `running_job`. The job is shown until the ticket goes.
    ticket(transfer_state &state, std::string kind, std::string name);
    ticket(const ticket &) = delete;
    ticket &operator=(const ticket &) = delete;
    ~ticket();

   private:
    transfer_state &state_;
    std::list<running_job>::iterator job_;
  };

  // A copy of the moment, the longest running first.
  std::vector<running_job> running() const;

 private:
  mutable std::mutex lock_;  // guards all that follows
  std::list<running_job> running_;
};

#endif
