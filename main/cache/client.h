// Access to the process's cache client, for all modules above: each call takes the handle between
// the lock brackets and logs its outcome in the name of the call site given.
//
// A call goes to the client itself when `persistent` is non-zero, else to its secondary handle.
#ifndef MAIN_CACHE_CLIENT_H
#define MAIN_CACHE_CLIENT_H

#include <optional>

#include <spoolcap/zarn_cache.h>
#include "platform/base/diagnostics.h"
#include "platform/base/owner.h"
#include "platform/base/text_array.h"

// One diagnostic of this layer, with the prefix and the end that all of them have.
#define CACHE_LOG(site, text, ...) \
  QX_LOG_AT(site, FR_LOG_DEBUG, "%s:%d:" text "\n\n", (site).source, (site).line, __VA_ARGS__)

// How a call ended: null after a success, else the static text of its error.
struct cache_outcome {
  const char *error = nullptr;
  explicit operator bool() const noexcept { return error == nullptr; }
};

// One field; null on a miss and on a failure.
c_string rget_hash_str(const call_site &site, int persistent, const char *key,
                       const char *field) noexcept;

// `count` fields, with a slot for each, NULL where absent. An empty owner on a failure.
cache_outcome cache_hmget(const call_site &site, int persistent, const char *key,
                          const char *const *fields, size_t count, text_array &values);

// The same, with the outcome logged once more in the name of rmget_hash.
text_array rmget_hash_key(const call_site &site, int persistent, const char *key,
                          const char *const *fields, size_t count);

// Two arrays of the same length: a value stands at the place of its field.
struct hash_entries {
  text_array fields;
  text_array values;
};

// All fields of a hash and their values; nothing on a failure. An absent hash is a failure.
std::optional<hash_entries> cache_hgetall(const call_site &site, int persistent, const char *key);

// The values of all fields of a hash; an empty owner on a failure.
cache_outcome cache_hgetall_values(const call_site &site, int persistent, const char *key,
                                   text_array &values);

// Writes one field, unless norows_forbidden.
void rset_hash_str(const call_site &site, int persistent, const char *key, const char *field,
                   const char *value);

// Writes one field without that check.
void cache_hset(const call_site &site, int persistent, const char *key, const char *field,
                const char *value);

// Writes `count` fields.
cache_outcome cache_hmset(const call_site &site, int persistent, const char *key,
                          const char *const *fields, const char *const *values, size_t count);

// Sets the score of a member of a sorted set, on the secondary handle; adds a member not yet there.
cache_outcome cache_zaddval(const call_site &site, const char *key, const char *member,
                            double score, const char *value);

// The rule of check_add_norows_to_missing_persistent. It looks for the hash on the client itself,
// whichever handle the write would go to.
bool norows_forbidden(const call_site &site, const char *key, int persistent,
                      const char *value) noexcept;

// Frees a value that is a marker which keep_markers does not keep.
void hide_marker(c_string &value, int keep_markers) noexcept;

// Replaces the process's client by one made from the current configuration; false when its set-up
// failed, which leaves a client whose commands fail. Running calls finish with the old client.
[[nodiscard]] bool recreate_cache_client();

#endif
