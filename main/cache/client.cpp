#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include <spoolcap/zarn_velkan.h>
#include "main/cache/client.h"
#include "platform/velkan/velkan.h"

namespace {

using client_handle = std::shared_ptr<vk_client_t>;

// The client of the process: created at the first use, replaced by renew_cache_client only. Never
// destroyed, as other threads may use it while the process exits.
struct {
  std::mutex creation;  // taken first
  std::mutex lock;      // guards the handle, and is held for no longer than to copy it
  never_destroyed<client_handle> handle;
} process_client;

client_handle current_client() {
  const std::lock_guard guard(process_client.lock);
  return process_client.handle.value;
}

// One of the brackets for the length of a scope.
template <void (*Enter)()>
class section {
 public:
  section() { Enter(); }
  section(const section &) = delete;
  section &operator=(const section &) = delete;
  ~section() { ast_cache_unlock(); }
};
using read_section = section<ast_cache_rdlock>;
using write_section = section<ast_cache_wrlock>;

// The handle is published only when the set-up is over. A set-up that failed after the client was
// made leaves a client whose commands fail; it is not tried again.
int publish_new_client() noexcept {
  vk_client_t *created = nullptr;
  const int status = ast_vk_init(&created);
  return no_throw(-1, [&] {
    client_handle handle(created, vk_client_destroy);
    const std::lock_guard guard(process_client.lock);
    process_client.handle.value.swap(handle);  // the old one goes after the lock
    return status;
  });
}

// The brackets do nothing by themselves, so a lock of our own keeps two first users from creating
// two clients.
void create_client() noexcept {
  const write_section section;
  const std::lock_guard guard(process_client.creation);
  if (current_client() == nullptr) publish_new_client();
}

// Calls the client library with the handle for `persistent`, between the brackets.
template <class Call>
int with_client(int persistent, Call &&call) {
  client_handle client = current_client();
  if (client == nullptr) {
    create_client();
    client = current_client();
  }
  const read_section section;
  if (client == nullptr) return VK_ERR_CLIENT;
  return call(persistent != 0 ? client.get() : client->secondary);
}

std::vector<size_t> lengths_of(const char *const *texts, size_t count) {
  std::vector<size_t> lengths(count);
  for (size_t i = 0; i < count; ++i) lengths[i] = std::strlen(texts[i]);
  return lengths;
}

int hset(int persistent, const char *key, const char *field, const char *value) {
  return with_client(persistent, [&](vk_client_t *client) {
    return vk_hset(client, key, std::strlen(key), field, std::strlen(field), value,
                   std::strlen(value), persistent);
  });
}

void log_hgetall(const call_site &site, const char *key, int status, size_t count) {
  if (status != VK_OK) {
    CACHE_LOG(site, "cache_hgetall(%s): error %s", key, vk_strerror(status));
  } else {
    CACHE_LOG(site, "cache_hgetall(%s): %zuX", key, count);
  }
}

}  // namespace

c_string format_cache_key(const char *format, va_list arguments) {
  char *key = nullptr;
  if (format == nullptr || vasprintf(&key, format, arguments) < 0) return nullptr;
  return c_string(key);
}

c_string rget_hash_str(const call_site &site, int persistent, const char *key, const char *field) {
  char *value = nullptr;
  size_t length = 0;
  const int status = with_client(persistent, [&](vk_client_t *client) {
    return vk_hget_whole(client, key, std::strlen(key), field, std::strlen(field), &value, &length,
                         "", 1);
  });
  c_string found(value);
  if (status != VK_OK) {
    CACHE_LOG(site, "rget_hash_str(%s,%s): error %s", key, field, vk_strerror(status));
    return nullptr;
  }
  // On a miss the NULL goes into the text the way printf writes it.
  CACHE_LOG(site, "rget_hash_str(%s,%s): %s", key, field, value);
  return found;
}

bool norows_forbidden(const call_site &site, const char *key, int persistent, const char *value) {
  if (persistent != 0 || value == nullptr || std::strcmp(value, QX_CACHE_NO_ROW) != 0) return false;
  return cache_exists(site, key) == 0;
}

void rset_hash_str(const call_site &site, int persistent, const char *key, const char *field,
                   const char *value) {
  if (norows_forbidden(site, key, persistent, value)) {
    CACHE_LOG(site, "rset_hash_str(%s,%s,%s): error Trying to add NOROWS to nonexistent hash", key,
              field, value);
    return;
  }
  const int status = hset(persistent, key, field, value);
  if (status != VK_OK) {
    CACHE_LOG(site, "rset_hash_str(%s,%s,%s): error %s", key, field, value, vk_strerror(status));
  } else {
    CACHE_LOG(site, "rset_hash_str(%s,%s,%s): success", key, field, value);
  }
}

void cache_hset(const call_site &site, int persistent, const char *key, const char *field,
                const char *value) {
  const int status = hset(persistent, key, field, value);
  const int field_length = static_cast<int>(std::strlen(field));
  const int value_length = static_cast<int>(std::strlen(value));
  if (status != VK_OK) {
    CACHE_LOG(site, "cache_hset(%s,%.*s,%.*s): error %s", key, field_length, field, value_length,
              value, vk_strerror(status));
  } else {
    CACHE_LOG(site, "cache_hset(%s,%.*s,%.*s): success", key, field_length, field, value_length,
              value);
  }
}

int cache_exists(const call_site &site, const char *key) {
  const int exists =
      with_client(1, [&](vk_client_t *client) { return vk_exists(client, key, std::strlen(key)); });
  CACHE_LOG(site, "cache_exists(%s): %d", key, exists);
  return exists;
}

int cache_hgetall(const call_site &site, int persistent, const char *key, string_array &fields,
                  string_array &values, size_t *count) {
  *count = 0;
  char **field_slots = nullptr;
  char **value_slots = nullptr;
  const int status = with_client(persistent, [&](vk_client_t *client) {
    return vk_hgetall(client, key, std::strlen(key), count, &field_slots, &value_slots, 0, 0);
  });
  if (status != VK_OK) *count = 0;
  fields = string_array(field_slots, *count);
  values = string_array(value_slots, *count);
  log_hgetall(site, key, status, *count);
  return status;
}

int cache_hgetall_values(const call_site &site, int persistent, const char *key,
                         string_array &values) {
  size_t count = 0;
  char **slots = nullptr;
  char *buffer = nullptr;
  const int status = with_client(persistent, [&](vk_client_t *client) {
    return vk_hgetall_whole(client, key, std::strlen(key), &count, &slots, &buffer, 0, 0, "", 1);
  });
  const c_string owned_buffer(buffer);
  values = string_array(slots, status == VK_OK ? count : 0);
  log_hgetall(site, key, status, values.count());
  return status;
}

int cache_hmget(const call_site &site, int persistent, const char *key, const char *const *fields,
                size_t count, string_array &values) {
  const std::vector<size_t> lengths = lengths_of(fields, count);
  char **slots = nullptr;
  size_t entries = 0;
  char *buffer = nullptr;
  const int status = with_client(persistent, [&](vk_client_t *client) {
    return vk_hmget_whole(client, key, std::strlen(key), fields, count, lengths.data(), &slots,
                          &entries, &buffer, "", 1);
  });
  const c_string owned_buffer(buffer);
  values = string_array(slots, status == VK_OK ? entries : 0);
  if (status != VK_OK) {
    CACHE_LOG(site, "cache_hmget(%s,%zuX): error %s", key, count, vk_strerror(status));
  } else {
    CACHE_LOG(site, "cache_hmget(%s,%zuX): %zu entries retrieved", key, count, entries);
  }
  return status;
}

int cache_hmset(const call_site &site, int persistent, const char *key, const char *const *fields,
                const char *const *values, size_t count) {
  const std::vector<size_t> field_lengths = lengths_of(fields, count);
  const std::vector<size_t> value_lengths = lengths_of(values, count);
  const int status = with_client(persistent, [&](vk_client_t *client) {
    return vk_hmset(client, key, std::strlen(key), fields, count, field_lengths.data(), values,
                    value_lengths.data(), persistent);
  });
  if (status != VK_OK) {
    CACHE_LOG(site, "cache_hmset(%s,%zuX): error %s", key, count, vk_strerror(status));
  } else {
    CACHE_LOG(site, "cache_hmset(%s,%zuX): success", key, count);
  }
  return status;
}

int cache_zaddval(const call_site &site, const char *key, const char *member, double score,
                  const char *value) {
  const int status = with_client(0, [&](vk_client_t *client) {
    return vk_zaddval(client, key, std::strlen(key), member, std::strlen(member), score, value,
                      std::strlen(value));
  });
  if (status != VK_OK) {
    CACHE_LOG(site, "cache_zaddval(%s, %s): error %s", key, member, vk_strerror(status));
  } else {
    CACHE_LOG(site, "cache_zaddval(%s, %s): success", key, member);
  }
  return status;
}

int renew_cache_client() {
  const write_section section;
  const std::lock_guard guard(process_client.creation);
  return publish_new_client();
}

string_array rmget_hash_key(const call_site &site, int persistent, const char *key,
                            const char *const *fields, size_t count) {
  string_array values;
  const int status = cache_hmget(site, persistent, key, fields, count, values);
  if (status != VK_OK) {
    CACHE_LOG(site, "rmget_hash(%s,X%d): error %s", key, static_cast<int>(count),
              vk_strerror(status));
  } else {
    CACHE_LOG(site, "rmget_hash(%s,X%d): success", key, static_cast<int>(count));
  }
  return values;
}

std::string escape_sql(const char *text) {
  std::string escaped;
  for (; *text != '\0'; ++text) {
    if (*text == '\\' || *text == '"' || *text == '\'') escaped += '\\';
    escaped += *text;
  }
  return escaped;
}
