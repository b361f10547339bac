// Set-up of a cache client from the platform's files: servers, database, syslog levels.
// Reads local.conf, disdbase.conf and pbx.conf; asks no server.
#include <spoolcap/zarn_velkan.h>

#include <syslog.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <spoolcap/zarn_config_parser.h>
#include "common/paths.h"
#include "main/conf/conf_line.h"
#include "platform/base/diagnostics.h"
#include "platform/base/owner.h"
#include "platform/velkan/velkan.h"

namespace {

// Lines of other partitions are for other programs of the platform.
constexpr const char *own_partition = "main";

struct level_word {
  const char *word;
  unsigned bit;
};

// As VELKAN_DEBUG_PBX names them, with "|" between. Other words are skipped.
constexpr level_word level_words[] = {
    {"ERROR", VK_LOG_ERROR},   {"DEBUG", VK_LOG_DEBUG},     {"EVENT", VK_LOG_EVENT},
    {"NOTICE", VK_LOG_NOTICE}, {"WARNING", VK_LOG_WARNING},
};

// Owner of the values of the cache's two directives.
struct cache_directives {
  cache_directives() = default;
  cache_directives(const cache_directives &) = delete;
  cache_directives &operator=(const cache_directives &) = delete;
  ~cache_directives() { qx_conf_parse_multi_directives_free_data(table); }

  const qx_conf_directive &hosts() const noexcept { return table[0]; }
  const qx_conf_directive &credentials() const noexcept { return table[1]; }

  qx_conf_directive table[3] = {
      {"DISDBASE_HOST", 0, nullptr}, {"DISDBASE_CREDENTIALS", 0, nullptr}, {nullptr, 0, nullptr}};
};

vk_client_t *create_client() noexcept {
  vk_mm_t *memory = vk_mm_create(std::malloc, std::calloc, std::realloc, std::free);
  vk_client_t *client = vk_client_create(1, 2, memory, nullptr);
  vk_mm_destroy(memory);
  return client;
}

// False when the file of this node's options cannot be opened.
bool set_up_syslog(vk_client_t *client) noexcept {
  char *found = nullptr;
  const int status =
      qx_conf_parse_string_value("VELKAN_DEBUG_PBX", qx_path(QX_PATH_LOCAL_CONF), &found);
  const c_string levels(found);
  if (status != 0) return false;
  if (levels) add_vk_syslog_(client, levels.get());
  return true;
}

// Adds every server that the lines name; true when there was one. A server of another partition is
// logged twice: by add_vk_srv_, and here like every value that added nothing.
bool add_servers(vk_client_t *client, const qx_conf_directive &hosts) noexcept {
  bool added = false;
  for (int32_t entry = 0; entry < hosts.count; entry++) {
    if (add_vk_srv_(client, hosts.values[entry]) == 0) {
      QX_LOG(FR_LOG_DEBUG, "Adding vk server [%s] was successfull.\n", hosts.values[entry]);
      added = true;
    } else {
      QX_LOG(FR_LOG_ERROR, "Failed to add vk server [%s] from /etc/quorvex/disdbase.conf.\n",
             hosts.values[entry]);
    }
  }
  return added;
}

// No failure here fails the set-up: the client's first command shows it.
void select_database(vk_client_t *client, int database, const char *key) noexcept {
  if (*key != '\0') {
    const int status = vk_set_database_key(client, database, key, std::strlen(key));
    if (status != 0) {
      QX_LOG(FR_LOG_ERROR, "vk_set_database_key(%d,..) failed with error: %s", database,
             vk_strerror(status));
    }
  }
  const int status = vk_select(client, database, 0);
  if (status != 0) {
    QX_LOG(FR_LOG_ERROR, "vk_select(%d) failed with error: %s", database, vk_strerror(status));
  }
}

// Uses the first valid credentials of the own partition; true when there were any. The messages
// name one of the two files that are read, wherever the line stands.
bool use_credentials(vk_client_t *client, const qx_conf_directive &credentials) noexcept {
  for (int32_t entry = 0; entry < credentials.count; entry++) {
    const auto number = static_cast<size_t>(entry);
    const value_fields fields(credentials.values[entry]);
    if (fields.count() < 4) {
      QX_LOG(FR_LOG_ERROR,
             "Failed to parse velkan credentials from /etc/quorvex/pbx.conf. Entry nr: %zu.\n",
             number);
      continue;
    }
    // Fields: partition, any text, password, number of the database. Database 0 is refused.
    const int database = fields.number(3);
    if (database <= 0) {
      QX_LOG(FR_LOG_ERROR,
             "Failed to parse velkan credentials from /etc/quorvex/pbx.conf. Invalid db number. "
             "Entry nr: %zu.\n",
             number);
      continue;
    }
    if (std::strcmp(fields[0], own_partition) != 0) {
      QX_LOG(FR_LOG_ERROR, "Skipping velkan credentials for partition %s.\n", fields[0]);
      continue;
    }
    select_database(client, database, fields[2]);
    return true;
  }
  return false;
}

}  // namespace

// The client is handed out on failures too: its commands then fail one by one and are logged.
int ast_vk_init(vk_client **client) {
  *client = create_client();
  if (*client == nullptr) return -1;
  if (!set_up_syslog(*client)) {
    QX_LOG(FR_LOG_ERROR,
           "Failed to open disdbase options configuration file (/etc/quorvex/local.conf).\n");
    return -1;
  }
  cache_directives directives;
  const char *const files[] = {qx_path(QX_PATH_DISDBASE_CONF), qx_path(QX_PATH_PBX_CONF), nullptr};
  if (qx_conf_parse_multi_directives_multi_files(directives.table, files) != 0) {
    QX_LOG(FR_LOG_ERROR, "Failed to parse configuration files needed for Velkan connection.\n");
    return -1;
  }
  const bool has_server = add_servers(*client, directives.hosts());
  const bool has_credentials = use_credentials(*client, directives.credentials());
  return has_server && has_credentials ? 0 : -1;
}

int add_vk_srv_(vk_client *client, const char *value) {
  const value_fields fields(value);
  const size_t count = fields.count();
  if (count <= 4) {
    ::syslog(LOG_ERR, "Failed to parse disdb host. Entry: %s.\n", value);
    return 1;
  }
  if (std::strcmp(fields[0], own_partition) != 0) {
    // A skipped server has no name put together, so the line shows "(null)".
    ::syslog(LOG_NOTICE, "Skiping velkan server %s from partition %s", "(null)", fields[0]);
    return 1;
  }
  // Fields: partition, two parts of a name, host, port. Only an IPv6 host has colons of its own.
  const c_string name = fields.joined(1, 2);
  const c_string host = fields.joined(3, count - 2);
  return vk_server_add(client, host.get(), fields.number(count - 1), name.get());
}

int add_vk_syslog_(vk_client *client, const char *levels) {
  ::syslog(LOG_NOTICE, "Parsing syslog loglevel for libvelkan: %s", levels);
  const value_fields words(levels, '|');
  unsigned mask = 0;
  for (size_t word = 0; word < words.count(); word++) {
    for (const level_word &row : level_words) {
      if (std::strcmp(words[word], row.word) == 0) mask |= row.bit;
    }
  }
  if (mask == 0) return 0;
  ::syslog(LOG_NOTICE, "Enabling syslog for libvelkan. Loglevel: 0x%X", mask);
  return vk_enable_syslog(client, mask);
}

void log_wrap(int priority, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  ::vsyslog(priority, format, arguments);
  va_end(arguments);
}
