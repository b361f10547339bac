// Proof that the store has a cached file: the same length, and the same content by its ETag.
#ifndef TRANSFER_STORE_PROOF_H
#define TRANSFER_STORE_PROOF_H

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "main/transfer/config.h"
#include "platform/s3/client.h"
#include "transfer/cache_file.h"
#include "transfer/locations.h"
#include "transfer/receipt.h"

// The ETag of an open file that is stored in parts of this size, or in one request for 0. Nothing,
// with errno, when the file cannot be read.
std::optional<std::string> etag_of(int fd, std::int64_t length, std::int64_t part_size,
                                   const std::atomic<bool> &stop);

// The first id of an object key, "<kind>/<first id>/<second id>/<name>"; nothing for another name.
std::optional<int> first_id_of(std::string_view key);

enum class proof {
  stored,     // a location has this very file
  different,  // a location has another object of that name, and none has this file
  absent,     // no location has an object of that name
  unknown     // not all could be asked, or an object could not be compared
};

// `node` and `queued` come from the metadata of the object that is different.
struct store_answer {
  proof result = proof::unknown;
  receipt found;      // when stored
  std::string node;   // which stored the object that is different
  double queued = 0;  // when that was queued, seconds since the epoch; 0 where it is not noted
};

// Asks all locations, that of new files of the owner first. With a receipt the file is not read.
store_answer ask_store(transfer_locations &locations, const transfer_config &config,
                       const std::string &key, const cache_file &file,
                       const std::optional<receipt> &known, const std::atomic<bool> &stop);

#endif
