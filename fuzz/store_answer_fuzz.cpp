// Documents of an object store: whatever comes, what is read keeps the promises of its reader.
#include "fuzz/fuzz.h"
#include "platform/s3/answer.h"
#include "platform/s3/documents.h"

namespace {

bool is_one_line(const std::string &text) {
  return std::none_of(text.begin(), text.end(),
                      [](char byte) { return static_cast<unsigned char>(byte) < ' '; });
}

void check_listings(std::string_view document) {
  std::vector<s3_listed> objects;
  std::string next;
  if (s3_read_objects(document, {"p/", "vm/"}, objects, next)) {
    for (const s3_listed &one : objects) REQUIRE(one.key.starts_with("vm/"));
  }
  std::vector<s3_upload> uploads;
  bool has_more = false;
  if (s3_read_uploads(document, {"p/", "vm/"}, uploads, has_more)) {
    for (const s3_upload &one : uploads) REQUIRE(one.key.starts_with("vm/"));
  }
  std::vector<s3_part> parts;
  int marker = 0;
  s3_read_parts(document, parts, marker);
  std::vector<s3_failed_key> failed;
  s3_read_failed(document, "p/", failed);
  for (const s3_failed_key &one : failed) REQUIRE(one.code != "NoSuchKey");
}

}  // namespace

// The first byte chooses the status.
void check(std::string_view bytes) {
  constexpr long statuses[] = {200, 206, 301, 400, 403, 404, 412, 416, 429, 500, 503};
  if (bytes.empty()) return;
  s3_answer answer;
  answer.status = statuses[static_cast<unsigned char>(bytes[0]) % std::size(statuses)];
  const std::string_view document = bytes.substr(1);
  s3_judge(answer, document, {.bucket = "b", .region = "r", .region_of_bucket = {}});
  REQUIRE(is_one_line(answer.code) && is_one_line(answer.text));
  REQUIRE(answer.outcome == s3_outcome::done || !answer.text.empty());
  if (answer.status >= 300) REQUIRE(answer.outcome != s3_outcome::done);
  check_listings(document);
}
