// The state for people, made from its JSON.
// In the process of the command: an older or newer service may have sent it.
#include <rapidjson/document.h>

#include <cinttypes>
#include <cstdio>

#include "platform/base/utf8.h"
#include "transfer/status.h"

namespace {

using rapidjson::Value;

// Members that are not there, or of another type, read as nothing.
const Value &member(const Value &object, const char *name) {
  static const Value none;
  if (!object.IsObject()) return none;
  const auto found = object.FindMember(name);
  return found == object.MemberEnd() ? none : found->value;
}

double number(const Value &object, const char *name) {
  const Value &value = member(object, name);
  return value.IsNumber() ? value.GetDouble() : 0;
}

// An older or newer service may leave a member out; 0 is shown then.
std::int64_t whole(const Value &object, const char *name) {
  const Value &value = member(object, name);
  return value.IsInt64() ? value.GetInt64() : 0;
}

// On a terminal, control characters of a name would be commands.
std::string text(const Value &object, const char *name) {
  const Value &value = member(object, name);
  return value.IsString() ? without_controls({value.GetString(), value.GetStringLength()}) : "";
}

std::string count(const Value &object, const char *name) {
  return std::to_string(whole(object, name));
}

// In the largest unit that still has two of it, so that no figure is far off.
std::string duration(double seconds) {
  const auto all = static_cast<std::int64_t>(seconds > 0 ? seconds + 0.5 : 0);
  if (all < 120) return std::to_string(all) + " s";
  if (all < 7200) return std::to_string(all / 60) + " min";
  if (all < 172'800) return std::to_string(all / 3600) + " h";
  return std::to_string(all / 86'400) + " d";
}

// Binary units, as the directives of sizes have them.
std::string size(std::int64_t bytes) {
  constexpr const char *units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  auto scaled = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; scaled >= 1024 && unit + 1 < std::size(units); ++unit) scaled /= 1024;
  char shown[40];
  std::snprintf(shown, sizeof shown, unit == 0 ? "%.0f %s" : "%.1f %s", scaled, units[unit]);
  return shown;
}

// Widths of the columns are for ASCII words; names of locations have nothing else.
std::string padded(std::string word, std::size_t width) {
  if (word.size() < width) word.resize(width, ' ');
  return word;
}

std::string line(const std::string &word, const std::string &rest) {
  return "  " + padded(word, 11) + " " + rest + "\n";
}

std::string oldest(const Value &queue, const char *name) {
  return member(queue, name).IsNumber() ? ", oldest " + duration(number(queue, name)) : "";
}

std::string queues(const Value &queue) {
  std::string shown = "Queues\n";
  // Zeros would look like empty queues.
  if (!member(queue, "reachable").IsTrue()) {
    shown += "  not known: the cache server does not answer\n";
  } else {
    shown += line("uploads", count(queue, "uploads") + " of this node" +
                                 oldest(queue, "oldest_upload_age") + "; " +
                                 count(queue, "all_uploads") + " of all nodes");
    // A node that is off, or none, may have it.
    if (whole(queue, "all_uploads") > whole(queue, "uploads")) {
      shown += line("oldest", text(queue, "oldest_of_all") + ", for " +
                                  duration(number(queue, "oldest_of_all_age")));
    }
    shown += line("deletes", count(queue, "deletes") + oldest(queue, "oldest_delete_age"));
  }
  const std::string refusal = text(queue, "refusal");
  if (!refusal.empty()) shown += line("REFUSED", "the cache server changes nothing: " + refusal);
  const std::string policy = text(queue, "dangerous_policy");
  if (!policy.empty()) {
    shown += line("DANGER", "maxmemory-policy " + policy +
                                " of the cache server may throw queues away; set noeviction");
  }
  return shown;
}

std::string locations(const Value &list, double now) {
  std::string shown = "Locations\n";
  if (!list.IsArray()) return shown;
  for (const Value &location : list.GetArray()) {
    const std::string state = text(location, "state");
    std::string rest = state;
    // Why, and until when: the two questions that a person has.
    if (state != "up") {
      rest += " after " + count(location, "failures") + " failures, next try in " +
              duration(number(location, "retry_at") - now) + ": " + text(location, "reason");
    }
    shown += line(text(location, "name"), rest);
  }
  return shown;
}

std::string running(const Value &list, double now) {
  if (!list.IsArray() || list.Empty()) return "Running\n  nothing\n";
  std::string shown = "Running\n";
  for (const Value &job : list.GetArray()) {
    shown += line(text(job, "kind"),
                  text(job, "name") + ", for " + duration(now - number(job, "since")));
  }
  return shown;
}

std::string parked(const Value &state, double now) {
  const Value &list = member(state, "parked");
  if (!list.IsArray() || list.Empty()) return "Parked\n  nothing\n";
  std::string shown = "Parked\n";
  for (const Value &entry : list.GetArray()) {
    shown += "  " + text(entry, "member") + "\n    " + text(entry, "reason") + " (for " +
             duration(now - number(entry, "since")) + ", tries: " + count(entry, "tries") +
             ", next in " + duration(number(entry, "retry_at") - now) + ")\n";
  }
  const std::int64_t others = whole(state, "parked_count") - std::int64_t{list.Size()};
  if (others > 0) shown += "  and " + std::to_string(others) + " more, parked later\n";
  return shown;
}

std::string waiting(const Value &state) {
  const std::string others = count(state, "waiting");
  return others == "0" ? "" : "Failed, and tried again soon\n  " + others + "\n";
}

std::string cache(const Value &cached, double now) {
  // -1 stands for a look that is still to come.
  if (whole(cached, "files") < 0) return "Cache\n  not looked through yet\n";
  std::string shown = "Cache\n";
  shown +=
      line("files", count(cached, "files") + ", " + size(whole(cached, "bytes")) +
                        ", looked through " + duration(now - number(cached, "last_look")) + " ago");
  const std::int64_t missing = whole(cached, "not_in_store");
  if (missing > 0) {
    shown += line("WARNING", std::to_string(missing) +
                                 " stored files are not in the store any more; kept in the cache");
  }
  const std::int64_t different = whole(cached, "different");
  if (different > 0) {
    shown += line("WARNING", std::to_string(different) +
                                 " stored files are not what the store has; kept in the cache");
  }
  return shown;
}

std::string counters(const Value &all) {
  const auto row = [&](const char *done, const char *bytes, const char *failures) {
    std::string rest = count(all, done);
    if (bytes != nullptr) rest += ", " + size(whole(all, bytes));
    if (failures != nullptr) rest += ", failed tries " + count(all, failures);
    return line(done, rest);
  };
  return "Since the start\n" + row("uploads", "upload_bytes", "upload_failures") +
         row("downloads", "download_bytes", "download_failures") +
         row("deletes", nullptr, "delete_failures") + row("evicted", "evicted_bytes", nullptr) +
         line("put right",
              count(all, "queued_again") + " queued again, " + count(all, "swept") + " swept") +
         line("network", size(whole(all, "sent_bytes")) + " sent, " +
                             size(whole(all, "received_bytes")) + " received");
}

}  // namespace

std::optional<std::string> status_for_people(std::string json) {
  rapidjson::Document state;
  // In place: the text is our own copy, and a status may be long.
  state.ParseInsitu(json.data());
  if (state.HasParseError() || text(state, "format") != status_format) return std::nullopt;
  const double now = number(state, "now");
  return "spoolcap-transfer " + text(state, "version") + ", node " + text(state, "node") +
         ", running for " + duration(now - number(state, "started")) + "\n\n" +
         queues(member(state, "queue")) + locations(member(state, "locations"), now) +
         running(member(state, "running"), now) + parked(state, now) + waiting(state) +
         cache(member(state, "cache"), now) + counters(member(state, "counters"));
}
