// The names that the protocol uses in the DisDB. Internal to transfer/queue*.cpp.
#ifndef TRANSFER_QUEUE_NAMES_H
#define TRANSFER_QUEUE_NAMES_H

#include "transfer/queue.h"

// The four sets of the protocol. Hosts write the first two under the same names.
inline constexpr std::string_view upload_queue = "storage:upqueue:s3:main";
inline constexpr std::string_view delete_queue = "storage:delqueue:s3:main";
inline constexpr std::string_view deletions = "storage:deleted:s3:main";
inline constexpr std::string_view unclear_ends = "storage:unclear:s3:main";

// A number as the DisDB reads it, whatever the process's locale has for a decimal point.
std::string queue_number(double value);

// What belongs to a key: its claim, and its members in the sets of deletions and unclear ends. The
// mark of a prefix says for a while that a deletion of all below it ended. A prefix is
// "<kind>/<first id>/<second id>".
struct upload_names {
  explicit upload_names(const upload_member &member);
  std::string claim, prefix_claim, prefix_mark;
  std::string deletion, prefix_deletion;
  std::string unclear;
};

// Built to match `upload_names`: an upload finds the deletion, the claim and the mark by the same
// texts.
struct delete_names {
  explicit delete_names(const delete_member &member);
  std::string claim, mark;
  std::string deletion;
  std::string unclear;  // of a prefix: what those of all its keys begin with
};

#endif
