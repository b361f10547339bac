// Works off one upload.
// On a worker's thread: cached file to store, then receipt, then queue.
#include "transfer/upload.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include <spoolcap/zarn_str.h>
#include "transfer/cache_file.h"
#include "transfer/multipart.h"
#include "transfer/receipt.h"

namespace {

constexpr double soon = 60;             // seconds in which an upload is usually done
constexpr double absent_at_first = 60;  // so young a member may be ahead of its deletion, say

class upload_job {
 public:
  upload_job(const job_context &context, const worker_settings &settings, const queue_entry &entry,
             upload_member member, std::string path)
      : context_(context),
        settings_(settings),
        entry_(entry),
        member_(std::move(member)),
        path_(std::move(path)) {}
  upload_job(const upload_job &) = delete;
  upload_job &operator=(const upload_job &) = delete;
  // An exception may come at any point of a transfer.
  ~upload_job() {
    if (!is_claimed_) return;
    no_throw([this] { context_.queue.leave_upload(entry_, member_, transfer_end::unclear); });
  }

  job_result run() {
    const auto permit = context_.locations.start(member_.location);
    if (!permit) return {job_end::held};
    const queue_state state = context_.queue.begin_upload(entry_, member_);
    if (state != queue_state::unchanged && state != queue_state::contested &&
        state != queue_state::deleted) {
      return result_of(state);
    }
    is_claimed_ = true;
    if (!open()) return leave({refusal_of_file(), "its folder in the cache: " + error_text()});
    client_ = context_.locations.client(member_.location);
    if (!client_) return leave({job_end::held});
    // Deleted later, or in the same second, and then the missing file decides.
    if (state == queue_state::deleted ||
        (!file_ && error_ == ENOENT && state == queue_state::contested)) {
      return cancel();
    }
    if (!file_) return leave({refusal_of_file(), missing_text()});
    return store();
  }

 private:
  job_end refusal_of_file() const {
    const bool is_short = error_ == EMFILE || error_ == ENFILE || error_ == ENOMEM;
    const bool is_young = qx_get_tstamp() - entry_.queued_at() < absent_at_first;
    return is_short || (error_ == ENOENT && is_young) ? job_end::retry : job_end::parked;
  }
  std::string error_text() const { return std::strerror(error_); }
  std::string missing_text() const {
    if (error_ == ENOENT) return "its file is not in the cache, and no deletion is known";
    return "its file cannot be opened: " + error_text();
  }

  // False when not even the folder can be opened; one that is missing has no file in it.
  bool open() {
    const size_t slash = path_.rfind('/');
    // The folder stays open: the file is removed by its name in it, wherever it was moved.
    folder_.reset(::open(path_.substr(0, slash).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    error_ = errno;
    if (!folder_) return error_ == ENOENT || error_ == ENOTDIR;
    // What is there and is no regular file sets no errno.
    errno = EINVAL;
    file_ = cache_file::open(folder_.get(), path_.substr(slash + 1));
    error_ = errno;
    return true;
  }

  job_result leave(job_result result) {
    context_.queue.leave_upload(entry_, member_,
                                uncertain_ ? transfer_end::unclear : transfer_end::clear);
    is_claimed_ = false;
    return result;
  }

  bool is_newer(s3_answer &object) const {
    const double queued = queue_entry{"", object.metadata["queued"]}.queued_at();
    return object.metadata["node"] != context_.queue.node() &&
           queued > entry_.queued_at() + clock_error;
  }

  job_result store() {
    // Another node may have stored the key again while this waited.
    if (qx_get_tstamp() - entry_.queued_at() > soon) {
      bool changes_nothing = false;
      s3_answer head = call_store(context_, client_, changes_nothing,
                                  [&] { return client_->head(member_.key); });
      if (head && is_newer(head)) return drop();
      if (!head && head.outcome != s3_outcome::not_found) return leave(failure_of(head));
    }
    const std::int64_t length = file_->status().st_size;
    // Deletions compare this time with theirs, on any node.
    const s3_metadata metadata = {{"queued", entry_.score}, {"node", context_.queue.node()}};
    s3_answer answer;
    if (length > settings_.config.multipart_from) {
      multipart_upload parts(context_, settings_,
                             {member_, entry_.score, path_, file_->fd(), length});
      answer = parts.send(client_, metadata);
      uncertain_ |= parts.is_uncertain();
    } else {
      s3_body body{.fd = file_->fd(), .length = length};
      // The file is read once for the digests and once to be sent; both go into the request.
      if (!s3_digest(body, &context_.control.stop)) {
        return leave({context_.control.stop ? job_end::retry : job_end::parked,
                      "its file cannot be read: " + std::string(std::strerror(errno))});
      }
      answer = call_store(context_, client_, uncertain_,
                          [&] { return client_->put(member_.key, body, metadata); });
      // A larger file of this key may have been on its way before a restart.
      if (answer) forget_parts(client_, member_, path_);
    }
    if (!answer) return leave(failure_of(answer));
    // Before the member goes: a kill in between sends the file again, and never loses it.
    note_receipt({.etag = answer.etag, .length = length});
    return end(length);
  }

  // A file system without attributes has no receipts, and a file that changed deserves none.
  void note_receipt(const receipt &what) const {
    struct stat now {};
    if (::fstat(file_->fd(), &now) == 0 && now.st_size == what.length) {
      write_receipt(file_->fd(), what);
    }
  }

  job_result end(std::int64_t length) {
    const queue_state state =
        context_.queue.end_upload(entry_, member_, settings_.unclear_window,
                                  uncertain_ ? transfer_end::unclear : transfer_end::clear);
    // The claim is still held: no other job may store the key before the object is gone.
    if (state == queue_state::deleted) return cancel();
    is_claimed_ = false;
    if (state == queue_state::unchanged || state == queue_state::gone) {
      ++context_.state.counters.uploads;
      context_.state.counters.upload_bytes += static_cast<std::uint64_t>(length);
    }
    return result_of(state);
  }

  // A later deletion covers the key: what any try of this upload stored goes, and the file with it.
  // What another node stored since the deletion stays.
  job_result cancel() {
    const auto deleted_at = context_.queue.deleted_at(member_);
    if (!deleted_at) return leave({job_end::down});
    forget_parts(client_, member_, path_);
    s3_answer failure;
    const object_end result = remove_older(context_, settings_, client_, member_.location,
                                           member_.key, *deleted_at, failure);
    if (result == object_end::failed) return leave(failure_of(failure));
    if (result == object_end::early) return leave({job_end::claimed, early_text});
    return drop();
  }

  job_result drop() {
    const queue_state state = context_.queue.drop_upload(entry_, member_, settings_.unclear_window);
    is_claimed_ = false;
    if (state == queue_state::unchanged || state == queue_state::unclear) remove_file();
    return result_of(state);
  }

  // The member has not been queued again, and no commit has the file open that is still to queue
  // it. One that was made since the member was queued is of another commit all the same.
  void remove_file() {
    if (file_ && file_->made_at() <= entry_.queued_at()) file_->remove();
  }

  const job_context &context_;
  const worker_settings &settings_;
  const queue_entry &entry_;
  const upload_member member_;
  const std::string path_;
  unique_fd folder_;
  std::optional<cache_file> file_;
  int error_ = 0;
  transfer_locations::lease client_;
  bool uncertain_ = false;
  bool is_claimed_ = false;
};

}  // namespace

job_result run_upload(const job_context &context, const worker_settings &settings,
                      const queue_entry &entry) {
  auto member = upload_member::parse(entry.member);
  if (!member) return {job_end::parked, "is not of the form <location>@<node>:<key>"};
  if (!context.locations.is_known(member->location)) {
    return {job_end::parked, "the location " + member->location + " is not configured"};
  }
  std::string path = path_in_cache(settings, member->key);
  if (path.empty()) return {job_end::parked, "its key cannot be the name of a file"};
  return upload_job(context, settings, entry, std::move(*member), std::move(path)).run();
}
