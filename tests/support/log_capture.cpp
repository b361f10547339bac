#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace support {

log_capture::log_capture() {
  fr_log_set_sink(sink, this);
}

log_capture::~log_capture() {
  fr_log_set_sink(nullptr, nullptr);
  const auto covers = [](const announced &wanted, const log_line &line) {
    return wanted.priority == line.priority && line.text.find(wanted.text) != std::string::npos;
  };
  for (const log_line &line : lines_) {
    if (line.priority > FR_LOG_ERROR) continue;
    EXPECT_TRUE(std::any_of(announced_.begin(), announced_.end(),
                            [&](const announced &wanted) { return covers(wanted, line); }))
        << "unannounced error from " << line.function << ": " << line.text;
  }
  for (const announced &wanted : announced_) {
    EXPECT_TRUE(std::any_of(lines_.begin(), lines_.end(),
                            [&](const log_line &line) { return covers(wanted, line); }))
        << "nothing logged at priority " << wanted.priority << ": " << wanted.text;
  }
}

void log_capture::sink(const fr_log_record *record, void *context) {
  auto *self = static_cast<log_capture *>(context);
  const std::lock_guard lock(self->mutex_);
  self->lines_.push_back({record->file, record->line, record->function, record->channel,
                          record->priority, record->text});
}

void log_capture::expect(int priority, std::string_view text) {
  announced_.push_back({priority, std::string(text)});
}

std::vector<log_line> log_capture::lines() const {
  const std::lock_guard lock(mutex_);
  return {lines_.begin() + static_cast<std::ptrdiff_t>(cleared_), lines_.end()};
}

std::size_t log_capture::count(std::string_view text) const {
  const std::vector<log_line> all = lines();
  return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const log_line &line) {
    return line.text.find(text) != std::string::npos;
  }));
}

void log_capture::clear() {
  const std::lock_guard lock(mutex_);
  cleared_ = lines_.size();
}

}  // namespace support
