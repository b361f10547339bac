// What goes to an object store and what comes from it, as all files of the client know it.
#ifndef PLATFORM_S3_TYPES_H
#define PLATFORM_S3_TYPES_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Secrets: never logged, and never part of an answer's text.
struct s3_credentials {
  std::string access_key;
  std::string secret_key;
  std::string session_token;  // empty for none
};

// One place in an object store. Keys of the calls below are put directly behind `prefix`.
struct s3_place {
  std::string endpoint;  // URL with scheme and host, perhaps a port: "https://s3.eu.example.com"
  std::string region;
  std::string bucket;
  bool virtual_host = false;  // bucket in the host name instead of in the path
  std::string prefix;         // put in front of each key, may be empty
  std::string ca_file;        // certificates beside the system's; empty for none
  s3_credentials credentials;
};

// What a caller may conclude from a request. Try again: `busy`, `unreachable`, `unclear`,
// `damaged`. Give it to a person: `refused`, `local_error`.
enum class s3_outcome {
  done,
  not_found,    // the object, upload or bucket is not there (`code` tells which)
  changed,      // a condition failed: the object is not the one that was meant
  busy,         // the store asks for patience: 429, 503, any 5xx, throttling; retry later
  unreachable,  // nothing was sent: resolver, connect, TLS
  unclear,      // sent, at least in part, and no whole answer came: it may have happened
  damaged,      // answered, but what arrived is not what was sent; retry
  refused,      // 4xx that trying again cannot mend: rights, names, signature, clock
  local_error,  // the file here could not be read or written; errno in `error`
  stopped       // the caller's flag went up
};

// Filled in by every request. Members that the answer did not tell keep their defaults.
struct s3_answer {
  s3_outcome outcome = s3_outcome::unreachable;
  long status = 0;   // of HTTP; 0 without an answer
  std::string code;  // of the store's error document: "NoSuchBucket", "SlowDown"; may be empty
  std::string text;  // one line for people: what went wrong, and what to do where that is known
  int error = 0;     // errno of a local error
  // What the store asked for, 0 to 3600 s; empty when it asked for nothing.
  std::optional<std::chrono::seconds> retry_after;

  std::string etag;                             // without quotes
  std::string md5;                              // of GET: of what came, from byte 0; else empty
  std::int64_t length = -1;                     // of the object, or of the body that came
  std::map<std::string, std::string> metadata;  // of HEAD and GET, names in lower case, no prefix

  explicit operator bool() const { return outcome == s3_outcome::done; }
};

// A part of a file, by its offset and length, and its digests.
// The descriptor is borrowed and read by pread, so several threads may send parts of one file.
struct s3_body {
  int fd = -1;
  std::int64_t offset = 0;
  std::int64_t length = 0;
  std::string md5;     // 16 bytes
  std::string sha256;  // 32 bytes
};

// One object of a listing.
struct s3_listed {
  std::string key;  // without the place's prefix
  std::int64_t length = 0;
  std::string etag;
  // Seconds since the epoch by the store's clock; infinite when the store gives no time, so that
  // the object never looks old.
  double modified = 0;
};
// One page. After a failure there are no objects and no next page.
struct s3_listing {
  s3_answer answer;
  std::vector<s3_listed> objects;
  std::string next;  // token of the next page; empty at the end
};

// A part as the store has it, or as named to complete the object.
struct s3_part {
  int number = 0;  // from 1
  std::string etag;
  std::int64_t length = 0;
};
// All pages at once. After a failure, parts of earlier pages may be in it: look at the answer.
struct s3_part_listing {
  s3_answer answer;
  std::vector<s3_part> parts;
};

// An upload in parts that was begun and neither completed nor aborted.
struct s3_upload {
  std::string key;  // without the place's prefix
  std::string id;
  double initiated = 0;  // as in s3_listed
};
struct s3_upload_listing {
  s3_answer answer;
  std::vector<s3_upload> uploads;  // at most 20,000: done again after a sweep
  bool has_more = false;
};

// A key that could not be removed, with the store's code: "AccessDenied".
struct s3_failed_key {
  std::string key;
  std::string code;
};
struct s3_removal {
  s3_answer answer;                   // of the request as a whole
  std::vector<s3_failed_key> failed;  // keys that are still there; absent ones count as removed
};

// What all clients of a process share: a limit of the rate, and a flag that ends running calls.
struct s3_control {
  // Ends all running calls within some 200 ms; they answer `stopped`, as all later ones do.
  std::atomic<bool> stop{false};
  std::atomic<std::int64_t> bytes_per_second{0};  // both ways together; 0 for no limit
  // Times are read when a call begins to need them: change them only while none runs.
  std::chrono::milliseconds connect_timeout{5000};
  // Without a byte moving; four times as long for the answer to a body of 8 MiB or more, and to one
  // that names objects or parts.
  std::chrono::seconds stall_timeout{30};
  // A download that brings less than 4 KiB for each second of such a time ends, `unclear`. So does
  // an upload that sends less than 512 bytes a second, and an answer that takes ten such times.
  std::chrono::seconds trickle_window{60};
  // Told to the caller for its status: bytes of running transfers are added as they move.
  std::atomic<std::uint64_t> sent{0}, received{0};
  std::atomic<std::int64_t> booked_until{0};  // of the rate, by the clients themselves
};

// Names without "x-amz-meta-", and their values: text without control characters.
using s3_metadata = std::vector<std::pair<std::string, std::string>>;

#endif
