// The queues in the DisDB, as the transfer service works them off. docs/transfer.md has the
// protocol.
//
// All functions may be called from several threads. Where the DisDB does not answer they give an
// empty optional or `down`; the caller tries again later, and nothing was changed that matters.
#ifndef TRANSFER_QUEUE_H
#define TRANSFER_QUEUE_H

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct vk_client;

// A member and its score, as the text in which the DisDB printed it.
struct queue_entry {
  std::string member;
  std::string score;
  double queued_at() const;  // seconds since the epoch
};

// "<location>@<node>:<key>"
struct upload_member {
  std::string location;
  std::string node;
  std::string key;
  static std::optional<upload_member> parse(std::string_view member);
};

// "<location>@<node>:o:<key>" or "<location>@<node>:r:<prefix>"
struct delete_member {
  std::string location;
  std::string node;
  bool whole_prefix = false;
  std::string key;  // or the prefix, without a slash at its end
  static std::optional<delete_member> parse(std::string_view member);
};

enum class queue_state {
  unchanged,  // the member has the score that was read
  renewed,    // it was queued again meanwhile
  gone,       // it is not in the queue any more
  deleted,    // a later deletion covers the key
  claimed,    // another service works on the key
  down        // the DisDB did not answer
};

// How much is queued, for the status.
struct queue_summary {
  long uploads = 0;      // of this node
  long all_uploads = 0;  // of all nodes
  long deletes = 0;
  double oldest_upload = 0;  // of this node, seconds since the epoch; 0 for none
  double oldest_delete = 0;
};

class transfer_queue {
 public:
  // `client` is taken and destroyed at the end. `node` is this node's id.
  transfer_queue(vk_client *client, std::string node);
  transfer_queue(const transfer_queue &) = delete;
  transfer_queue &operator=(const transfer_queue &) = delete;
  ~transfer_queue();

  // A page of this node's uploads, or of all deletes, oldest first, from the place `cursor` on,
  // which starts at 0 and is -1 after the last page. A page may be empty and not the last.
  std::optional<std::vector<queue_entry>> uploads(long &cursor);
  std::optional<std::vector<queue_entry>> deletes(long &cursor);

  // Claims the key of an upload for this process, and tells whether it is still to be done.
  // Only after `unchanged` and `deleted` the claim is held.
  queue_state begin_upload(const queue_entry &entry, const upload_member &member);
  // After the object was stored: removes the member if it is unchanged, and gives the claim back,
  // except for `deleted`: the object must go again, under the claim.
  queue_state end_upload(const queue_entry &entry, const upload_member &member);

  std::optional<queue_summary> summary();
  // Whether an upload of this key waits, by the text that its row has: "<location>@<node>".
  std::optional<bool> is_queued(std::string_view location_text, std::string_view key);
  // Queues a file of this node's cache again, unless a deletion covers it.
  queue_state queue_again(const upload_member &member);
  // The eviction policy of the DisDB when it may throw queues away, else empty.
  std::optional<std::string> dangerous_policy();

 private:
  std::unique_ptr<vk_client, void (*)(vk_client *)> client_;
  std::string node_;
};

#endif
