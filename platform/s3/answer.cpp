// Turns answers of the store into outcomes, with a line of advice where one is known.
// Judges by status, headers and document alone; sends nothing.
#include "platform/s3/answer.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include "platform/s3/documents.h"

namespace {

struct meaning {
  std::string_view code;
  s3_outcome outcome;
  const char *advice;  // null where the store's own message is all there is to say
};

// The store's code says more than the HTTP status: a 403 may be a right or a clock. Sorted by name.
// Codes that are not here are judged by their status alone.
constexpr std::array meanings{
    meaning{"AccessDenied", s3_outcome::refused, "the access key has not the right to do this"},
    meaning{"BadDigest", s3_outcome::damaged, nullptr},
    meaning{"ExpiredToken", s3_outcome::refused, "the session token is over: get new keys"},
    meaning{"IncompleteBody", s3_outcome::damaged, nullptr},
    meaning{"InternalError", s3_outcome::busy, nullptr},
    meaning{"InvalidAccessKeyId", s3_outcome::refused,
            "the store does not know the access key: correct aws_access_key_id"},
    meaning{"InvalidToken", s3_outcome::refused, "the session token is wrong: get new keys"},
    meaning{"NoSuchKey", s3_outcome::not_found, nullptr},
    meaning{"NoSuchUpload", s3_outcome::not_found, nullptr},
    meaning{"OperationAborted", s3_outcome::busy, nullptr},
    meaning{"QuotaExceeded", s3_outcome::refused,
            "the quota of the bucket or its owner is used up"},
    meaning{"RequestLimitExceeded", s3_outcome::busy, nullptr},
    meaning{"RequestTimeout", s3_outcome::busy, nullptr},
    meaning{"SignatureDoesNotMatch", s3_outcome::refused,
            "the secret key does not fit the access key: correct aws_secret_access_key"},
    meaning{"SlowDown", s3_outcome::busy, nullptr},
    meaning{"Throttling", s3_outcome::busy, nullptr},
    meaning{"ThrottlingException", s3_outcome::busy, nullptr},
    meaning{"TooManyRequests", s3_outcome::busy, nullptr},
    meaning{"XAmzContentSHA256Mismatch", s3_outcome::damaged, nullptr},
};

// 412 and 304 are failed conditions, 416 a range behind the end: the object has changed. 409 tells
// of another request that is under way.
s3_outcome outcome_of(long status) {
  if (status / 100 == 2) return s3_outcome::done;
  if (status == 404) return s3_outcome::not_found;
  if (status == 412 || status == 416 || status == 304) return s3_outcome::changed;
  const bool later = status == 408 || status == 409 || status == 425 || status == 429;
  return later || status / 100 == 5 ? s3_outcome::busy : s3_outcome::refused;
}

std::string clock_advice(const s3_circumstances &known) {
  // The store's time is that of its header Date; a proxy may have taken it away.
  if (known.store_time < 0) return "the clocks here and of the store differ: set the time here";
  const long long ahead = static_cast<long long>(known.now) - known.store_time;
  return "the clock here is " + std::to_string(std::abs(ahead)) + " s " +
         (ahead < 0 ? "behind" : "ahead of") + " the store's: set the time here";
}

std::string region_advice(const s3_error_document &error, const s3_circumstances &known) {
  // The error document names the region in some stores, a header in others.
  const std::string region =
      error.region.empty() ? std::string(known.region_of_bucket) : error.region;
  if (!region.empty() && region != known.region) {
    return "the bucket is in region \"" + region + "\", not \"" + std::string(known.region) +
           "\": correct the region";
  }
  if (!error.endpoint.empty()) return "the bucket is at \"" + error.endpoint + "\"";
  return "the bucket is in another region or at another endpoint: correct them";
}

// The answer to a HEAD has no document.
std::string code_without_document(const s3_answer &answer, const s3_circumstances &known) {
  constexpr long long tolerated = 900;  // seconds
  if (answer.status != 400 && answer.status != 403) return "";
  if (known.store_time >= 0 && std::abs(known.now - known.store_time) > tolerated) {
    return "RequestTimeTooSkewed";
  }
  const bool is_elsewhere =
      !known.region_of_bucket.empty() && known.region_of_bucket != known.region;
  return is_elsewhere ? "AuthorizationHeaderMalformed" : "";
}

std::string advice_for(const s3_answer &answer, const s3_error_document &error,
                       const s3_circumstances &known, const meaning *meant) {
  if (answer.code == "RequestTimeTooSkewed") return clock_advice(known);
  const bool elsewhere = answer.status == 301 || answer.status == 307 || answer.status == 308 ||
                         answer.code == "AuthorizationHeaderMalformed" ||
                         answer.code == "IllegalLocationConstraintException";
  if (elsewhere) return region_advice(error, known);
  if (answer.code == "NoSuchBucket") {
    return "there is no bucket \"" + std::string(known.bucket) + "\"";
  }
  return meant != nullptr && meant->advice != nullptr ? meant->advice : "";
}

}  // namespace

std::string s3_one_line(std::string_view text) {
  // Cut before it is looked at: the text is the store's and may be megabytes long.
  std::string line(text.substr(0, 300));
  std::replace_if(
      line.begin(), line.end(),
      [](char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f'; }, ' ');
  return line;
}

void s3_damage(s3_answer &answer, const char *text) {
  answer.outcome = s3_outcome::damaged;
  answer.text = text;
}

void s3_compare_etag(s3_answer &answer, std::string_view expected) {
  // The store hashed what it has, so this finds any byte that changed on the way.
  if (answer && answer.etag != expected) {
    s3_damage(answer,
              "answers with another checksum than was sent; "
              "server-side encryption with keys of its own is not supported");
  }
}

void s3_judge(s3_answer &answer, std::string_view document, const s3_circumstances &known) {
  s3_error_document error;
  const bool told = s3_read_error(document, error);
  answer.outcome = outcome_of(answer.status);
  // Some requests are answered with 200 before the work is done, and fail in the body.
  if (answer.outcome == s3_outcome::done && !told) return;

  answer.code = s3_one_line(document.empty() ? code_without_document(answer, known) : error.code);
  const auto meant = std::find_if(meanings.begin(), meanings.end(),
                                  [&](const meaning &one) { return one.code == answer.code; });
  if (meant != meanings.end()) {
    answer.outcome = meant->outcome;
  } else if (answer.outcome == s3_outcome::done) {
    answer.outcome = s3_outcome::busy;  // an error that was found after the status had been sent
  }
  const std::string advice =
      advice_for(answer, error, known, meant == meanings.end() ? nullptr : meant);
  answer.text = advice.empty() ? s3_one_line(error.message) : s3_one_line(advice);
  answer.text += (answer.text.empty() ? "HTTP " : " (") + std::to_string(answer.status);
  if (!answer.code.empty()) answer.text += " " + answer.code;
  if (answer.text.find(" (") != answer.text.npos) answer.text += ")";
}
