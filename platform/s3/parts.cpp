// Objects that are sent in parts.
// Nothing is kept here: the id of an upload is the caller's to remember.
#include "platform/s3/answer.h"
#include "platform/s3/client.h"
#include "platform/s3/connection.h"
#include "platform/s3/digest.h"
#include "platform/s3/documents.h"

namespace {

// The protocol's own limit of parts in an object.
constexpr int most_parts = 10'000;

// The ETag of the whole object: the MD5 of the parts' MD5s, and their number. Empty when an ETag of
// a part is no MD5.
std::string etag_of_all(const std::vector<s3_part> &parts) {
  std::string digests;
  for (const s3_part &part : parts) {
    const std::string digest = s3_unhex(part.etag);
    if (digest.size() != 16) return "";
    digests += digest;
  }
  return s3_hex(s3_md5(digests)) + "-" + std::to_string(parts.size());
}

}  // namespace

s3_answer s3_client::begin_parts(std::string_view key, const s3_metadata &metadata,
                                 std::string &upload_id) {
  s3_reply reply = connection_->exchange({.method = "POST",
                                          .key = std::string(key),
                                          .query = {{"uploads", ""}},
                                          .headers = s3_metadata_headers(metadata)});
  const bool told =
      s3_read_field(reply.body, "InitiateMultipartUploadResult", "UploadId", upload_id);
  if (reply.answer && !told) s3_damage(reply.answer, "the answer names no upload");
  return std::move(reply.answer);
}

s3_answer s3_client::put_part(std::string_view key, const std::string &upload_id, int number,
                              const s3_body &body) {
  s3_answer answer =
      connection_
          ->exchange({.method = "PUT",
                      .key = std::string(key),
                      .query = {{"partNumber", std::to_string(number)}, {"uploadId", upload_id}},
                      .file = &body})
          .answer;
  s3_compare_etag(answer, s3_hex(body.md5));
  if (answer) answer.length = body.length;
  return answer;
}

s3_part_listing s3_client::parts(std::string_view key, const std::string &upload_id) {
  s3_part_listing listing;
  for (int marker = 0, next = 0;; marker = next) {
    s3_request request{.key = std::string(key), .query = {{"uploadId", upload_id}}};
    if (marker != 0) request.query.emplace_back("part-number-marker", std::to_string(marker));
    s3_reply reply = connection_->exchange(request);
    listing.answer = std::move(reply.answer);
    if (!listing.answer) return listing;
    const bool whole = s3_read_parts(reply.body, listing.parts, next);
    if (whole && next == 0) return listing;
    // Markers must rise: otherwise a faulty store keeps this loop running.
    if (!whole || next <= marker || next > most_parts) {
      s3_damage(listing.answer, "the answer is no listing of parts");
      return listing;
    }
  }
}

s3_answer s3_client::complete(std::string_view key, const std::string &upload_id,
                              const std::vector<s3_part> &parts) {
  s3_reply reply = connection_->exchange({.method = "POST",
                                          .key = std::string(key),
                                          .query = {{"uploadId", upload_id}},
                                          .text = s3_complete_document(parts)});
  s3_answer &answer = reply.answer;
  if (!answer) return std::move(answer);
  // Some stores leave the ETag out.
  if (s3_read_field(reply.body, "CompleteMultipartUploadResult", "ETag", answer.etag)) {
    answer.etag = s3_unquoted(answer.etag);
  } else if (s3_answer found = head(key)) {
    answer = std::move(found);
  } else {
    answer.outcome = s3_outcome::unclear;
    answer.text = "the object in parts is not to be seen: " + found.text;
  }
  s3_compare_etag(answer, etag_of_all(parts));
  return std::move(answer);
}

s3_answer s3_client::abort(std::string_view key, const std::string &upload_id) {
  return connection_
      ->exchange({.method = "DELETE", .key = std::string(key), .query = {{"uploadId", upload_id}}})
      .answer;
}
