// Tells the state to who asks for it, on a thread of its own: the DisDB is asked for it, which may
// take seconds.
#ifndef TRANSFER_REPORTER_H
#define TRANSFER_REPORTER_H

#include <condition_variable>
#include <functional>
#include <memory>
#include <thread>

#include "transfer/mailbox.h"

class reporter {
 public:
  reporter(const std::function<std::string()> &status, std::shared_ptr<mailbox> answers);
  reporter(const reporter &) = delete;
  reporter &operator=(const reporter &) = delete;
  ~reporter();

  void ask(std::uint64_t connection);

 private:
  void run();

  const std::function<std::string()> &status_;
  const std::shared_ptr<mailbox> answers_;
  std::mutex lock_;  // guards all that follows
  std::condition_variable changed_;
  std::vector<std::uint64_t> askers_;
  bool is_ending_ = false;
  std::thread thread_;
};

#endif
