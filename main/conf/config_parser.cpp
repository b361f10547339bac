// Readers of the platform's directive files: single values, tables of directives, and records made
// of colon-separated fields.
#include <spoolcap/zarn_config_parser.h>

#include <strings.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "main/conf/conf_line.h"
#include "platform/base/diagnostics.h"
#include "platform/base/owner.h"
#include "platform/base/str.h"

namespace {

// Lines that are longer are read in pieces, as if each were a line.
constexpr int directive_line_size = 8192;

// Logs the early return when the file cannot be read.
c_file open_config(const call_site &site, const char *path) noexcept {
  c_file file(path == nullptr ? nullptr : std::fopen(path, "re"));
  if (!file) log_conditional_return(site);
  return file;
}

const char *skip_blanks(const char *text) noexcept {
  return text + std::strspn(text, " \t");
}

c_string trimmed_copy(const char *text) noexcept {
  return c_string(fr_str_trim(::strdup(text), FR_TRIM_BOTH));
}

bool begins_with(const char *text, const char *keyword) noexcept {
  return ::strncasecmp(text, keyword, std::strlen(keyword)) == 0;
}

// The next line that is not a comment, without its leading blanks; null at the end of the file.
const char *next_directive_line(FILE *file, char (&buffer)[directive_line_size]) noexcept {
  while (std::fgets(buffer, directive_line_size, file) != nullptr) {
    const char *text = skip_blanks(buffer);
    if (*text != '#') return text;
  }
  return nullptr;
}

// False when memory is short.
bool give(char **out, c_string text) noexcept {
  if (!text) return false;
  if (out != nullptr) *out = text.release();
  return true;
}

// How many fields a record must have, and the complaint about one that has not.
struct record_form {
  size_t least_fields;
  size_t most_fields;
  const char *complaint;
};

// A password with a colon makes a record too long; the pool's own reader allows it.
constexpr record_form credentials_form{4, 4, "Invalid DB credentials line [%d] in <%s>.\n\n"};
constexpr record_form host_form{3, SIZE_MAX, "Invalid DB host line [%d] in <%s>.\n\n"};

// The fields of the first record of `keyword` whose id matches, or none. A malformed record ends
// the search, even if a good one for the id follows.
value_fields find_record(const call_site &site, const record_form &form, const char *path,
                         const char *keyword, const char *id) noexcept {
  if (keyword == nullptr || id == nullptr) {
    log_conditional_return(site);
    return {};
  }
  const c_file file = open_config(site, path);
  if (!file) return {};
  char buffer[conf_line_size];
  int line_number = 0;
  while (const char *found = next_line_with_keyword(file.get(), keyword, buffer, line_number)) {
    const c_string value = trimmed_copy(found + std::strlen(keyword));
    value_fields fields(value.get());
    if (fields.count() == 0) return {};  // out of memory: every text has a field
    if (fields.count() < form.least_fields || fields.count() > form.most_fields) {
      QX_LOG_AT(site, FR_LOG_ERROR, form.complaint, line_number, path);
      return {};
    }
    if (std::strcmp(fields[0], id) == 0) return fields;
  }
  return {};
}

// False when memory is short.
bool add_value(qx_conf_directive &row, c_string value) noexcept {
  const size_t count = static_cast<size_t>(row.count);
  void *grown = ::reallocarray(row.values, count + 1, sizeof *row.values);
  if (grown != nullptr) row.values = static_cast<char **>(grown);
  if (grown == nullptr || !value) return false;
  row.values[count] = value.release();
  ++row.count;
  return true;
}

}  // namespace

int qx_conf_parse_string_value(const char *keyword, const char *path, char **value) {
  if (keyword == nullptr || value == nullptr) {
    log_conditional_return(QX_HERE);
    return -1;
  }
  // The caller's old text is freed on every path, as each call replaces it.
  const c_string previous(std::exchange(*value, nullptr));
  const c_file file = open_config(QX_HERE, path);
  if (!file) return -1;
  char buffer[directive_line_size];
  while (const char *text = next_directive_line(file.get(), buffer)) {
    if (!begins_with(text, keyword)) continue;
    const char *after = text + std::strlen(keyword);
    if (*after != ' ' && *after != '\t') continue;
    return give(value, trimmed_copy(after)) ? 0 : -1;
  }
  return 0;
}

int qx_conf_parse_db_cred(const char *keyword, const char *path, const char *id, char **field1,
                          char **field2, char **field3) {
  if (keyword == nullptr) keyword = "DB_CREDENTIALS";
  const value_fields record = find_record(QX_HERE, credentials_form, path, keyword, id);
  if (record.count() == 0) return -1;
  c_string fields[] = {c_string(::strdup(record[1])), c_string(::strdup(record[2])),
                       c_string(::strdup(record[3]))};
  if (!fields[0] || !fields[1] || !fields[2]) return -1;
  // All three are there before the first output is written.
  give(field1, std::move(fields[0]));
  give(field2, std::move(fields[1]));
  give(field3, std::move(fields[2]));
  return 0;
}

int qx_conf_parse_worker(const char *keyword, const char *path, char **value) {
  if (keyword == nullptr) keyword = "WORKER_EXCHANGE";
  const c_file file = open_config(QX_HERE, path);
  if (!file) return -1;
  char buffer[conf_line_size];
  int line_number = 0;
  while (const char *found = next_line_with_keyword(file.get(), keyword, buffer, line_number)) {
    const char *after = found + std::strlen(keyword);
    // Compared as a signed byte: bytes above 127 are negative, and follow the keyword like blanks.
    if (static_cast<signed char>(*after) > 0x20) continue;
    return give(value, trimmed_copy(after)) ? 0 : -1;
  }
  return -1;
}

int qx_conf_parse_db_host_custom(const char *path, const char *id, const char *keyword, char **host,
                                 int32_t *port) {
  const value_fields record = find_record(QX_HERE, host_form, path, keyword, id);
  if (record.count() == 0) return -1;
  // Between id and port all belongs to the host, colons of IPv6 included.
  if (!give(host, record.joined(1, record.count() - 2))) return -1;
  if (port != nullptr) *port = record.number(record.count() - 1);
  return 0;
}

int qx_conf_parse_db_host(const char *path, const char *id, int is_master, char **host,
                          int32_t *port) {
  return qx_conf_parse_db_host_custom(path, id, is_master != 0 ? "DB_MASTER" : "DB_SLAVE", host,
                                      port);
}

int qx_conf_parse_multi_directives(struct qx_conf_directive *table, const char *path) {
  const char *const paths[] = {path, nullptr};
  return qx_conf_parse_multi_directives_multi_files(table, paths);
}

int qx_conf_parse_multi_directives_multi_files(struct qx_conf_directive *table,
                                               const char *const *paths) {
  if (table == nullptr || paths == nullptr) {
    errno = EINVAL;
    return -1;
  }
  qx_conf_parse_multi_directives_free_data(table);
  for (; *paths != nullptr; ++paths) {
    const c_file file(std::fopen(*paths, "re"));
    if (!file) {
      // A missing file is no failure: directives may all stand in the others.
      QX_LOG(FR_LOG_ERROR, "Error opening configuration file <%s>: %s.\n\n", *paths,
             std::strerror(errno));
      continue;
    }
    if (qx_conf_parse_multi_directives_handle_file(file.get(), table) != 0) {
      QX_LOG(FR_LOG_ERROR, "Error parsing configuration file <%s>.\n\n", *paths);
      return -1;
    }
  }
  return 0;
}

int qx_conf_parse_multi_directives_handle_file(FILE *file, struct qx_conf_directive *table) {
  char buffer[directive_line_size];
  while (const char *text = next_directive_line(file, buffer)) {
    for (qx_conf_directive *row = table; row->name != nullptr; ++row) {
      // No separator is required: a longer keyword that begins with the name counts as the name.
      if (!begins_with(text, row->name)) continue;
      if (!add_value(*row, trimmed_copy(text + std::strlen(row->name)))) return -1;
      break;
    }
  }
  return 0;
}

void qx_conf_parse_multi_directives_free_data(struct qx_conf_directive *table) {
  if (table == nullptr) return;
  for (; table->name != nullptr; ++table) {
    for (int32_t i = 0; i < table->count; ++i) std::free(table->values[i]);
    // The table can be filled again: names stay, counts and values are back to nothing.
    std::free(std::exchange(table->values, nullptr));
    table->count = 0;
  }
}
