// Objects of a store, many at a time.
// Lists objects and uploads page by page, and removes up to 1,000 keys with one request.
#include <algorithm>

#include "platform/base/utf8.h"
#include "platform/s3/answer.h"
#include "platform/s3/client.h"
#include "platform/s3/connection.h"
#include "platform/s3/documents.h"

namespace {

// XML has no way to name other bytes.
bool can_be_xml(const std::string &key) {
  const bool has_control = std::any_of(
      key.begin(), key.end(), [](char byte) { return static_cast<unsigned char>(byte) < ' '; });
  return !has_control && valid_utf8(key) == key;
}

}  // namespace

s3_listing s3_client::list(std::string_view prefix, const std::string &token, int most) {
  const std::string &place_prefix = connection_->place().prefix;
  s3_request request{.of_bucket = true,
                     .query = {{"encoding-type", "url"},
                               {"list-type", "2"},
                               {"max-keys", std::to_string(most)},
                               {"prefix", place_prefix + std::string(prefix)}}};
  if (!token.empty()) request.query.emplace_back("continuation-token", token);
  s3_reply reply = connection_->exchange(request);
  s3_listing listing{.answer = std::move(reply.answer), .objects = {}, .next = {}};
  if (!listing.answer) return listing;
  const bool whole =
      s3_read_objects(reply.body, {place_prefix, prefix}, listing.objects, listing.next);
  // With the same token again, the caller would ask for this page without end.
  if (!whole || (!token.empty() && listing.next == token)) {
    s3_damage(listing.answer, "the answer is no listing of what was asked for");
    listing.objects.clear();
    listing.next.clear();
  }
  return listing;
}

s3_removal s3_client::remove(const std::vector<std::string> &keys) {
  s3_removal removal;
  removal.answer.outcome = s3_outcome::done;
  std::vector<std::string> named;
  for (const std::string &key : keys) {
    if (can_be_xml(key)) {
      named.push_back(key);
    } else if (const s3_answer answer = remove(key); !answer) {
      removal.failed.push_back({key, answer.code});
    }
  }
  if (named.empty()) return removal;
  const std::string &prefix = connection_->place().prefix;
  s3_reply reply = connection_->exchange({.method = "POST",
                                          .of_bucket = true,
                                          .query = {{"delete", ""}},
                                          .text = s3_remove_document(prefix, named)});
  removal.answer = std::move(reply.answer);
  if (removal.answer && !s3_read_failed(reply.body, prefix, removal.failed)) {
    s3_damage(removal.answer, "the answer does not tell what was removed");
  }
  return removal;
}

s3_upload_listing s3_client::uploads(std::string_view prefix) {
  // 20 pages of 1,000. The sweep runs again, so the rest is found the next day.
  constexpr int most_pages = 20;
  const std::string &place_prefix = connection_->place().prefix;
  s3_upload_listing listing;
  bool more = true;
  for (int page = 0; more && page < most_pages; ++page) {
    s3_request request{.of_bucket = true,
                       .query = {{"encoding-type", "url"},
                                 {"max-uploads", "1000"},
                                 {"prefix", place_prefix + std::string(prefix)},
                                 {"uploads", ""}}};
    const size_t before = listing.uploads.size();
    if (before > 0) {
      const s3_upload &last = listing.uploads.back();
      request.query.emplace_back("key-marker", place_prefix + last.key);
      request.query.emplace_back("upload-id-marker", last.id);
    }
    s3_reply reply = connection_->exchange(request);
    listing.answer = std::move(reply.answer);
    if (!listing.answer) break;
    if (!s3_read_uploads(reply.body, {place_prefix, prefix}, listing.uploads, more)) {
      s3_damage(listing.answer, "the answer is no listing of what was asked for");
      listing.uploads.clear();
      break;
    }
    // An empty page that claims to go on would be asked for again without end.
    more &= listing.uploads.size() > before;
  }
  listing.has_more = more && listing.answer;
  return listing;
}
