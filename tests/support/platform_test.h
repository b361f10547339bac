// What tests of the modules share: a platform of their own with its pool set up, and the
// diagnostics of one module as they were logged.
#ifndef TESTS_SUPPORT_PLATFORM_TEST_H
#define TESTS_SUPPORT_PLATFORM_TEST_H

#include <gtest/gtest.h>

#include <spoolcap/sqlsession.h>
#include <spoolcap/zarn_cache.h>
#include "platform/base/owner.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

using texts = std::vector<std::string>;
using values = std::vector<std::optional<std::string>>;

inline std::optional<std::string> taken(char *text) {
  const c_string owned(text);
  return owned ? std::optional<std::string>(owned.get()) : std::nullopt;
}

// An array of `count` values, freed; no elements for no array.
inline values taken(int count, char **array) {
  values result;
  for (int i = 0; array != nullptr && i < count; ++i) {
    result.push_back(array[i] == nullptr ? std::nullopt : std::optional<std::string>(array[i]));
  }
  rget_free_vals(count, array);
  return result;
}

class platform_test : public testing::Test {
 protected:
  explicit platform_test(const char *module = "") : module_(module) { qx_sql_pool_init(); }

  // The module's messages since the last call, oldest first, without the file and line that begin
  // each.
  texts told() {
    texts result;
    for (const support::log_line &line : log.lines()) {
      if (line.file != module_) continue;
      const std::string prefix = line.file + ":" + std::to_string(line.line) + ":";
      result.push_back(line.text.starts_with(prefix) ? line.text.substr(prefix.size()) : line.text);
      last_line = line;
    }
    log.clear();
    return result;
  }

  std::optional<std::string> cached(const std::string &key, const std::string &field) const {
    return box.redis({"HGET", key, field});
  }
  void cache(const std::string &key, const std::string &field, const std::string &value) const {
    box.redis({"HSET", key, field, value});
  }

  support::log_capture log;
  support::sandbox box;
  support::log_line last_line{};  // of the last told()

 private:
  std::string module_;
};

#endif
