// What the service says of itself: as JSON for `--status --json`, and from that for people.
#ifndef TRANSFER_STATUS_H
#define TRANSFER_STATUS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "transfer/keeper.h"
#include "transfer/locations.h"
#include "transfer/queue.h"
#include "transfer/state.h"

// One moment. Times are seconds since the epoch.
struct service_report {
  std::string node;
  double started = 0;
  double now = 0;
  bool idle = false;                   // nothing of this node is queued or running
  std::optional<queue_summary> queue;  // nothing when the DisDB does not answer
  std::string dangerous_policy;        // of the DisDB; empty when it is none
  std::string refusal;                 // of the DisDB to the last change; empty when it made it
  std::vector<running_job> running;
  std::vector<parked_member> parked;  // the oldest of them
  std::size_t parked_count = 0;       // of all
  std::size_t waiting = 0;            // members that failed, and are tried again soon
  std::vector<location_report> locations;
  keeper_report cache;
  const transfer_counters *counters = nullptr;  // of the running service
  std::uint64_t sent_bytes = 0;                 // over the network, failed transfers included
  std::uint64_t received_bytes = 0;
};

inline constexpr const char *status_format = "spoolcap-transfer-status";

// One JSON object. Bytes of names that are no UTF-8 become U+FFFD.
std::string status_json(const service_report &report);

// Aligned plain text without control characters, made from that JSON. Nothing when it is not what
// status_json writes.
std::optional<std::string> status_for_people(std::string json);

// One line for the service manager.
std::string status_line(const service_report &report);

// What `--status` and `--drain` take from the running service at its socket. `error` is one line
// when there is no answer.
struct status_answer {
  std::optional<std::string> json;
  std::string error;
};
status_answer ask_status(const std::string &socket_path);

#endif
