// Whether the cache server and the locations answer as they must.
// Stores one object in each location, and removes it; reads the DisDB.
#include <spoolcap/zarn_str.h>
#include <spoolcap/zarn_velkan.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>

#include "platform/velkan/command.h"
#include "transfer/locations.h"
#include "transfer/probe.h"
#include "transfer/queue.h"

namespace {

// Within it the order of deletions and uploads of several nodes is not certain.
constexpr double tolerated_seconds = 1;
// The times of a store are whole seconds, and a transfer takes some.
constexpr double tolerated_of_store = 30;

constexpr std::string_view probe_content = "spoolcap-transfer --check";

std::string seconds(double difference) {
  return std::to_string(std::llround(std::abs(difference))) + " s";
}

void check_server_clock(vk_client_t *client, check_report &report) {
  constexpr std::string_view words[] = {"TIME"};
  vk_reply reply;
  // A server that does not tell its time leaves this unknown, which is no fault.
  if (vk_run(client, words, reply) != VK_OK || reply->elements != 2) return;
  const double difference = qx_get_tstamp() - std::strtod(reply->element[0]->str, nullptr) -
                            std::strtod(reply->element[1]->str, nullptr) / 1e6;
  if (std::abs(difference) > tolerated_seconds) {
    report.wrong("clock of cache server",
                 "differs from this one by " + seconds(difference) + ": synchronise both");
  } else {
    report.good("clock of cache server", "as this one");
  }
}

// A file in memory.
struct memory_file {
  memory_file() : fd(::memfd_create("spoolcap-probe", MFD_CLOEXEC)) {}
  bool holds(std::string_view content) const {
    char bytes[64];
    const ssize_t length = ::pread(fd.get(), bytes, sizeof bytes, 0);
    return length >= 0 && std::string_view(bytes, static_cast<std::size_t>(length)) == content;
  }
  unique_fd fd;
};

std::string failed(const char *what, const s3_answer &answer) {
  return std::string(what) + ": " + (answer.text.empty() ? answer.code : answer.text);
}

// What is wrong with the object that was just written, or nothing.
std::string read_probe(s3_client &client, const std::string &key, double &difference) {
  const double now = qx_get_tstamp();
  const memory_file got;
  if (!got.fd) return "no memory for a probe";
  if (const s3_answer get = client.get(key, got.fd.get()); !get) return failed("reading", get);
  if (!got.holds(probe_content)) return "reading: what came back is not what was written";
  const s3_listing listing = client.list(key);
  if (!listing.answer) return failed("listing", listing.answer);
  for (const s3_listed &object : listing.objects) {
    // Infinite where the store tells no time.
    if (object.key == key && std::isfinite(object.modified)) difference = now - object.modified;
  }
  return "";
}

// What is wrong with the location, or nothing. `difference` takes that of the clocks.
std::string probe(s3_client &client, const std::string &key, double &difference) {
  const memory_file sent;
  if (!sent.fd || ::pwrite(sent.fd.get(), probe_content.data(), probe_content.size(), 0) < 0) {
    return "no memory for a probe";
  }
  s3_body body{.fd = sent.fd.get(),
               .offset = 0,
               .length = static_cast<std::int64_t>(probe_content.size()),
               .md5 = {},
               .sha256 = {}};
  if (!s3_digest(body)) return "no memory for a probe";
  if (const s3_answer put = client.put(key, body); !put) return failed("writing", put);
  std::string fault = read_probe(client, key, difference);
  const s3_answer gone = client.remove(key);
  return fault.empty() && !gone ? failed("deleting", gone) : fault;
}

void check_location(transfer_locations &locations, const std::string &name, const std::string &key,
                    check_report &report) {
  const auto client = locations.client(name);
  double difference = 0;
  const std::string what = "location " + name;
  const std::string fault = client ? probe(*client.operator->(), key, difference) : "not known";
  if (!fault.empty()) return report.wrong(what, fault);
  if (std::abs(difference) > tolerated_of_store) {
    return report.wrong(
        what, "its clock differs from this one by " + seconds(difference) + ": set the time here");
  }
  report.good(what, "written, read, listed and deleted");
}

}  // namespace

void check_cache_server(const transfer_config &config, check_report &report) {
  vk_client_t *client = nullptr;
  const bool is_set_up = ast_vk_init(&client) == 0;
  transfer_queue queue(client, config.node);
  if (!is_set_up) {
    return report.wrong("cache server", "none is configured: see disdbase.conf and local.conf");
  }
  vk_set_patient(client);
  const auto summary = queue.summary();
  if (!summary) {
    return report.wrong("cache server", "it does not answer: see DISDBASE_HOST in disdbase.conf");
  }
  report.good("cache server", "answers, uploads queued here: " + std::to_string(summary->uploads));
  check_server_clock(client, report);
  const auto policy = queue.dangerous_policy();
  if (!policy) {
    report.note("eviction",
                "unknown, not told by the cache server: make sure that it is noeviction");
  } else if (!policy->empty()) {
    report.wrong("eviction",
                 "maxmemory-policy " + *policy + " may throw queues away: set it to noeviction");
  } else {
    report.good("eviction", "the queues are not thrown away");
  }
}

void check_locations(const transfer_config &config, check_report &report) {
  // Its own: the check runs in a process without a service.
  s3_control control;
  transfer_locations locations(control);
  const std::string refused = locations.configure(config);
  if (!refused.empty()) return report.wrong("keys", refused);
  report.good("keys", config.credentials_file);
  // Keys of files begin with their kind.
  const std::string key = ".spoolcap/check-" + config.node;
  for (const transfer_location &location : config.locations) {
    check_location(locations, location.name, key, report);
  }
}
