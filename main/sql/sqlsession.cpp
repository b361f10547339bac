// Set-up of the process-wide SQL pool from the platform's files, and its sessions.
// From pbx.conf and sqldbase.conf; opens no connection before the first session.
#include <spoolcap/sqlsession.h>

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "common/paths.h"
#include "main/conf/conf_line.h"
#include "platform/base/diagnostics.h"
#include "platform/base/number.h"
#include "platform/base/owner.h"
#include "platform/base/str.h"
#include "platform/sql/sqlpool.h"

namespace {

constexpr double idle_limit = 60.0;  // seconds
constexpr int verbosity = 100;       // everything

// The trimmed text after the keyword at the start of `line` and one separator byte of any kind.
c_string value_after(const char *line, size_t keyword_length) noexcept {
  // At the end of the line there is no separator to skip.
  const bool separated = std::strlen(line) > keyword_length;
  c_string value(::strdup(separated ? line + keyword_length + 1 : ""));
  fr_str_trim(value.get(), FR_TRIM_BOTH);
  return value;
}

// Passes every value of the keyword to `Take`, in file order. Stops and returns false when `Take`
// does.
template <bool (*Take)(const char *value) noexcept>
bool for_each_value(FILE *file, const char *keyword) noexcept {
  char buffer[conf_line_size];
  int line_number = 0;
  while (const char *line = next_line_with_keyword(file, keyword, buffer, line_number)) {
    const c_string value = value_after(line, std::strlen(keyword));
    if (!value || !Take(value.get())) return false;
  }
  return true;
}

// A warning only: refusing would stop platforms that have always run like this.
void warn_if_public(FILE *credentials, const char *path) noexcept {
  struct stat status {};
  if (::fstat(::fileno(credentials), &status) == 0 && (status.st_mode & S_IROTH) != 0) {
    QX_LOG(FR_LOG_WARNING, "Everybody may read <%s>, which holds the database password.\n\n", path);
  }
}

bool add_shard(const char *value) noexcept {
  fr_sql_shard_t *shard = fr_sql_shard_parse_info(value);
  if (shard == nullptr) return false;
  fr_sqlpool_shard_add(shard);  // it logs a second shard of the same id, which is no failure
  return true;
}

bool set_down_time(const char *value) noexcept {
  fr_sqlpool_down_time_set(std::atoi(value));
  return true;
}

bool set_largest_lag(const char *value) noexcept {
  const int seconds = no_throw(-1, [=] { return whole_number<int>(value).value_or(-1); });
  if (seconds >= 0) {
    fr_sqlpool_largest_lag_set(seconds);
  } else {
    QX_LOG(FR_LOG_ERROR, "Invalid SLAVE_MAX_LAG [%s]: a number of seconds is expected.\n\n", value);
  }
  return true;
}

}  // namespace

void qx_sql_pool_init(void) {
  qx_sql_pool_init_from_config_files(qx_path(QX_PATH_PBX_CONF), qx_path(QX_PATH_SQLDBASE_CONF));
}

int qx_sql_pool_init_from_config_files(const char *credentials_file, const char *servers_file) {
  fr_sqlpool_init_api(nullptr, nullptr, idle_limit);
  fr_sqlpool_verbosity_set(verbosity);

  c_file file(credentials_file == nullptr ? nullptr : std::fopen(credentials_file, "re"));
  if (!file) {
    log_condition_failed(QX_HERE);
    return -1;
  }
  warn_if_public(file.get(), credentials_file);
  // Shards come first: a server without the credentials of its shard is skipped.
  if (!for_each_value<add_shard>(file.get(), "DB_CREDENTIALS")) return -1;

  file.reset();
  file.reset(servers_file == nullptr ? nullptr : std::fopen(servers_file, "re"));
  if (!file) return -1;
  // May stand anywhere in the file; the last line wins.
  for_each_value<set_down_time>(file.get(), "SLAVE_DOWN_TIME");
  std::rewind(file.get());
  for_each_value<set_largest_lag>(file.get(), "SLAVE_MAX_LAG");
  file.reset();

  if (fr_sql_shard_parse_connection_info(servers_file, nullptr, 1) != 0) {
    QX_LOG(FR_LOG_ERROR,
           "Failed to find at least one master SQL server in <%s>. Invalid configuration, cannot "
           "start.\n\n",
           servers_file);
    return -1;
  }
  return 0;
}

int qx_sql_pool_destroy(void) {
  return fr_sqlpool_destroy();
}

SessionHandle sess_init(void) {
  // Shard 0 is that of the first credentials; no module asks for another one.
  return fr_sqlpool_conn_get(0);
}

void sess_destroy(SessionHandle session) {
  fr_sqlpool_conn_free(session);
}
