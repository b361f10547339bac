// Brings one object into a file, however often the connection breaks.
// On a thread of the downloads; reads the store and the upload queue.
#include "transfer/fetch.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "transfer/jitter.h"

namespace {

using namespace std::chrono_literals;
using kind = fetch_step::kind;

constexpr fetch_clock::duration patience = 30s;      // with a store in trouble that brings nothing
constexpr fetch_clock::duration look_again = 500ms;  // at a location that rests
constexpr fetch_clock::duration next_look = 200ms;   // at the queue, for an upload that waits in it
constexpr fetch_clock::duration ask_store_every = 2s;
constexpr double first_delay = 0.5, longest_delay = 5;

// -1 when not known, which equals no length of an object.
std::int64_t size_of(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? status.st_size : -1;
}

// Objects that were stored in parts have another form; their digest is in the metadata.
bool is_md5(const std::string &etag) {
  return etag.size() == 32 && etag.find_first_not_of("0123456789abcdef") == etag.npos;
}

std::string reason_of(const s3_answer &answer) {
  if (!answer.text.empty()) return answer.text;
  return answer.code.empty() ? "HTTP status " + std::to_string(answer.status) : answer.code;
}

}  // namespace

object_fetch::object_fetch(transfer_queue &queue, transfer_locations &locations,
                           s3_control &control, std::string location_text, std::string key,
                           std::chrono::seconds wait)
    : queue_(queue),
      locations_(locations),
      control_(control),
      location_text_(std::move(location_text)),
      location_(parts_of_location(location_text_).location),
      key_(std::move(key)),
      wait_(wait) {}

fetch_step object_fetch::attempt(int target) {
  if (begun_ == fetch_clock::time_point()) begun_ = moved_ = fetch_clock::now();
  if (!locations_.is_known(location_)) return {kind::failed, {}, "the location is not configured"};
  // Its upload tells the DisDB when it is done.
  if (fetch_clock::now() < ask_store_at_ && queue_.is_queued(location_text_, key_) == true) {
    note_progress();
    return {kind::again, next_look};
  }
  const auto permit = locations_.start(location_);
  if (!permit) return later(look_again, "the location is in trouble");
  return get(target);
}

fetch_step object_fetch::get(int target) {
  // What is there is the beginning of an object, if it is known which one.
  const std::int64_t size = size_of(target);
  const std::int64_t from = etag_.empty() ? 0 : size;
  // Bytes of an object that is not known are no beginning of anything.
  if (from == 0 && size != 0 && ::ftruncate(target, 0) != 0) {
    return {kind::failed, {}, std::strerror(errno)};
  }
  transfer_locations::lease client = locations_.client(location_);
  if (!client) return {kind::failed, {}, "the location is not configured"};
  s3_answer answer = client->get(key_, target, from, from > 0 ? etag_ : "");
  if (from > 0 && answer.etag.empty()) answer.etag = etag_;
  const bool has_content = answer || answer.outcome == s3_outcome::unclear;
  if (from > 0 && has_content && answer.etag != etag_) {
    answer.outcome = s3_outcome::changed;
    answer.text = "the store went on with another object";
  }
  if (answer) compare(answer, target);
  client.tell(answer);
  if (answer) {
    got_ = {.etag = answer.etag, .length = answer.length, .is_fetched = true};
    return {kind::done};
  }
  // A bucket that is missing says nothing about the object.
  if (answer.outcome == s3_outcome::not_found && answer.code != "NoSuchBucket") {
    return after_absence();
  }
  return after_trouble(answer, target, from);
}

// Its upload may still be queued, on any node, or may have ended between the two questions.
fetch_step object_fetch::after_absence() {
  // The store answered: trouble from now on is of its own.
  note_progress();
  const std::optional<bool> is_queued = queue_.is_queued(location_text_, key_);
  if (is_queued == false && is_absent_) return {kind::failed, {}, "the store does not have it"};
  // A DisDB that does not answer leaves it open, which is like being queued.
  is_absent_ = is_queued == false;
  if (is_absent_) return {kind::again};
  if (fetch_clock::now() - begun_ >= wait_) return {kind::failed, {}, "its upload is still queued"};
  ask_store_at_ = std::min(fetch_clock::now() + ask_store_every, begun_ + wait_);
  return {kind::again, next_look};
}

fetch_step object_fetch::after_trouble(const s3_answer &answer, int target, std::int64_t from) {
  ++failures_;
  switch (answer.outcome) {
    case s3_outcome::unclear:
      // It broke off: what came is the beginning, unless another object was asked for.
      if (!answer.etag.empty() && size_of(target) > from) {
        etag_ = answer.etag;
        moved_ = fetch_clock::now();
        failures_ = 1;
      }
      break;
    // Nothing came, so what is there stays the beginning.
    case s3_outcome::busy:
    case s3_outcome::unreachable:
      break;
    // Not to be gone on with: the next try begins at byte 0.
    case s3_outcome::damaged:
    case s3_outcome::changed:
      etag_.clear();
      break;
    // Refused, or an error of the file: trying again would change nothing.
    default:
      return {kind::failed, {}, reason_of(answer)};
  }
  const double seconds = answer.retry_after ? static_cast<double>(answer.retry_after->count())
                                            : jittered(failures_, first_delay, longest_delay);
  return later(
      std::chrono::duration_cast<fetch_clock::duration>(std::chrono::duration<double>(seconds)),
      reason_of(answer));
}

void object_fetch::note_progress() {
  moved_ = fetch_clock::now();
  failures_ = 0;
}

fetch_step object_fetch::later(fetch_clock::duration delay, const std::string &reason) const {
  if (fetch_clock::now() + delay - moved_ > patience) return {kind::failed, {}, reason};
  return {kind::again, delay};
}

// Makes the answer a failure when what came is not what is stored.
void object_fetch::compare(s3_answer &answer, int target) const {
  const auto noted = answer.metadata.find("sha256");
  const bool by_md5 = is_md5(answer.etag);
  const bool can_compare = by_md5 || noted != answer.metadata.end();
  bool is_same = size_of(target) == answer.length;
  if (is_same && by_md5 && !answer.md5.empty()) {
    is_same = answer.md5 == answer.etag;
  } else if (is_same && can_compare) {
    s3_body body{.fd = target, .length = answer.length};
    if (!s3_digest(body, &control_.stop, by_md5 ? s3_digests::md5 : s3_digests::sha256)) {
      answer.error = errno;
      answer.outcome = control_.stop ? s3_outcome::stopped : s3_outcome::local_error;
      answer.text = std::string("what came cannot be read: ") + std::strerror(answer.error);
      return;
    }
    is_same = by_md5 ? s3_hex(body.md5) == answer.etag : s3_hex(body.sha256) == noted->second;
  }
  if (is_same) return;
  answer.outcome = s3_outcome::damaged;
  answer.text = "what came is not what is stored";
}
