// The queues in the DisDB, as the transfer service works them off. docs/transfer.md has the
// protocol.
//
// All functions may be called from several threads. Where the DisDB does not answer they give an
// empty optional or `down`; the caller tries again later, and nothing was changed that matters:
// each change is one script, and one that runs twice does what it does once.
//
// A job claims its key, so that no other one works on it anywhere. What begins a job takes the
// claim, what ends it gives the claim back; `renew_claims` keeps it in between.
#ifndef TRANSFER_QUEUE_H
#define TRANSFER_QUEUE_H

#include <chrono>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/velkan/command.h"

struct queue_script;

// Seconds within which two clocks cannot tell which came first. The scripts reckon with it, too.
inline constexpr double clock_error = 1;

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
  // Nothing for what has no key. A member without a node is taken, with an empty one.
  static std::optional<upload_member> parse(std::string_view member);
};

// "<location>@<node>:o:<key>" or "<location>@<node>:r:<prefix>"
struct delete_member {
  std::string location;
  std::string node;
  bool whole_prefix = false;
  std::string key;  // or the prefix, without a slash at its end
  // Nothing for what is no deletion, and for one without a key.
  static std::optional<delete_member> parse(std::string_view member);
};

// A node processes its own uploads, and any deletes.
enum class queue_kind { uploads, deletes };

// How a script found the member. Each function says which of them leave the claim held.
enum class queue_state {
  unchanged,  // the member has the score that was read
  renewed,    // it was queued again meanwhile
  gone,       // it is not in the queue any more
  deleted,    // a later deletion covers the key
  contested,  // unchanged, and deleted in the same second: it counts if its file is there
  claimed,    // another job works on the key, or took it over; to be tried again
  unclear,    // an earlier upload of the key may still take effect; to be deleted again then
  down        // the DisDB did not answer
};

// How much is queued, for the status.
struct queue_summary {
  long uploads = 0;      // of this node
  long all_uploads = 0;  // of all nodes
  long own_deletes = 0;  // of this node
  long deletes = 0;
  double oldest_upload = 0;  // of this node, seconds since the epoch; 0 for none
  double oldest_delete = 0;
  double oldest_of_all = 0;   // upload of any node, or of none, which no node processes
  std::string oldest_member;  // its text
};

// Whether a transfer of the job may still take effect in the store after the job's end.
enum class transfer_end { clear, unclear };

class transfer_queue {
 public:
  using page = std::optional<std::vector<queue_entry>>;

  // `client` is taken, made patient, and destroyed at the end. `node` is this node's id.
  transfer_queue(vk_client *client, std::string node);
  transfer_queue(const transfer_queue &) = delete;
  transfer_queue &operator=(const transfer_queue &) = delete;
  ~transfer_queue();

  const std::string &node() const { return node_; }

  // A page of this node's uploads, or of all deletes, oldest first. `cursor` is its place: 0 at
  // first, -1 after the last page. A page may be empty and not the last. Members that are removed
  // move those behind them to the front.
  page uploads(long &cursor);
  page deletes(long &cursor);
  // The place of the first member, of any node, that is no older than `time`.
  std::optional<long> place_of(queue_kind kind, double time);

  // Claims the key of an upload for this process, and returns whether it must still be done.
  // Only after `unchanged`, `contested` and `deleted` the claim is held.
  queue_state begin_upload(const queue_entry &entry, const upload_member &member);
  // After the object was stored: removes the member if it is unchanged, and gives the claim back,
  // except for `deleted`: the object must go again, under the claim. The member stays, `unclear`,
  // when something older than it may have followed in the last `window` seconds, or still follow.
  queue_state end_upload(const queue_entry &entry, const upload_member &member, int window,
                         transfer_end end = transfer_end::clear);
  // After the object of a deleted upload went: removes the member if it is unchanged, and gives the
  // claim back. It stays, `unclear`, when an upload of the key ended unclear in the last `window`
  // seconds.
  queue_state drop_upload(const queue_entry &entry, const upload_member &member, int window);
  // Gives the claim back and leaves the member unchanged.
  void leave_upload(const queue_entry &entry, const upload_member &member,
                    transfer_end end = transfer_end::clear);
  // A request to remove the objects may still take effect, on younger ones.
  void note_unclear_removal(const std::string &location, const std::vector<std::string> &keys);

  // Makes the deletion known to all uploads of the key, or below the prefix, and claims it. Only
  // after `unchanged` the claim is held.
  queue_state begin_delete(const queue_entry &entry, const delete_member &member);
  // After the objects went: removes the member if it is unchanged, and gives the claim back. The
  // member stays and the state is `unclear` when an upload ended unclear in the last `window`
  // seconds.
  queue_state end_delete(const queue_entry &entry, const delete_member &member, int window);
  // The same for a deletion that an upload overtook: nothing is left to be deleted.
  queue_state drop_delete(const queue_entry &entry, const delete_member &member);
  // Gives the claim back and leaves the member unchanged.
  void leave_delete(const delete_member &member);

  // Whether the claim of the running job is held for sure for as long as a request takes: what
  // cannot be taken back is begun only then.
  bool holds(const upload_member &member) const;
  bool holds(const delete_member &member) const;

  // Keeps the claims of all running jobs for another minute. To be called every 15 seconds.
  void renew_claims();
  // Forgets deletions older than `deletions_kept` seconds that no upload can meet any more, or than
  // 30 days, and unclear ends older than `window` seconds. To be called now and then.
  void trim(int window, int deletions_kept);

  // Counts the node's uploads one by one in the server, which takes a while for long queues.
  std::optional<queue_summary> summary();
  // Whether an upload of this key waits, by the text that its row has: "<location>@<node>".
  std::optional<bool> is_queued(std::string_view location_text, std::string_view key);
  // Whether a job of any node works on the key.
  std::optional<bool> is_claimed(std::string_view location, std::string_view key);
  // When the key, or all below its prefix, was deleted last; 0 for never.
  std::optional<double> deleted_at(const upload_member &member);
  // Queues a file of this node's cache again, with the time at which it was made, unless a deletion
  // covers it (`deleted`). A member that is there keeps its score. `unchanged` when it is queued
  // now.
  queue_state queue_again(const upload_member &member, double made);
  // What the DisDB, which answers, said to the last change that it refused; empty since one was
  // made.
  std::string refusal() const;
  // The eviction policy of the DisDB when it may throw queues away, else empty.
  std::optional<std::string> dangerous_policy();

 private:
  using texts = std::initializer_list<std::string_view>;

  // One plain command; false when it failed. The reply is the caller's.
  bool ask(texts words, vk_reply &reply);
  // Adds the members of this node; false when the DisDB does not answer.
  bool count_own(queue_kind kind, long &count, double &oldest);
  // 0 for what is not in the set.
  std::optional<double> score_of(std::string_view set, const std::string &member);
  // An empty `node` stands for all nodes.
  page read_page(std::string_view queue, std::string_view node, long &cursor);
  // By the script's digest; its text is sent only to a server that does not know it yet.
  bool run(const queue_script &script, texts keys, texts arguments, vk_reply &reply);
  // For scripts that answer with a word of `queue_state`. Anything else is `down`.
  queue_state run_state(const queue_script &script, texts keys, texts arguments);
  // Gives a claim back. An empty `unclear_member` notes nothing.
  queue_state leave(const std::string &claim, const std::string &unclear_member,
                    const queue_entry &entry);
  // `oldest` is the wall-clock time before which an unclear end counts no more.
  queue_state finish_delete(const queue_entry &entry, const delete_member &member, double oldest);

  // Forgets a claim when it goes, also by an exception: what is remembered is renewed.
  struct forgetting {
    transfer_queue &queue;
    const std::string &claim;
    bool is_wanted = true;
    ~forgetting() {
      if (is_wanted) queue.forget_claim(claim);
    }
  };

  // The value of a new claim, which ends with the score of its member; nullopt when a job of this
  // process has it.
  std::optional<std::string> take_claim(const std::string &name, const std::string &score);
  // Empty when this process does not hold it; no claim in the DisDB has an empty value.
  std::string held_claim(const std::string &name) const;
  std::string age_of_claim(const std::string &name) const;  // in milliseconds
  bool is_sure(const std::string &claim) const;
  void forget_claim(const std::string &name);

  std::unique_ptr<vk_client, void (*)(vk_client *)> client_;
  const std::string node_;
  const std::string claim_owner_;   // what the values of all claims of this node begin with
  const std::string claim_prefix_;  // of this process
  mutable std::mutex lock_;         // guards all that follows
  // The text in the DisDB, and when this job took it.
  struct own_claim {
    std::string value;
    std::chrono::steady_clock::time_point since;
    std::chrono::steady_clock::time_point renewed;  // begin of the last change that kept it
  };
  std::map<std::string, own_claim> claims_;
  unsigned long claim_count_ = 0;
  std::string refusal_;
};

#endif
