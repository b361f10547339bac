// What an answer of a store means.
#ifndef PLATFORM_S3_ANSWER_H
#define PLATFORM_S3_ANSWER_H

#include <ctime>
#include <string>
#include <string_view>

#include "platform/s3/types.h"

// What is known beside the status and the document, for the advice.
struct s3_circumstances {
  std::string_view bucket;
  std::string_view region;            // that was signed for
  std::string_view region_of_bucket;  // from a header; empty without one
  std::time_t now = 0;
  std::time_t store_time = -1;  // of the answer; -1 when it did not tell
};

// Fills in code, outcome and text by the status of `answer` and the document that came with it,
// which may be no document at all. A document of an error makes an error of status 200, too.
void s3_judge(s3_answer &answer, std::string_view document, const s3_circumstances &known);

// What arrived cannot be right.
void s3_damage(s3_answer &answer, const char *text);
// Makes an answer that is done a damaged one when its ETag is not this.
void s3_compare_etag(s3_answer &answer, std::string_view expected);

// For people: no control characters, and at most 300 bytes.
std::string s3_one_line(std::string_view text);

#endif
