#include "support/log_capture.h"

#include <gtest/gtest.h>

namespace support {

log_capture::log_capture() {
  fr_log_set_sink(sink, this);
}

log_capture::~log_capture() {
  fr_log_set_sink(nullptr, nullptr);
  for (const recorded &entry : lines_) {
    const log_line &line = entry.line;
    if (line.priority > FR_LOG_ERROR) continue;
    bool covered = false;
    for (const announced &wanted : announced_) {
      covered |= wanted.priority == line.priority && line.text.find(wanted.text) != line.text.npos;
    }
    if (!covered) ADD_FAILURE() << "unannounced error from " << line.function << ": " << line.text;
  }
  for (const announced &wanted : announced_) {
    if (!wanted.met) {
      ADD_FAILURE() << "nothing logged at priority " << wanted.priority << ": " << wanted.text;
    }
  }
}

void log_capture::sink(const fr_log_record *record, void *context) {
  auto *self = static_cast<log_capture *>(context);
  const std::lock_guard lock(self->mutex_);
  self->lines_.push_back({{record->file, record->line, record->function, record->channel,
                           record->priority, record->text},
                          false});
  for (announced &wanted : self->announced_) {
    wanted.met |= wanted.priority == record->priority &&
                  std::string_view(record->text).find(wanted.text) != std::string_view::npos;
  }
}

void log_capture::expect(int priority, std::string_view text) {
  const std::lock_guard lock(mutex_);
  bool met = false;
  for (const recorded &entry : lines_) {
    met |= entry.line.priority == priority && entry.line.text.find(text) != std::string::npos;
  }
  announced_.push_back({priority, std::string(text), met});
}

std::vector<log_line> log_capture::lines() const {
  const std::lock_guard lock(mutex_);
  std::vector<log_line> result;
  for (const recorded &entry : lines_) {
    if (!entry.cleared) result.push_back(entry.line);
  }
  return result;
}

std::vector<std::string> log_capture::messages() const {
  std::vector<std::string> result;
  for (log_line &line : lines()) result.push_back(std::move(line.text));
  return result;
}

std::size_t log_capture::count(std::string_view text) const {
  std::size_t found = 0;
  for (const log_line &line : lines()) {
    if (line.text.find(text) != std::string::npos) ++found;
  }
  return found;
}

bool log_capture::has(std::string_view text) const {
  return count(text) > 0;
}

void log_capture::clear() {
  const std::lock_guard lock(mutex_);
  for (recorded &entry : lines_) entry.cleared = true;
}

}  // namespace support
