// Answers requests for the state on a thread of its own: it asks the DisDB, which may take seconds.
#ifndef TRANSFER_REPORTER_H
#define TRANSFER_REPORTER_H

#include <condition_variable>
#include <functional>
#include <memory>
#include <thread>

#include "transfer/outlet.h"

// All requests that come while one answer is made share the next one.
class reporter {
 public:
  // `status` must live longer.
  explicit reporter(const std::function<std::string()> &status);
  reporter(const reporter &) = delete;
  reporter &operator=(const reporter &) = delete;
  // Waits for an answer that is being made.
  ~reporter();

  // Never waits. The answer goes to the outlet in pieces.
  void ask(std::shared_ptr<outlet> who);

 private:
  void run();

  const std::function<std::string()> &status_;
  std::mutex lock_;  // guards all that follows
  std::condition_variable changed_;
  std::vector<std::shared_ptr<outlet>> askers_;
  bool is_ending_ = false;
  std::thread thread_;
};

#endif
