// Objects of a store, one at a time.
// Each call is one request over the client's connection.
#include "platform/s3/client.h"

#include "platform/s3/answer.h"
#include "platform/s3/connection.h"
#include "platform/s3/digest.h"

namespace {

constexpr const char *no_length = "the answer does not tell the length of the object";

}  // namespace

s3_client::s3_client(s3_place place, s3_control &control)
    : connection_(std::make_unique<s3_connection>(std::move(place), control)) {}

s3_client::~s3_client() = default;

s3_answer s3_client::put(std::string_view key, const s3_body &body, const s3_metadata &metadata) {
  s3_answer answer = connection_
                         ->exchange({.method = "PUT",
                                     .key = std::string(key),
                                     .headers = s3_metadata_headers(metadata),
                                     .file = &body})
                         .answer;
  // Without that comparison an upload would count as stored on the word of a status line.
  s3_compare_etag(answer, s3_hex(body.md5));
  if (answer) answer.length = body.length;
  return answer;
}

s3_answer s3_client::head(std::string_view key) {
  s3_answer answer = connection_->exchange({.method = "HEAD", .key = std::string(key)}).answer;
  if (answer && answer.length < 0) s3_damage(answer, no_length);
  return answer;
}

s3_answer s3_client::get(std::string_view key, int fd, std::int64_t from,
                         const std::string &if_match) {
  s3_request request{.key = std::string(key), .to = fd, .from = from};
  if (from > 0) request.headers.emplace_back("range", "bytes=" + std::to_string(from) + "-");
  // A download that goes on must not join the halves of two different objects.
  if (!if_match.empty()) request.headers.emplace_back("if-match", "\"" + if_match + "\"");
  s3_answer answer = connection_->exchange(request).answer;
  // All of it was there already.
  if (answer.status == 416 && answer.length == from) answer.outcome = s3_outcome::done;
  if (answer && answer.length < 0) s3_damage(answer, no_length);
  return answer;
}

s3_answer s3_client::remove(std::string_view key) {
  s3_answer answer = connection_->exchange({.method = "DELETE", .key = std::string(key)}).answer;
  // Only the store's own word counts: a page of something on the way may say 404 for any reason.
  if (answer.code == "NoSuchKey") answer.outcome = s3_outcome::done;
  return answer;
}
