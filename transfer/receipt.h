// The receipt of a cached file: that the object store has it, noted in an extended attribute of the
// file itself. A new file under the same name has none. Where the file system keeps no attributes,
// there are no receipts, and the store is asked instead.
#ifndef TRANSFER_RECEIPT_H
#define TRANSFER_RECEIPT_H

#include <cstdint>
#include <optional>
#include <string>

// The ETag that the store gave, without quotes, and the length of the file.
struct receipt {
  std::string etag;
  std::int64_t length = 0;
  // It came from the store: the file was not committed here.
  bool is_fetched = false;
};

// Empty when there is none, or none for a file of this length.
std::optional<receipt> read_receipt(int fd);
// Whether the file system keeps receipts.
bool can_have_receipt(int fd);
// 0, or the error number.
int write_receipt(int fd, const receipt &what);

#endif
