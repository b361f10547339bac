// A real object store for tests: radosgw over a monitor and one object server in memory.
//
// It starts in one to three seconds, in a private folder and on free ports of 127.0.0.1. What does
// not come up throws std::runtime_error with its log.
#ifndef TESTS_SUPPORT_OBJECT_STORE_H
#define TESTS_SUPPORT_OBJECT_STORE_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/s3/client.h"
#include "tests/support/servers.h"

namespace support {

// start, stop, kill_hard and pause are those of radosgw: what is stored outlives them. After
// kill_hard it makes no bucket for half a minute.
class object_store : public server {
 public:
  object_store();
  std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port()); }

 private:
  bool set_up();

  std::unique_ptr<background_process> monitor_, objects_;
};

// The keys that each store of the tests knows.
s3_credentials store_credentials();

// A new bucket in the store at `endpoint`.
s3_place new_bucket(const std::string &endpoint, const s3_credentials &keys = store_credentials());

// The endpoint of the store that the testbed started for all tests of a run (testbed
// --object-store). Throws without one.
std::string shared_object_store();

inline constexpr const char *object_store_variable = "SPOOLCAP_TEST_OBJECT_STORE";
// The access key where these tests are run against a store of another kind, by hand.
inline constexpr const char *store_key_variable = "SPOOLCAP_TEST_STORE_KEY";

// An open file without a name that holds these bytes, and its digests.
class stored_bytes {
 public:
  explicit stored_bytes(std::string_view content);
  const s3_body &body() const { return body_; }
  s3_body part(std::int64_t offset, std::int64_t length) const;

 private:
  unique_fd fd_;
  s3_body body_;
};

// What the file holds, from its start.
std::string content_of(int fd);

}  // namespace support

#endif
