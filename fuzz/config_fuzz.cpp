// Directive files: each reader against a plain model of its rules.
#include <strings.h>

#include <climits>

#include <spoolcap/log.h>
#include <spoolcap/zarn_config_parser.h>
#include "fuzz/fuzz.h"
#include "platform/base/parseconfig.h"
#include "platform/base/view.h"

namespace {

using fuzz::optional_text;
using fuzz::owned;
using texts = std::vector<std::string>;

void check_keyword_at_start(const char *path, const texts &lines) {
  const std::string keyword = "DISDBASE_HOST";
  texts values;
  optional_text first;  // that a blank follows
  for (const std::string &line : lines) {
    const std::string text = line.substr(std::min(line.find_first_not_of(" \t"), line.size()));
    if (::strncasecmp(text.c_str(), keyword.c_str(), keyword.size()) != 0) continue;
    const std::string after = text.substr(keyword.size());
    values.emplace_back(trimmed(after));
    if (!first && (after[0] == ' ' || after[0] == '\t')) first = values.back();
  }
  // The first name is a prefix of the second, which so never gets a value.
  qx_conf_directive table[] = {{keyword.c_str()}, {"DISDBASE_HOSTS"}, {nullptr}};
  for (int call = 0; call < 2; ++call) {
    REQUIRE(qx_conf_parse_multi_directives(table, path) == 0);
    REQUIRE(std::equal(values.begin(), values.end(), table[0].values,
                       table[0].values + table[0].count));
    REQUIRE(table[1].count == 0);
  }
  qx_conf_parse_multi_directives_free_data(table);
  char *value = nullptr;
  REQUIRE(qx_conf_parse_string_value(keyword.c_str(), path, &value) == 0);
  REQUIRE(owned(value) == first);
}

// What follows a keyword anywhere in the lines, untrimmed.
texts anywhere(const texts &lines, const std::string &keyword) {
  texts found;
  for (const std::string &line : lines) {
    const std::string kept = line.substr(0, line.find('#'));
    const size_t at = kept.find(keyword);
    if (at != std::string::npos) found.push_back(kept.substr(at + keyword.size()));
  }
  return found;
}

// The record of id "main" without the id; none when one with another number of colons comes first.
optional_text record_of_main(const texts &values, long least_colons, long most_colons) {
  for (const std::string &value : values) {
    const std::string record(trimmed(value));
    const auto colons = std::count(record.begin(), record.end(), ':');
    if (colons < least_colons || colons > most_colons) return {};
    if (record.starts_with("main:")) return record.substr(5);
  }
  return {};
}

void check_keyword_anywhere(const char *path, const texts &lines) {
  char *field = nullptr;
  int result = qx_conf_parse_db_cred(nullptr, path, "main", nullptr, nullptr, &field);
  optional_text record = record_of_main(anywhere(lines, "DB_CREDENTIALS"), 3, 3);
  size_t colon = record ? record->rfind(':') : 0;
  REQUIRE(result == (record ? 0 : -1));
  REQUIRE(owned(field) == (record ? record->substr(colon + 1) : record));

  char *host = nullptr;
  int32_t port = -7;
  result = qx_conf_parse_db_host(path, "main", 1, &host, &port);
  record = record_of_main(anywhere(lines, "DB_MASTER"), 2, LONG_MAX);
  colon = record ? record->rfind(':') : 0;
  REQUIRE(result == (record ? 0 : -1));
  REQUIRE(port == (record ? std::atoi(record->c_str() + colon + 1) : -7));
  REQUIRE(owned(host) == (record ? record->substr(0, colon) : record));

  texts workers = anywhere(lines, "WORKER_EXCHANGE");
  std::erase_if(workers, [](const std::string &after) {
    return static_cast<signed char>(after.c_str()[0]) > ' ';
  });
  char *worker = nullptr;
  REQUIRE(qx_conf_parse_worker(nullptr, path, &worker) == (workers.empty() ? -1 : 0));
  REQUIRE(owned(worker).value_or("") == trimmed(workers.empty() ? "" : workers.front()));
}

// Whatever stands before it, the last directive counts, with any value of one line.
void check_parseconfig(const fuzz::memory_file &file, std::string_view content) {
  const std::string value(content.substr(0, content.find('\n')));
  file.assign(std::string(content) + "\n QUORVEX_QUOTA_D\t= \"" + value + "\"\n");
  std::string found;
  const parseconfig_entry entry = {"QUORVEX_QUOTA_D", &found};
  REQUIRE(parseconfig(file.path().c_str(), &entry, 1) == 0);
  REQUIRE(value == found);
}

}  // namespace

void check(std::string_view content) {
  static const fuzz::memory_file file;
  fr_log_set_sink([](const fr_log_record *, void *) {}, nullptr);
  file.assign(content);
  check_keyword_at_start(file.path().c_str(), fuzz::lines_of(content, 8192));
  check_keyword_anywhere(file.path().c_str(), fuzz::lines_of(content, 256));
  check_parseconfig(file, content);
}
