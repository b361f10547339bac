// The process's cache client: its creation and replacement, the lock brackets around each use, and
// the calls that the layer above makes.
#include "main/cache/client.h"

#include <cstring>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include <spoolcap/zarn_velkan.h>
#include "platform/velkan/velkan.h"

namespace {

using client_handle = std::shared_ptr<vk_client_t>;

// Created at the first use, replaced by recreate_cache_client only.
struct client_of_process {
  std::mutex creation;  // taken first
  std::mutex lock;      // guards the handle, and is held for no longer than to copy it
  client_handle handle;
};

constinit never_destroyed<client_of_process> process_client;

// A copy keeps the client alive: a replacement does not end calls that are under way.
client_handle current_client() noexcept {
  const std::lock_guard guard(process_client->lock);
  return process_client->handle;
}

// One of the brackets for the length of a scope.
template <void (*Enter)()>
class section {
 public:
  section() noexcept { Enter(); }
  section(const section &) = delete;
  section &operator=(const section &) = delete;
  ~section() { ast_cache_unlock(); }
};
using read_section = section<ast_cache_rdlock>;
using write_section = section<ast_cache_wrlock>;

// Publishes the handle only after its set-up. A set-up that fails after the client was made leaves
// a client whose commands fail; it is not tried again.
bool publish_new_client() noexcept {
  vk_client_t *created = nullptr;
  const bool set_up = ast_vk_init(&created) == 0;
  return no_throw(false, [&] {
    client_handle handle(created, vk_client_destroy);
    const std::lock_guard guard(process_client->lock);
    process_client->handle.swap(handle);  // the old client is released after the lock
    return set_up;
  });
}

// The brackets do nothing by themselves, so a lock of our own keeps two first users from creating
// two clients.
void create_client() noexcept {
  const write_section section;
  const std::lock_guard guard(process_client->creation);
  if (current_client() == nullptr) publish_new_client();
}

// Calls the client library with the handle for `persistent`, between the brackets. The result is
// the library's, VK_ERR_CLIENT without a client.
template <class Call>
int with_handle(int persistent, Call &&call) noexcept {
  client_handle client = current_client();
  if (client == nullptr) {
    create_client();
    client = current_client();
  }
  const read_section section;
  if (client == nullptr) return VK_ERR_CLIENT;
  return no_throw<int>(VK_ERR_MEMORY,
                       [&] { return call(persistent != 0 ? client.get() : client->secondary); });
}

// The same for a call whose result is a status.
template <class Call>
cache_outcome with_client(int persistent, Call &&call) noexcept {
  const int status = with_handle(persistent, std::forward<Call>(call));
  return {status == VK_OK ? nullptr : vk_strerror(status)};
}

// The client library takes counted strings, this layer C strings.
std::vector<size_t> lengths_of(const char *const *texts, size_t count) {
  std::vector<size_t> lengths(count);
  for (size_t i = 0; i < count; ++i) lengths[i] = std::strlen(texts[i]);
  return lengths;
}

cache_outcome hset(int persistent, const char *key, const char *field, const char *value) {
  return with_client(persistent, [&](vk_client_t *client) {
    return vk_hset(client, key, std::strlen(key), field, std::strlen(field), value,
                   std::strlen(value), persistent);
  });
}

void log_hgetall(const call_site &site, const char *key, cache_outcome outcome, size_t count) {
  if (!outcome) {
    CACHE_LOG(site, "cache_hgetall(%s): error %s", key, outcome.error);
  } else {
    CACHE_LOG(site, "cache_hgetall(%s): %zuX", key, count);
  }
}

// Non-zero when the key exists or the server could not be asked.
int cache_exists(const call_site &site, const char *key) noexcept {
  const int exists =
      with_handle(1, [&](vk_client_t *client) { return vk_exists(client, key, std::strlen(key)); });
  CACHE_LOG(site, "cache_exists(%s): %d", key, exists);
  return exists;
}

}  // namespace

// Kept because the library exports them: callers bracket their own use of the client.
void ast_cache_rdlock(void) {}
void ast_cache_wrlock(void) {}
void ast_cache_unlock(void) {}

c_string rget_hash_str(const call_site &site, int persistent, const char *key,
                       const char *field) noexcept {
  char *value = nullptr;
  size_t length = 0;
  const cache_outcome outcome = with_client(persistent, [&](vk_client_t *client) {
    return vk_hget_whole(client, key, std::strlen(key), field, std::strlen(field), &value, &length,
                         "", 1);
  });
  c_string found(value);
  if (!outcome) {
    CACHE_LOG(site, "rget_hash_str(%s,%s): error %s", key, field, outcome.error);
    return nullptr;
  }
  // On a miss the NULL goes into the text the way printf writes it.
  CACHE_LOG(site, "rget_hash_str(%s,%s): %s", key, field, value);
  return found;
}

bool norows_forbidden(const call_site &site, const char *key, int persistent,
                      const char *value) noexcept {
  // A marker alone must not make a hash: it would look as if the whole account were cached.
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
  const cache_outcome outcome = hset(persistent, key, field, value);
  if (!outcome) {
    CACHE_LOG(site, "rset_hash_str(%s,%s,%s): error %s", key, field, value, outcome.error);
  } else {
    CACHE_LOG(site, "rset_hash_str(%s,%s,%s): success", key, field, value);
  }
}

void cache_hset(const call_site &site, int persistent, const char *key, const char *field,
                const char *value) {
  const cache_outcome outcome = hset(persistent, key, field, value);
  const int field_length = static_cast<int>(std::strlen(field));
  const int value_length = static_cast<int>(std::strlen(value));
  if (!outcome) {
    CACHE_LOG(site, "cache_hset(%s,%.*s,%.*s): error %s", key, field_length, field, value_length,
              value, outcome.error);
  } else {
    CACHE_LOG(site, "cache_hset(%s,%.*s,%.*s): success", key, field_length, field, value_length,
              value);
  }
}

std::optional<hash_entries> cache_hgetall(const call_site &site, int persistent, const char *key) {
  size_t count = 0;
  char **fields = nullptr;
  char **values = nullptr;
  const cache_outcome outcome = with_client(persistent, [&](vk_client_t *client) {
    return vk_hgetall(client, key, std::strlen(key), &count, &fields, &values, 0, 0);
  });
  log_hgetall(site, key, outcome, outcome ? count : 0);
  if (!outcome) return std::nullopt;
  return hash_entries{text_array(fields, count), text_array(values, count)};
}

cache_outcome cache_hgetall_values(const call_site &site, int persistent, const char *key,
                                   text_array &values) {
  size_t count = 0;
  char **slots = nullptr;
  char *buffer = nullptr;
  const cache_outcome outcome = with_client(persistent, [&](vk_client_t *client) {
    return vk_hgetall_whole(client, key, std::strlen(key), &count, &slots, &buffer, 0, 0, "", 1);
  });
  const c_string owned_buffer(buffer);
  // After a failure there is no array, whatever the library left in the pointers.
  values = text_array(slots, outcome ? count : 0);
  log_hgetall(site, key, outcome, values.count());
  return outcome;
}

cache_outcome cache_hmget(const call_site &site, int persistent, const char *key,
                          const char *const *fields, size_t count, text_array &values) {
  const std::vector<size_t> lengths = lengths_of(fields, count);
  char **slots = nullptr;
  size_t entries = 0;
  char *buffer = nullptr;
  const cache_outcome outcome = with_client(persistent, [&](vk_client_t *client) {
    return vk_hmget_whole(client, key, std::strlen(key), fields, count, lengths.data(), &slots,
                          &entries, &buffer, "", 1);
  });
  const c_string owned_buffer(buffer);
  values = text_array(slots, outcome ? entries : 0);
  if (!outcome) {
    CACHE_LOG(site, "cache_hmget(%s,%zuX): error %s", key, count, outcome.error);
  } else {
    CACHE_LOG(site, "cache_hmget(%s,%zuX): %zu entries retrieved", key, count, entries);
  }
  return outcome;
}

cache_outcome cache_hmset(const call_site &site, int persistent, const char *key,
                          const char *const *fields, const char *const *values, size_t count) {
  const std::vector<size_t> field_lengths = lengths_of(fields, count);
  const std::vector<size_t> value_lengths = lengths_of(values, count);
  const cache_outcome outcome = with_client(persistent, [&](vk_client_t *client) {
    return vk_hmset(client, key, std::strlen(key), fields, count, field_lengths.data(), values,
                    value_lengths.data(), persistent);
  });
  if (!outcome) {
    CACHE_LOG(site, "cache_hmset(%s,%zuX): error %s", key, count, outcome.error);
  } else {
    CACHE_LOG(site, "cache_hmset(%s,%zuX): success", key, count);
  }
  return outcome;
}

cache_outcome cache_zaddval(const call_site &site, const char *key, const char *member,
                            double score, const char *value) {
  const cache_outcome outcome = with_client(0, [&](vk_client_t *client) {
    return vk_zaddval(client, key, std::strlen(key), member, std::strlen(member), score, value,
                      std::strlen(value));
  });
  if (!outcome) {
    CACHE_LOG(site, "cache_zaddval(%s, %s): error %s", key, member, outcome.error);
  } else {
    CACHE_LOG(site, "cache_zaddval(%s, %s): success", key, member);
  }
  return outcome;
}

text_array rmget_hash_key(const call_site &site, int persistent, const char *key,
                          const char *const *fields, size_t count) {
  text_array values;
  const cache_outcome outcome = cache_hmget(site, persistent, key, fields, count, values);
  if (!outcome) {
    CACHE_LOG(site, "rmget_hash(%s,X%d): error %s", key, static_cast<int>(count), outcome.error);
  } else {
    CACHE_LOG(site, "rmget_hash(%s,X%d): success", key, static_cast<int>(count));
  }
  return values;
}

void hide_marker(c_string &value, int keep_markers) noexcept {
  if (!value) return;
  const bool hidden =
      (std::strcmp(value.get(), QX_CACHE_NULL) == 0 && (keep_markers & QX_KEEP_NULL) == 0) ||
      (std::strcmp(value.get(), QX_CACHE_NO_ROW) == 0 && (keep_markers & QX_KEEP_NO_ROW) == 0);
  if (hidden) value.reset();
}

bool recreate_cache_client() {
  const write_section section;
  const std::lock_guard guard(process_client->creation);
  return publish_new_client();
}
