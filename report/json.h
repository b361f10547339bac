// Accounts as JSON; report/report.schema.json is the contract.
#ifndef REPORT_JSON_H
#define REPORT_JSON_H

#include <rapidjson/filewritestream.h>
#include <rapidjson/writer.h>

#include <functional>
#include <string_view>

#include "report/platform.h"

using json_writer = rapidjson::Writer<rapidjson::FileWriteStream>;

// A writer with its buffer. Flush `out` at the end.
struct json_stream {
  explicit json_stream(FILE *stream) : out(stream, buffer, sizeof buffer), json(out) {}

  // Large, so that a platform of many accounts takes few system calls.
  char buffer[65536];
  rapidjson::FileWriteStream out;
  json_writer json;
};

// Visits accounts in the order in which they must be written.
using account_source =
    std::function<void(const std::function<void(const report_account &account)> &visit)>;

// A name and a value in an object. A negative number and a text without data are null.
void write_member(json_writer &json, const char *name, std::int64_t number);
void write_member(json_writer &json, const char *name, std::string_view text);

// The members that begin a document, whose version is 1.
void write_document_head(json_writer &json, const char *format, const report_platform &platform);

// Time as ISO 8601 has it, in UTC.
std::string iso_time(std::int64_t seconds);

// One account as an object, with the kinds of the set.
void write_account(json_writer &json, const report_account &account, std::int64_t taken,
                   kind_set kinds = all_kinds);

// The whole document, accounts one by one: `source` gives them.
void write_document(FILE *stream, const report_platform &platform, const account_source &source,
                    kind_set kinds = all_kinds);

// One account object a line.
void write_lines(FILE *stream, const report_platform &platform, const account_source &source,
                 kind_set kinds = all_kinds);

#endif
