// What the command line asks for beside the service: its state, a check, the wait for an empty
// queue.
#include "transfer/commands.h"

#include <rapidjson/document.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "platform/base/deadline.h"
#include "transfer/status.h"

namespace {

// To count a long queue takes the DisDB a while: the pause between two looks is this many times as
// long.
constexpr int share_of_looks = 10;
constexpr std::chrono::nanoseconds shortest_between_looks = std::chrono::milliseconds(500);
constexpr std::chrono::nanoseconds longest_between_looks = std::chrono::seconds(5);

int tell(const std::string &error) {
  std::fprintf(stderr, "spoolcap-transfer: %s\n", error.c_str());
  return 1;
}

// The service alone knows, as it sees what runs as well as what is queued.
bool is_idle(const std::string &json) {
  rapidjson::Document state;
  state.Parse(json.data(), json.size());
  if (state.HasParseError() || !state.IsObject()) return false;
  const auto idle = state.FindMember("idle");
  return idle != state.MemberEnd() && idle->value.IsTrue();
}

}  // namespace

int show_status(const std::string &socket_path, bool json) {
  const status_answer answer = ask_status(socket_path);
  if (!answer.json) return tell(answer.error);
  const std::optional<std::string> shown =
      json ? *answer.json + "\n" : status_for_people(*answer.json);
  if (!shown) return tell("the service at " + socket_path + " answers in another version's way");
  std::fputs(shown->c_str(), stdout);
  return std::fflush(stdout) == 0 ? 0 : 1;
}

int drain(const std::string &socket_path, std::optional<int> seconds) {
  const deadline limit(static_cast<float>(seconds.value_or(0)));
  std::string told;
  for (;;) {
    const auto start = std::chrono::steady_clock::now();
    const status_answer answer = ask_status(socket_path);
    const std::chrono::nanoseconds asked = std::chrono::steady_clock::now() - start;
    if (answer.json && is_idle(*answer.json)) return 0;
    // Each error once: a service that is away for long is not reported twice a second.
    if (answer.error != told && !answer.error.empty()) tell(answer.error + "; waiting for it");
    told = answer.error;
    if (seconds && limit.passed()) return tell("the time is over, and not all is done");
    std::this_thread::sleep_for(
        std::clamp(asked * share_of_looks, shortest_between_looks, longest_between_looks));
  }
}
