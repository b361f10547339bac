// Reads what the code under test logs, and fails a test that logs an error it did not announce.
#ifndef TESTS_SUPPORT_LOG_CAPTURE_H
#define TESTS_SUPPORT_LOG_CAPTURE_H

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <spoolcap/log.h>

namespace support {

struct log_line {
  std::string file;  // as the module names itself
  int line;
  std::string function;
  int channel;
  int priority;
  std::string text;
};

// Takes the logger's output from its construction to its end.
class log_capture {
 public:
  log_capture();
  log_capture(const log_capture &) = delete;
  log_capture &operator=(const log_capture &) = delete;
  // The test fails here for each error (FR_LOG_ERROR or worse) that no expect() covers, and for
  // each expect() that nothing met.
  ~log_capture();

  // Announces that a message of this priority that contains `text` is logged at least once; it may
  // be said before or after it happens.
  void expect(int priority, std::string_view text);

  std::vector<log_line> lines() const;
  std::size_t count(std::string_view text) const;  // how many contain it
  bool has(std::string_view text) const { return count(text) > 0; }
  void clear();  // forgets what was logged, but not an error that was not announced

 private:
  struct announced {
    int priority;
    std::string text;
  };
  static void sink(const fr_log_record *record, void *context);

  mutable std::mutex mutex_;
  std::vector<log_line> lines_;
  std::size_t cleared_ = 0;  // the number of messages that are forgotten
  std::vector<announced> announced_;
};

}  // namespace support

#endif
