// Uploads a large file in parts, and resumes one that was begun.
// On a worker's thread with up to three helpers; keeps a record beside the file.
#include "transfer/multipart.h"

#include <unistd.h>

#include <algorithm>
#include <thread>

#include "common/replace_file.h"
#include "platform/base/line_reader.h"
#include "platform/base/view.h"
#include "transfer/store_proof.h"

namespace {

// Both are limits of the protocol; the last part may be smaller.
constexpr std::int64_t most_parts = 10'000;
constexpr std::int64_t smallest_part = 5 << 20;
// The worker's own thread and three helpers.
constexpr int parts_at_once = 4;

// As wished, but large enough that 10,000 parts hold the file. Whole MiB, so that a resume finds
// the same parts.
std::int64_t part_size_for(std::int64_t length, std::int64_t wanted) {
  constexpr std::int64_t step = 1 << 20;
  const std::int64_t needed = (length + most_parts - 1) / most_parts;
  return std::max({wanted, smallest_part, (needed + step - 1) / step * step});
}

struct upload_record {
  std::string id;
  std::string about;  // the lines after it: what is uploaded
};

upload_record read_record(const std::string &path) {
  // A record that cannot be read is none.
  upload_record found;
  line_reader lines(path.c_str());
  if (!lines) return found;
  if (const auto id = lines.next()) found.id = trimmed(*id);
  while (const auto line = lines.next()) found.about += *line;
  return found;
}

// Whole or not at all; without it a broken upload is begun anew.
void write_record(const std::string &path, const std::string &id, const std::string &about) {
  static_cast<void>(replace_file(path, id + "\n" + about, 0660));
}

s3_answer local_failure(const std::atomic<bool> &stop) {
  s3_answer answer;
  answer.outcome = stop ? s3_outcome::stopped : s3_outcome::local_error;
  answer.error = errno;
  return answer;
}

}  // namespace

std::string parts_record_path(const std::string &path) {
  const size_t name = path.rfind('/') + 1;
  return path.substr(0, name) + parts_prefix + path.substr(name);
}

void forget_parts(transfer_locations::lease &client, const upload_member &member,
                  const std::string &path) {
  const std::string record = parts_record_path(path);
  const std::string id = read_record(record).id;
  if (id.empty()) return;
  const s3_answer answer = client->abort(member.key, id);
  client.tell(answer);
  // Otherwise the record stays, and the next try ends the upload.
  if (answer || answer.outcome == s3_outcome::not_found) ::unlink(record.c_str());
}

multipart_upload::multipart_upload(const job_context &context, const worker_settings &settings,
                                   multipart_file file)
    : context_(context),
      file_(file),
      part_size_(part_size_for(file.length, settings.config.part_size)),
      count_(static_cast<int>((file.length + part_size_ - 1) / part_size_)) {}

std::string multipart_upload::record() const {
  // Score, length, size of parts, digest: if one differs, the parts in the store are of another
  // file.
  return file_.score + "\n" + std::to_string(file_.length) + "\n" + std::to_string(part_size_) +
         "\n" + sha256_ + "\n";
}

s3_answer multipart_upload::send(transfer_locations::lease &client, s3_metadata metadata) {
  s3_body whole{.fd = file_.fd, .length = file_.length};
  // Reads the file once more than needed for the parts: the digest goes into the metadata, which is
  // sent first.
  if (!s3_digest(whole, &context_.control.stop)) return local_failure(context_.control.stop);
  sha256_ = s3_hex(whole.sha256);
  metadata.emplace_back("sha256", sha256_);

  s3_answer answer;
  if (!resume(client, answer)) answer = begin(client, metadata);
  if (!answer || id_.empty()) return answer;  // an earlier try was finished, or nothing began
  answer = send_parts();
  if (!answer) return answer;
  answer = call_store(context_, client, uncertain_,
                      [&] { return client->complete(file_.member.key, id_, parts_); });
  // The answer to an earlier call may be lost that completed it.
  if (is_over(answer) && !is_stored(client, answer)) {
    // The next try begins anew.
    answer.outcome = s3_outcome::damaged;
    answer.text = "the store ended the upload in parts without an object of this file";
  }
  if (answer) ::unlink(parts_record_path(file_.path).c_str());
  return answer;
}

// Takes up what an earlier try of the same member began. True with the answer that decides: done
// without an id when it is whole already.
bool multipart_upload::resume(transfer_locations::lease &client, s3_answer &answer) {
  const std::string path = parts_record_path(file_.path);
  const upload_record found = read_record(path);
  if (found.id.empty()) return false;
  if (found.about != record()) {
    forget_parts(client, file_.member, file_.path);
    return false;
  }
  bool changes_nothing = false;
  s3_part_listing listing;
  answer = call_store(context_, client, changes_nothing, [&] {
    listing = client->parts(file_.member.key, found.id);
    return listing.answer;
  });
  if (answer) {
    id_ = found.id;
    stored_ = std::move(listing.parts);
    return true;
  }
  if (!is_over(answer)) return true;
  const bool is_done = is_stored(client, answer);
  ::unlink(path.c_str());
  return is_done;
}

bool multipart_upload::is_over(const s3_answer &answer) {
  return answer.outcome == s3_outcome::not_found && answer.code != "NoSuchBucket";
}

// Whether the store has the object of this very upload; then the answer is that of its look.
bool multipart_upload::is_stored(transfer_locations::lease &client, s3_answer &answer) {
  bool changes_nothing = false;
  s3_answer head =
      call_store(context_, client, changes_nothing, [&] { return client->head(file_.member.key); });
  if (!head || head.length != file_.length || head.metadata["sha256"] != sha256_ ||
      head.metadata["queued"] != file_.score) {
    return false;
  }
  // The metadata was sent before the parts: only the ETag tells what the store made of them.
  const auto own = etag_of(file_.fd, file_.length, part_size_, context_.control.stop);
  if (!own || head.etag != *own) return false;
  answer = std::move(head);
  return true;
}

s3_answer multipart_upload::begin(transfer_locations::lease &client, const s3_metadata &metadata) {
  bool shows_nothing = false;
  s3_answer answer = call_store(context_, client, shows_nothing, [&] {
    return client->begin_parts(file_.member.key, metadata, id_);
  });
  if (answer) write_record(parts_record_path(file_.path), id_, record());
  return answer;
}

s3_answer multipart_upload::send_parts() {
  parts_.resize(static_cast<size_t>(count_));
  {
    // Joined at the end of the block, before their results are read.
    std::vector<std::jthread> helpers;
    for (int i = 1; i < std::min(parts_at_once, count_); ++i) {
      helpers.emplace_back([this] { no_throw(0, [this] { return send_some(), 0; }); });
    }
    send_some();
  }
  if (has_failed_) return failure_;
  // A helper that found no client or no memory left its part behind.
  if (next_ <= count_ || std::any_of(parts_.begin(), parts_.end(),
                                     [](const s3_part &part) { return part.number == 0; })) {
    s3_answer answer;
    answer.outcome = s3_outcome::unreachable;
    answer.text = "not all parts could be sent";
    return answer;
  }
  s3_answer done;
  done.outcome = s3_outcome::done;
  return done;
}

bool multipart_upload::take_part(int &number) {
  const std::lock_guard guard(lock_);
  if (has_failed_ || next_ > count_) return false;
  // In order, so that a broken upload has a beginning without gaps.
  number = next_++;
  return true;
}

void multipart_upload::fail(const s3_answer &answer) {
  const std::lock_guard guard(lock_);
  if (has_failed_) return;
  has_failed_ = true;
  failure_ = answer;
}

void multipart_upload::send_some() {
  // A client for each thread: one connection carries one part at a time.
  transfer_locations::lease client = context_.locations.client(file_.member.location);
  for (int number = 0; client && take_part(number);) {
    s3_part part;
    const s3_answer answer = send_part(client, number, part);
    if (!answer) return fail(answer);
    // Without the lock: each part has its own slot, and the vector does not grow.
    parts_[static_cast<size_t>(number - 1)] = part;
  }
}

s3_answer multipart_upload::send_part(transfer_locations::lease &client, int number,
                                      s3_part &part) {
  const std::int64_t offset = (number - 1) * part_size_;
  s3_body body{
      .fd = file_.fd, .offset = offset, .length = std::min(part_size_, file_.length - offset)};
  if (!s3_digest(body, &context_.control.stop)) return local_failure(context_.control.stop);
  part = {.number = number, .etag = s3_hex(body.md5), .length = body.length};
  s3_answer answer;
  answer.outcome = s3_outcome::done;
  // Compared by content: the number alone says nothing about an earlier try's bytes.
  const bool is_there = std::any_of(stored_.begin(), stored_.end(), [&part](const s3_part &stored) {
    return stored.number == part.number && stored.etag == part.etag && stored.length == part.length;
  });
  if (is_there) return answer;
  bool shows_nothing = false;  // before the completion no object appears
  return call_store(context_, client, shows_nothing,
                    [&] { return client->put_part(file_.member.key, id_, number, body); });
}
