// The steps of the cache layer that the lookups share, each logged in the name of the call site
// that it is told. Internal to main/.
//
// Reads and writes of a hash go to the client itself when `persistent` is non-zero and to its
// secondary handle otherwise. Statuses are the client's (VK_*), VK_ERR_CLIENT without a client.
#ifndef MAIN_CACHE_CLIENT_H
#define MAIN_CACHE_CLIENT_H

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <utility>

#include <spoolcap/zarn_cache.h>
#include "platform/base/diagnostics.h"
#include "platform/base/owner.h"

// One diagnostic of this layer, with the prefix and the end that all of them have.
#define CACHE_LOG(site, text, ...) \
  QX_LOG_AT(site, FR_LOG_DEBUG, "%s:%d:" text "\n\n", (site).source, (site).line, __VA_ARGS__)

// An array of heap strings as C callers expect it: array and strings from malloc, slots may be
// NULL.
class string_array {
 public:
  string_array() = default;
  explicit string_array(size_t count)
      : slots_(static_cast<char **>(std::calloc(count, sizeof(char *)))), count_(count) {
    if (slots_ == nullptr) throw std::bad_alloc();
  }
  string_array(char **slots, size_t count) noexcept : slots_(slots), count_(count) {}
  string_array(string_array &&other) noexcept
      : slots_(std::exchange(other.slots_, nullptr)), count_(std::exchange(other.count_, 0)) {}
  string_array &operator=(string_array &&other) noexcept {
    std::swap(slots_, other.slots_);
    std::swap(count_, other.count_);
    return *this;
  }
  ~string_array() { rget_free_vals(static_cast<int>(count_), slots_); }

  explicit operator bool() const { return slots_ != nullptr; }
  size_t count() const { return count_; }
  char *operator[](size_t slot) const { return slots_[slot]; }
  c_string take(size_t slot) { return c_string(std::exchange(slots_[slot], nullptr)); }
  void set(size_t slot, c_string value) { std::free(std::exchange(slots_[slot], value.release())); }
  // Hands everything over to the caller.
  char **release() {
    count_ = 0;
    return std::exchange(slots_, nullptr);
  }

 private:
  char **slots_ = nullptr;
  size_t count_ = 0;
};

// A copy of a text, NULL for NULL; throws std::bad_alloc.
inline c_string copy_of(const char *text) {
  c_string copy(text == nullptr ? nullptr : ::strdup(text));
  if (text != nullptr && !copy) throw std::bad_alloc();
  return copy;
}

// A key from its format; null on a NULL format or short memory. What came out is used as it is,
// never as a format again, so that a "%" brought in by an argument does no harm.
c_string format_cache_key(const char *format, va_list arguments)
    __attribute__((format(printf, 1, 0)));

inline bool has_null(const char *const *texts, int count) {
  return std::find(texts, texts + count, nullptr) != texts + count;
}

// Text with a backslash before each backslash, double quote and single quote.
std::string escape_sql(const char *text);

// One field; null on a miss and on a failure.
c_string rget_hash_str(const call_site &site, int persistent, const char *key, const char *field);

// The rule of check_add_norows_to_missing_persistent. The hash is looked for on the client itself,
// whatever handle the write would go to.
bool norows_forbidden(const call_site &site, const char *key, int persistent, const char *value);

// Writes one field, unless norows_forbidden.
void rset_hash_str(const call_site &site, int persistent, const char *key, const char *field,
                   const char *value);

// Writes one field as it is.
void cache_hset(const call_site &site, int persistent, const char *key, const char *field,
                const char *value);

// Non-zero when the key exists or nobody could be asked.
int cache_exists(const call_site &site, const char *key);

// All fields of a hash and their values; *count is their number, 0 on a failure. An absent hash is
// a failure.
int cache_hgetall(const call_site &site, int persistent, const char *key, string_array &fields,
                  string_array &values, size_t *count);

// The values of all fields of a hash.
int cache_hgetall_values(const call_site &site, int persistent, const char *key,
                         string_array &values);

// `count` fields, with a slot for each, NULL where absent.
int cache_hmget(const call_site &site, int persistent, const char *key, const char *const *fields,
                size_t count, string_array &values);

int cache_hmset(const call_site &site, int persistent, const char *key, const char *const *fields,
                const char *const *values, size_t count);

// Adds a member of a sorted set, on the secondary handle, or gives it this score.
int cache_zaddval(const call_site &site, const char *key, const char *member, double score,
                  const char *value);

// Makes the client of the process anew from its configuration. Calls that run finish with the old
// one, which goes with the last of them. The result of ast_vk_init; a client whose set-up failed
// half way stays, as one of the first set-up does.
int renew_cache_client();

// cache_hmget with the outcome told once more in the name of rmget_hash; empty on a failure.
string_array rmget_hash_key(const call_site &site, int persistent, const char *key,
                            const char *const *fields, size_t count);

#endif
