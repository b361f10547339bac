// The command line: every way in which it can end, and what one more option changes.
#include "fuzz/fuzz.h"
#include "tool/settings.h"

namespace {

// The end of the process, as an exception.
struct ended {
  int status;
};

[[noreturn]] void end_by_exception(int status) {
  throw ended{status};
}

}  // namespace

// The parser's own source, with that end in place of the real one.
#define exit end_by_exception
#include "tool/options.cpp"  // NOLINT(bugprone-suspicious-include)
#undef exit

// What popt keeps of an option given twice is no finding.
extern "C" __attribute__((visibility("default"))) const char *__asan_default_options();
extern "C" const char *__asan_default_options() {
  return "detect_leaks=0";
}

namespace {

using texts = std::vector<std::string>;

constexpr int returned = -1;
std::string output;  // of the last run

// The status that the process ends with, or that it does not.
int status_of(const texts &words) {
  // Standard output of this process.
  static const fuzz::memory_file file;
  static const int redirected = ::dup2(file.fd(), STDOUT_FILENO);
  REQUIRE(redirected == STDOUT_FILENO);
  file.assign("");
  run = {};
  std::vector<const char *> arguments = {"spoolcap"};
  for (const std::string &word : words) arguments.push_back(word.c_str());
  arguments.push_back(nullptr);
  int status = returned;
  try {
    parse_args(static_cast<int>(arguments.size()) - 1, arguments.data());
  } catch (const ended &end) {
    status = end.status;
  }
  std::fflush(stdout);
  output = file.content();
  return status;
}

}  // namespace

// One word a line.
void check(std::string_view bytes) {
  texts words = fuzz::lines_of(bytes);
  for (std::string &word : words) {
    if (word.ends_with('\n')) word.pop_back();
  }
  const int status = status_of(words);
  const int action = run.action;
  const bool has_list = run.target_mode == TARGET_UID || run.target_mode == TARGET_ULOGIN;
  if (status == returned) {
    REQUIRE(output.empty());
    REQUIRE(run.action == ACTION_SET || (run.action == ACTION_SHOW && run.quiet_flag == 0));
    REQUIRE((run.uid_list != nullptr) == (run.target_mode == TARGET_UID));
    REQUIRE((run.ulogin_list != nullptr) == (run.target_mode == TARGET_ULOGIN));
    REQUIRE(run.force_depth == 0 || run.force_depth == 10);
  } else if (status == 1) {
    const bool is_own = output.starts_with("Bad command line. ");
    REQUIRE(is_own == output.ends_with(banner) && (is_own || output.find(": ") != output.npos));
  } else {
    REQUIRE(status == 0 && output == banner);
  }

  // What one more option in front changes.
  words.emplace(words.begin(), "--help");
  REQUIRE(status_of(words) == 0);
  if (status != returned) return;
  words[0] = "--no-such-option";
  REQUIRE(status_of(words) == 1 && !output.ends_with(banner));
  words[0] = "--force";
  REQUIRE(status_of(words) == returned && run.force_depth == 10);
  words[0] = "--quiet";
  REQUIRE(status_of(words) == (action == ACTION_SET ? returned : 1));
  words[0] = "--all";
  REQUIRE(status_of(words) == (has_list ? 1 : returned));
}
