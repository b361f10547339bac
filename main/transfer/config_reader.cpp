// Reads transfer.conf.
// Read by hosts and by the service; nothing is changed, and nothing is kept.
#include <sys/un.h>

#include <cstring>

#include <spoolcap/zarn_str.h>
#include "common/paths.h"
#include "main/storage/names.h"
#include "main/transfer/config.h"
#include "main/transfer/values.h"
#include "platform/base/line_reader.h"
#include "platform/base/owner.h"
#include "platform/base/parseconfig.h"
#include "platform/base/view.h"

namespace {

// Directives count in these; the configuration holds bytes.
constexpr std::int64_t kib = 1 << 10, mib = 1 << 20, gib = 1 << 30;

std::string read_path(std::string_view value, std::string &path) {
  if (!value.starts_with('/')) return "an absolute path is expected";
  path = value;
  return "";
}

// A path that no address can hold would fail only when a host connects.
std::string read_socket(std::string_view value, transfer_config &config) {
  if (value.size() >= sizeof sockaddr_un{}.sun_path) return "the path is too long for a socket";
  return read_path(value, config.socket);
}

// The bounds are those of the value as typed.
struct number_directive {
  std::string_view keyword;
  std::int64_t least, most;
  void (*take)(transfer_config &config, std::int64_t number);
};
constexpr number_directive numbers[] = {
    {"TRANSFER_UPLOADS", 1, 256,
     [](auto &config, auto n) { config.uploads = static_cast<int>(n); }},
    {"TRANSFER_DOWNLOADS", 1, 256,
     [](auto &config, auto n) { config.downloads = static_cast<int>(n); }},
    {"TRANSFER_RATE", 0, 1 << 30, [](auto &config, auto n) { config.bytes_per_second = n * kib; }},
    // A part has at least 5 MiB, and what goes in one request at most 5 GiB.
    {"TRANSFER_MULTIPART", 5, 5120, [](auto &config, auto n) { config.multipart_from = n * mib; }},
    {"TRANSFER_PART", 5, 5120, [](auto &config, auto n) { config.part_size = n * mib; }},
    {"TRANSFER_WAIT", 0, 3600, [](auto &config, auto n) { config.wait = static_cast<int>(n); }},
    {"TRANSFER_CACHE_SIZE", 0, 1 << 30, [](auto &config, auto n) { config.cache_size = n * gib; }},
    {"TRANSFER_CACHE_FREE", 0, 99,
     [](auto &config, auto n) { config.cache_free = static_cast<int>(n); }},
};

struct path_directive {
  std::string_view keyword;
  std::string transfer_config::*field;
};
constexpr path_directive paths[] = {
    {"TRANSFER_CREDENTIALS", &transfer_config::credentials_file},
    {"TRANSFER_CA", &transfer_config::ca_file},
    {"TRANSFER_METRICS", &transfer_config::metrics_file},
};

// Reads the file, line by line.
class config_reader {
 public:
  explicit config_reader(const char *path) : path_(path) {
    config_.credentials_file = qx_path(QX_PATH_TRANSFER_KEYS);
    config_.socket = qx_path(QX_PATH_TRANSFER_SOCKET);
  }

  transfer_reading read() {
    line_reader lines(path_);
    if (!lines) return {std::nullopt, at(0, std::strerror(errno))};
    while (const auto line = lines.next()) {
      ++line_;
      const parseconfig_line found = split_config_line(*line);
      if (found.keyword.empty()) continue;
      // The first mistake ends it: later lines may be wrong only because of it.
      const std::string wrong = take(found.keyword, found.value);
      if (!wrong.empty()) {
        return {std::nullopt, at(line_, std::string(found.keyword) + ": " + wrong)};
      }
    }
    if (lines.failed()) return {std::nullopt, at(0, "cannot be read to its end")};
    std::string wrong = check_names();
    if (wrong.empty()) wrong = take_node();
    if (!wrong.empty()) return {std::nullopt, std::move(wrong)};
    return {std::move(config_), ""};
  }

 private:
  // A line of 0 is the file as a whole.
  std::string at(int line, const std::string &text) const {
    return std::string(path_) + (line > 0 ? ":" + std::to_string(line) : "") + ": " + text;
  }

  std::string take(std::string_view keyword, std::string_view value) {
    // Numbers, then paths, then those with a form of their own.
    for (const number_directive &one : numbers) {
      if (one.keyword != keyword) continue;
      std::int64_t number = 0;
      if (!read_number(value, one.least, one.most, number)) {
        return "a number from " + std::to_string(one.least) + " to " + std::to_string(one.most) +
               " is expected, not " + quoted(value);
      }
      one.take(config_, number);
      return "";
    }
    for (const path_directive &one : paths) {
      if (one.keyword == keyword) return read_path(value, config_.*one.field);
    }
    if (keyword == "TRANSFER_SOCKET") return read_socket(value, config_);
    if (keyword == "TRANSFER_LOCATION") return read_location(value, config_);
    if (keyword == "TRANSFER_OWNER") return read_owner(value);
    if (keyword != "TRANSFER_DEFAULT") return "no such directive";
    config_.default_location = value;
    named_.push_back({std::string(keyword), config_.default_location, line_});
    return "";
  }

  std::string read_owner(std::string_view value) {
    const std::vector<std::string_view> fields = fields_of(value);
    std::int64_t id = 0;
    if (fields.size() != 2 || !read_number(fields[0], 0, INT32_MAX, id)) {
      return "expected: first-id name";
    }
    const auto [owner, is_new] = config_.owner_locations.emplace(static_cast<int>(id), fields[1]);
    if (!is_new) return "first id " + std::string(fields[0]) + " has a location already";
    named_.push_back({"TRANSFER_OWNER", owner->second, line_});
    return "";
  }

  // Locations may be named before their own line.
  std::string check_names() {
    if (config_.locations.empty()) return at(0, "TRANSFER_LOCATION is missing");
    if (config_.default_location.empty() && config_.locations.size() > 1) {
      return at(0, "TRANSFER_DEFAULT is missing, and there are several locations");
    }
    for (const auto &[keyword, name, line] : named_) {
      if (config_.find(name) == nullptr) {
        return at(line, keyword + ": there is no location " + quoted(name));
      }
    }
    // One location is the default without being named.
    if (config_.default_location.empty()) config_.default_location = config_.locations[0].name;
    return "";
  }

  // The node stands between the "@" and the ":" of what is queued.
  std::string take_node() {
    const c_string id(get_nodeid());
    const char *const file = qx_path(QX_PATH_NODE_ID);
    if (is_empty(id.get())) return std::string(file) + ": the id of this node is missing";
    config_.node = id.get();
    if (config_.node.find_first_of("@/") != config_.node.npos || has_reserved_byte(config_.node)) {
      return std::string(file) +
             ":1: the id of this node has a \":\", a \"@\", a \"/\" or a control byte";
    }
    return "";
  }

  struct named_location {
    std::string keyword;
    std::string name;
    int line;
  };

  const char *path_;
  int line_ = 0;
  transfer_config config_;
  std::vector<named_location> named_;
};

}  // namespace

transfer_reading read_transfer_config() {
  return config_reader(qx_path(QX_PATH_TRANSFER_CONF)).read();
}
