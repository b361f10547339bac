// Writes the state as Prometheus text.
// On the main thread; writes one file, which is always whole.
#include "transfer/metrics.h"

#include <cstdio>

#include "common/replace_file.h"
#include "transfer/counters.h"

namespace {

void head(std::string &text, const std::string &name, const char *type, const char *help) {
  text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

// 15 digits: seconds since the epoch and bytes keep all of theirs.
std::string shown(double value) {
  char digits[40];
  std::snprintf(digits, sizeof digits, "%.15g", value);
  return digits;
}

void gauge(std::string &text, const char *name, const char *help, double value) {
  const std::string full = std::string("spoolcap_transfer_") + name;
  head(text, full, "gauge", help);
  text += full + " " + shown(value) + "\n";
}

void counter(std::string &text, const char *name, const char *help, std::uint64_t value) {
  const std::string full = std::string("spoolcap_transfer_") + name + "_total";
  head(text, full, "counter", help);
  text += full + " " + std::to_string(value) + "\n";
}

// 0 for nothing queued; a clock that was set back gives no negative age.
double age(double since, double now) {
  return since > 0 && now > since ? now - since : 0;
}

void put_queue(std::string &text, const service_report &report) {
  gauge(text, "disdb_up", "Whether the cache server answers, and lets the queues change.",
        report.queue && report.refusal.empty() ? 1 : 0);
  gauge(text, "disdb_may_evict", "Whether the cache server may throw queues away.",
        report.dangerous_policy.empty() ? 0 : 1);
  // No figures while they are not known: a gap in a graph is true, a zero is not.
  if (!report.queue) return;
  const queue_summary &queue = *report.queue;
  gauge(text, "queued_uploads", "Files of this node that wait for their upload.",
        static_cast<double>(queue.uploads));
  gauge(text, "queued_deletes", "Deletions that wait, of all nodes.",
        static_cast<double>(queue.deletes));
  gauge(text, "oldest_upload_age_seconds", "How long the oldest upload of this node waits.",
        age(queue.oldest_upload, report.now));
  gauge(text, "queued_uploads_all_nodes", "Files of all nodes that wait for their upload.",
        static_cast<double>(queue.all_uploads));
  gauge(text, "oldest_upload_all_nodes_age_seconds",
        "How long the oldest upload of all nodes waits.", age(queue.oldest_of_all, report.now));
  gauge(text, "oldest_delete_age_seconds", "How long the oldest deletion waits.",
        age(queue.oldest_delete, report.now));
}

void put_locations(std::string &text, const service_report &report) {
  head(text, "spoolcap_transfer_location_up", "gauge", "Whether the location is in use.");
  for (const location_report &location : report.locations) {
    text += "spoolcap_transfer_location_up{location=\"" + location.name + "\"} " +
            (location.state == "up" ? "1\n" : "0\n");
  }
}

void put_running(std::string &text, const service_report &report) {
  head(text, "spoolcap_transfer_running", "gauge", "Jobs that run.");
  // Every kind each time, or a series would end when nothing of its kind runs.
  for (const char *kind : {"upload", "delete", "download"}) {
    long running = 0;
    for (const running_job &job : report.running) running += job.kind == kind ? 1 : 0;
    text += std::string("spoolcap_transfer_running{kind=\"") + kind + "\"} " +
            std::to_string(running) + "\n";
  }
}

void put_cache(std::string &text, const keeper_report &cache) {
  // Before the first look nothing is known.
  if (cache.cached_files < 0) return;
  gauge(text, "cache_files", "Files in the cache at the last look.",
        static_cast<double>(cache.cached_files));
  gauge(text, "cache_bytes", "Bytes in the cache at the last look.",
        static_cast<double>(cache.cached_bytes));
  gauge(text, "cache_not_in_store", "Files that were stored and are not in the store any more.",
        static_cast<double>(cache.not_in_store));
  gauge(text, "cache_last_look_timestamp_seconds", "When the cache was looked through last.",
        cache.last_look);
}

}  // namespace

std::string metrics_text(const service_report &report) {
  std::string text;
  gauge(text, "start_time_seconds", "When the service started.", report.started);
  gauge(text, "parked", "Queue members that cannot be worked off for now.",
        static_cast<double>(report.parked_count));
  gauge(text, "waiting", "Queue members that failed, and are tried again soon.",
        static_cast<double>(report.waiting));
  put_queue(text, report);
  put_running(text, report);
  put_locations(text, report);
  put_cache(text, report.cache);
  for (const counter_name &row : counter_names) {
    counter(text, row.name, row.help,
            report.counters == nullptr ? 0 : (report.counters->*row.counter).load());
  }
  counter(text, "sent_bytes", "Bytes sent to stores, failed tries included.", report.sent_bytes);
  counter(text, "received_bytes", "Bytes received from stores, failed tries included.",
          report.received_bytes);
  return text;
}

int write_metrics(const std::string &path, const std::string &text) {
  // The umask of the service keeps others out; the collector is another user. It passes over names
  // that do not end in ".prom", like that of the file while it is written.
  return replace_file(path, text, 0644);
}
