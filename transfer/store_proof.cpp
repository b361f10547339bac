// Asks the store whether it has a cached file, and the same one.
// On the keeper's thread; reads store and file, and changes nothing.
#include "transfer/store_proof.h"

#include <charconv>
#include <cstring>

#include "platform/base/number.h"
#include "platform/s3/digest.h"
#include "transfer/queue.h"

namespace {

// One file, asked about at several locations. Borrows all.
struct question {
  const cache_file &file;
  const std::optional<receipt> &known;
  const std::atomic<bool> &stop;
  std::int64_t part_size;
};

// The number behind the "-" of an object that was stored in parts, else 0.
int parts_of(const std::string &etag) {
  const std::size_t dash = etag.find('-');
  int parts = 0;
  if (dash == std::string::npos) return 0;
  std::from_chars(etag.data() + dash + 1, etag.data() + etag.size(), parts);
  return parts;
}

// Nothing when not known: the file cannot be read, or the object has other parts than
// today's size gives. After a change of that size old objects cannot be proved.
std::optional<bool> has_content(const question &asked, const s3_answer &object) {
  const std::int64_t length = asked.file.status().st_size;
  if (object.length != length) return false;
  if (asked.known) return asked.known->etag == object.etag;
  const std::int64_t parts = parts_of(object.etag), size = parts == 0 ? 0 : asked.part_size;
  if (parts != 0 && (length + size - 1) / size != parts) return std::nullopt;
  // Last, as it reads the whole file.
  const auto own = etag_of(asked.file.fd(), length, size, asked.stop);
  if (!own) return std::nullopt;
  return *own == object.etag;
}

// Which node stored it; empty where it is not noted.
std::string noted_node(const s3_answer &object) {
  const auto node = object.metadata.find("node");
  return node == object.metadata.end() ? std::string() : node->second;
}

// Nothing when the location rests or fails.
std::optional<s3_answer> head(transfer_locations &locations, const std::string &name,
                              const std::string &key) {
  const auto permit = locations.start(name);
  if (!permit) return std::nullopt;
  auto client = locations.client(name);
  if (!client) return std::nullopt;
  s3_answer answer = client->head(key);
  client.tell(answer);
  // Only these two say whether the object is there.
  const bool told =
      answer || (answer.outcome == s3_outcome::not_found && answer.code != "NoSuchBucket");
  return told ? std::optional(std::move(answer)) : std::nullopt;
}

std::vector<std::string> in_order(const transfer_config &config, int first_id) {
  const std::string &own = config.location_of(first_id);
  std::vector<std::string> names{own};
  for (const transfer_location &location : config.locations) {
    if (location.name != own) names.push_back(location.name);
  }
  return names;
}

}  // namespace

std::optional<std::string> etag_of(int fd, std::int64_t length, std::int64_t part_size,
                                   const std::atomic<bool> &stop) {
  const std::int64_t step = part_size == 0 ? length : part_size;
  std::string digests;
  std::int64_t offset = 0;
  do {
    s3_body body{.fd = fd, .offset = offset, .length = std::min(step, length - offset)};
    if (!s3_digest(body, &stop, s3_digests::md5)) return std::nullopt;
    digests += body.md5;
    offset += body.length;
  } while (offset < length);
  if (part_size == 0) return s3_hex(digests);
  return s3_hex(s3_md5(digests)) + "-" + std::to_string((length + step - 1) / step);
}

std::optional<int> first_id_of(std::string_view key) {
  const std::size_t kind = key.find('/');
  if (kind == std::string_view::npos) return std::nullopt;
  const std::size_t first = key.find('/', kind + 1);
  if (first == std::string_view::npos) return std::nullopt;
  const std::size_t second = key.find('/', first + 1);
  if (second == std::string_view::npos) return std::nullopt;
  if (key.find('/', second + 1) != std::string_view::npos) return std::nullopt;
  return whole_number<int>(key.substr(kind + 1, first - kind - 1));
}

store_answer ask_store(transfer_locations &locations, const transfer_config &config,
                       const std::string &key, const cache_file &file,
                       const std::optional<receipt> &known, const std::atomic<bool> &stop) {
  const question asked{.file = file, .known = known, .stop = stop, .part_size = config.part_size};
  store_answer result{.result = proof::absent, .found = {}, .node = {}, .queued = 0};
  bool is_unsure = false;
  for (const std::string &name : in_order(config, first_id_of(key).value_or(0))) {
    const auto object = head(locations, name, key);
    if (!object) {
      // Does not take back `different`: another object was seen, whatever this location has.
      if (result.result == proof::absent) result.result = proof::unknown;
      continue;
    }
    const auto is_same = *object ? has_content(asked, *object) : false;
    if (!is_same) {
      is_unsure = true;
    } else if (*is_same) {
      return {.result = proof::stored,
              .found = {.etag = object->etag,
                        .length = object->length,
                        .is_fetched = noted_node(*object) != config.node},
              .node = {},
              .queued = 0};
    } else if (*object) {
      result.result = proof::different;
      result.node = noted_node(*object);
      const auto queued = object->metadata.find("queued");
      if (queued != object->metadata.end()) {
        result.queued = queue_entry{"", queued->second}.queued_at();
      }
    }
  }
  if (is_unsure) result.result = proof::unknown;
  return result;
}
