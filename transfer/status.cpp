// The state as JSON, and as one line.
// In memory only, on the reporter's thread or the main one.
#include "transfer/status.h"

#include <cmath>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "platform/base/utf8.h"
#include "transfer/counters.h"

namespace {

using json_writer = rapidjson::Writer<rapidjson::StringBuffer>;

void put(json_writer &json, const char *name, const std::string &text) {
  // Keys come from queues that anybody on the node may write.
  const std::string valid = valid_utf8(text);
  json.Key(name);
  json.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

// One overload for each type; callers name the type where a number could be either.
void put(json_writer &json, const char *name, std::int64_t number) {
  json.Key(name);
  json.Int64(number);
}

void put(json_writer &json, const char *name, double seconds) {
  json.Key(name);
  json.Double(seconds);
}

void put(json_writer &json, const char *name, bool truth) {
  json.Key(name);
  json.Bool(truth);
}

// null for nothing queued, as 0 would be a member that has just come.
void put_age(json_writer &json, const char *name, double since, double now) {
  json.Key(name);
  // A score that a person set may be infinite, for which JSON has no text.
  if (since > 0 && std::isfinite(since)) {
    json.Double(now - since);
  } else {
    json.Null();
  }
}

void put_queue(json_writer &json, const service_report &report) {
  json.Key("queue");
  json.StartObject();
  put(json, "reachable", report.queue.has_value());
  put(json, "dangerous_policy", report.dangerous_policy);
  put(json, "refusal", report.refusal);
  if (report.queue) {
    put(json, "uploads", std::int64_t{report.queue->uploads});
    put(json, "all_uploads", std::int64_t{report.queue->all_uploads});
    put(json, "deletes", std::int64_t{report.queue->deletes});
    put_age(json, "oldest_upload_age", report.queue->oldest_upload, report.now);
    put_age(json, "oldest_delete_age", report.queue->oldest_delete, report.now);
    put_age(json, "oldest_of_all_age", report.queue->oldest_of_all, report.now);
    put(json, "oldest_of_all", report.queue->oldest_member);
  }
  json.EndObject();
}

template <class Row, class Body>
void put_list(json_writer &json, const char *name, const std::vector<Row> &rows, Body body) {
  json.Key(name);
  json.StartArray();
  for (const Row &row : rows) {
    json.StartObject();
    body(row);
    json.EndObject();
  }
  json.EndArray();
}

void put_lists(json_writer &json, const service_report &report) {
  put_list(json, "locations", report.locations, [&](const location_report &location) {
    put(json, "name", location.name);
    put(json, "state", location.state);
    put(json, "reason", location.reason);
    put(json, "failures", std::int64_t{location.failures});
    // Moments, not spans: a status that is read later still holds.
    put(json, "retry_at", location.retry_at);
  });
  put_list(json, "running", report.running, [&](const running_job &job) {
    put(json, "kind", job.kind);
    put(json, "name", job.name);
    put(json, "since", job.since);
  });
  put_list(json, "parked", report.parked, [&](const parked_member &parked) {
    put(json, "member", parked.member);
    put(json, "reason", parked.reason);
    put(json, "since", parked.since);
    put(json, "retry_at", parked.next);
    put(json, "tries", std::int64_t{parked.tries});
  });
}

void put_cache(json_writer &json, const keeper_report &cache) {
  json.Key("cache");
  json.StartObject();
  put(json, "files", cache.cached_files);
  put(json, "bytes", cache.cached_bytes);
  put(json, "not_in_store", cache.not_in_store);
  put(json, "different", cache.different);
  put(json, "last_look", cache.last_look);
  json.EndObject();
}

void put_counters(json_writer &json, const service_report &report) {
  json.Key("counters");
  json.StartObject();
  for (const counter_name &row : counter_names) {
    json.Key(row.name);
    json.Uint64(report.counters == nullptr ? 0 : (report.counters->*row.counter).load());
  }
  json.Key("sent_bytes");
  json.Uint64(report.sent_bytes);
  json.Key("received_bytes");
  json.Uint64(report.received_bytes);
  json.EndObject();
}

}  // namespace

std::string status_json(const service_report &report) {
  rapidjson::StringBuffer buffer;
  json_writer json(buffer);
  // Milliseconds; more digits of a time would only be noise.
  json.SetMaxDecimalPlaces(3);
  json.StartObject();
  // First, so that readers know what they have before they go on.
  put(json, "format", std::string(status_format));
  // Raised when a member changes its meaning; new members may come without.
  put(json, "format_version", std::int64_t{1});
  put(json, "version", std::string(SPOOLCAP_VERSION));
  put(json, "node", report.node);
  put(json, "started", report.started);
  put(json, "now", report.now);
  put(json, "idle", report.idle);
  put_queue(json, report);
  put_lists(json, report);
  put(json, "parked_count", static_cast<std::int64_t>(report.parked_count));
  put(json, "waiting", static_cast<std::int64_t>(report.waiting));
  put_cache(json, report.cache);
  put_counters(json, report);
  json.EndObject();
  return {buffer.GetString(), buffer.GetSize()};
}

std::string status_line(const service_report &report) {
  std::string line;
  if (report.queue) {
    line = std::to_string(report.queue->uploads) + " uploads and " +
           std::to_string(report.queue->deletes) + " deletes queued";
  } else {
    line = "the cache server does not answer";
  }
  if (!report.refusal.empty()) line += ", which the cache server does not let change";
  line += ", " + std::to_string(report.running.size()) + " running, " +
          std::to_string(report.parked_count) + " parked";
  for (const location_report &location : report.locations) {
    if (location.state != "up") line += "; " + location.name + " " + location.state;
  }
  return line;
}
