// An object store as clients see it: a bucket that is made and emptied, and the commands of other
// people's clients.
#ifndef BENCH_STORE_CLIENTS_H
#define BENCH_STORE_CLIENTS_H

#include <string>
#include <vector>

#include "platform/s3/client.h"
#include "tests/support/process.h"

namespace bench {

struct client_command {
  std::vector<std::string> argv;
  support::process_options options;
};

// Copies a folder to the bucket. What is set on this machine for all clients does not reach them.
client_command rclone_copy(const s3_place &place, const std::string &folder);
client_command s3cmd_sync(const s3_place &place, const std::string &folder);
client_command aws_copy(const s3_place &place, const std::string &folder);

// How many objects the bucket has, and their bytes in all.
struct bucket_content {
  int count = 0;
  std::int64_t bytes = 0;
  bool operator==(const bucket_content &) const = default;
};
// Removes them, so that a store in memory has room for the next.
bucket_content count_and_empty(const s3_place &place);

}  // namespace bench

#endif
