// Directive files: every reader comes to its end, and hands out only what the file holds. The rules
// of a line are those of tests/unit/zarn_config_parser_test.cpp.
#include <spoolcap/log.h>
#include <spoolcap/zarn_config_parser.h>
#include "fuzz/fuzz.h"
#include "platform/base/parseconfig.h"

namespace {

void require_piece(std::string_view content, char *handed_out) {
  const c_string owned(handed_out);
  REQUIRE(!owned || content.find(owned.get()) != content.npos);
}

void read_directives(const char *path, std::string_view content) {
  qx_conf_directive table[] = {{"DISDBASE_HOST"}, {"DISDBASE_HOSTS"}, {nullptr}};
  for (int call = 0; call < 2; ++call) {
    REQUIRE(qx_conf_parse_multi_directives(table, path) == 0);
    for (int i = 0; i < table[0].count; ++i) {
      REQUIRE(content.find(table[0].values[i]) != content.npos);
    }
    REQUIRE(table[1].count == 0);  // the first name is a prefix of the second
  }
  qx_conf_parse_multi_directives_free_data(table);
}

void read_records(const char *path, std::string_view content) {
  char *value = nullptr, *database = nullptr, *host = nullptr, *worker = nullptr;
  int32_t port = 0;
  REQUIRE(qx_conf_parse_string_value("DISDBASE_HOST", path, &value) == 0);
  qx_conf_parse_db_cred(nullptr, path, "main", nullptr, nullptr, &database);
  qx_conf_parse_db_host(path, "main", 1, &host, &port);
  qx_conf_parse_worker(nullptr, path, &worker);
  for (char *one : {value, database, host, worker}) require_piece(content, one);
}

// Whatever stands before it, the last directive counts, with any value of one line.
void read_last_value(const fuzz::memory_file &file, std::string_view content) {
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
  read_directives(file.path().c_str(), content);
  read_records(file.path().c_str(), content);
  read_last_value(file, content);
}
