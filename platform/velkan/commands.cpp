// The commands of the client: each sends one, checks the shape of its reply, and copies what it
// hands out. Outputs are set to nothing first, so that a failure leaves nothing to free.
#include <charconv>
#include <climits>
#include <span>

#include "platform/base/text.h"
#include "platform/base/text_array.h"
#include "platform/velkan/command.h"
#include "platform/velkan/group.h"

namespace {

// A command on hashes always has a verb and a key before its fields.
constexpr size_t words_before_fields = 2;
// hiredis counts words in int.
constexpr size_t most_words = INT_MAX;

// A copy of a text in the slot; what is absent leaves it NULL.
int copy_reply(const redisReply &reply, text_array &copies, size_t slot) {
  if (reply.type == REDIS_REPLY_NIL) return VK_OK;
  if (reply.type != REDIS_REPLY_STRING) return VK_ERR_REPLY;
  copies.set(slot, copy_text({reply.str, reply.len}));
  return VK_OK;
}

// A window of a list: `limit` 0 is all that follow the offset.
struct window {
  size_t begin;
  size_t end;
  size_t size() const { return end - begin; }
};

// An offset behind the end gives an empty window, no error.
window window_of(size_t size, int offset, int limit) {
  const size_t begin = std::min(size, static_cast<size_t>(offset));
  const size_t wanted = limit == 0 ? size : static_cast<size_t>(limit);
  return {begin, begin + std::min(size - begin, wanted)};
}

// Runs a command given as words; the reply is one of the two types expected.
int run_words(vk_client_t *client, int count, const char **words, const size_t *lengths, int type,
              int other_type, vk_reply &reply) {
  const int status = run_command(*client->state, vk_command(count, words, lengths), reply);
  if (status != VK_OK) return status;
  return reply->type == type || reply->type == other_type ? VK_OK : VK_ERR_REPLY;
}

// Reads a hash whole with `verb`; one that is not there has no entries, which no hash is without.
int read_whole(vk_client_t *client, std::string_view verb, const char *key, size_t key_length,
               vk_reply &reply) {
  const char *words[] = {verb.data(), key};
  const size_t lengths[] = {verb.size(), key_length};
  const int status =
      run_words(client, 2, words, lengths, REDIS_REPLY_ARRAY, REDIS_REPLY_ARRAY, reply);
  if (status != VK_OK) return status;
  return reply->elements == 0 ? VK_ERR_NOT_FOUND : VK_OK;
}

// Runs the body unless the client is missing; memory that runs short is an error code.
template <class Body>
int with_client(const vk_client_t *client, bool arguments_are_good, Body &&body) noexcept {
  if (client == nullptr) return VK_ERR_CLIENT;
  if (!arguments_are_good) return VK_ERR_ARGUMENT;
  return no_throw<int>(VK_ERR_MEMORY, std::forward<Body>(body));
}

}  // namespace

int vk_hget_whole(vk_client_t *client, const char *key, size_t key_length, const char *field,
                  size_t field_length, char **value, size_t *value_length, const char *, int) {
  const bool good = key != nullptr && field != nullptr && value != nullptr;
  if (value != nullptr) *value = nullptr;
  if (value_length != nullptr) *value_length = 0;
  return with_client(client, good, [=]() -> int {
    const char *words[] = {"HGET", key, field};
    const size_t lengths[] = {4, key_length, field_length};
    vk_reply reply;
    const int status =
        run_words(client, 3, words, lengths, REDIS_REPLY_STRING, REDIS_REPLY_NIL, reply);
    // An absent field is a success with a null value: callers tell it from a failure by that.
    if (status != VK_OK || reply->type == REDIS_REPLY_NIL) return status;
    *value = copy_text({reply->str, reply->len}).release();
    if (value_length != nullptr) *value_length = reply->len;
    return VK_OK;
  });
}

int vk_hmget_whole(vk_client_t *client, const char *key, size_t key_length,
                   const char *const *fields, size_t field_count, const size_t *field_lengths,
                   char ***values, size_t *entry_count, char **buffer, const char *, int) {
  const bool good = key != nullptr && fields != nullptr && field_lengths != nullptr &&
                    field_count > 0 && field_count < most_words - words_before_fields &&
                    values != nullptr && entry_count != nullptr;
  if (values != nullptr) *values = nullptr;
  if (entry_count != nullptr) *entry_count = 0;
  if (buffer != nullptr) *buffer = nullptr;
  return with_client(client, good, [=]() -> int {
    std::vector<const char *> words = {"HMGET", key};
    std::vector<size_t> lengths = {5, key_length};
    words.insert(words.end(), fields, fields + field_count);
    lengths.insert(lengths.end(), field_lengths, field_lengths + field_count);
    vk_reply reply;
    int status = run_words(client, static_cast<int>(words.size()), words.data(), lengths.data(),
                           REDIS_REPLY_ARRAY, REDIS_REPLY_ARRAY, reply);
    if (status != VK_OK) return status;
    // One slot for each field asked for, or positions would no longer match fields.
    if (reply->elements != field_count) return VK_ERR_REPLY;
    text_array copies(field_count);
    for (size_t slot = 0; slot < field_count; slot++) {
      status = copy_reply(*reply->element[slot], copies, slot);
      if (status != VK_OK) return status;
    }
    *entry_count = field_count;
    *values = copies.release();
    return VK_OK;
  });
}

int vk_hgetall_whole(vk_client_t *client, const char *key, size_t key_length, size_t *entry_count,
                     char ***values, char **buffer, int offset, int limit, const char *, int) {
  const bool good =
      key != nullptr && entry_count != nullptr && values != nullptr && offset >= 0 && limit >= 0;
  if (values != nullptr) *values = nullptr;
  if (entry_count != nullptr) *entry_count = 0;
  if (buffer != nullptr) *buffer = nullptr;
  return with_client(client, good, [=]() -> int {
    vk_reply reply;
    int status = read_whole(client, "HVALS", key, key_length, reply);
    if (status != VK_OK) return status;
    const window part = window_of(reply->elements, offset, limit);
    text_array copies(part.size());
    for (size_t slot = 0; slot < copies.count(); slot++) {
      status = copy_reply(*reply->element[part.begin + slot], copies, slot);
      if (status != VK_OK) return status;
    }
    *entry_count = copies.count();
    *values = copies.release();
    return VK_OK;
  });
}

int vk_hgetall(vk_client_t *client, const char *key, size_t key_length, size_t *count,
               char ***fields, char ***values, int offset, int limit) {
  const bool good = key != nullptr && count != nullptr && fields != nullptr && values != nullptr &&
                    offset >= 0 && limit >= 0;
  if (fields != nullptr) *fields = nullptr;
  if (values != nullptr) *values = nullptr;
  if (count != nullptr) *count = 0;
  return with_client(client, good, [=]() -> int {
    vk_reply reply;
    int status = read_whole(client, "HGETALL", key, key_length, reply);
    if (status != VK_OK) return status;
    // Names and values alternate.
    if (reply->elements % 2 != 0) return VK_ERR_REPLY;
    const window part = window_of(reply->elements / 2, offset, limit);
    text_array names(part.size());
    text_array texts(part.size());
    for (size_t slot = 0; slot < names.count(); slot++) {
      const redisReply *const *pair = reply->element + 2 * (part.begin + slot);
      status = copy_reply(*pair[0], names, slot);
      if (status == VK_OK) status = copy_reply(*pair[1], texts, slot);
      if (status != VK_OK) return status;
    }
    *count = names.count();
    *fields = names.release();
    *values = texts.release();
    return VK_OK;
  });
}

int vk_hset(vk_client_t *client, const char *key, size_t key_length, const char *field,
            size_t field_length, const char *value, size_t value_length, int persistent) {
  if (field == nullptr || value == nullptr) return VK_ERR_ARGUMENT;
  // HSET takes one pair or many, so one field is the case of one.
  return vk_hmset(client, key, key_length, &field, 1, &field_length, &value, &value_length,
                  persistent);
}

int vk_hmset(vk_client_t *client, const char *key, size_t key_length, const char *const *fields,
             size_t field_count, const size_t *field_lengths, const char *const *values,
             const size_t *value_lengths, int) {
  const bool good = key != nullptr && fields != nullptr && field_lengths != nullptr &&
                    values != nullptr && value_lengths != nullptr && field_count > 0 &&
                    field_count < (most_words - words_before_fields) / 2;
  return with_client(client, good, [=] {
    std::vector<const char *> words = {"HSET", key};
    std::vector<size_t> lengths = {4, key_length};
    for (size_t pair = 0; pair < field_count; pair++) {
      words.insert(words.end(), {fields[pair], values[pair]});
      lengths.insert(lengths.end(), {field_lengths[pair], value_lengths[pair]});
    }
    vk_reply reply;
    return run_words(client, static_cast<int>(words.size()), words.data(), lengths.data(),
                     REDIS_REPLY_INTEGER, REDIS_REPLY_INTEGER, reply);
  });
}

int vk_zaddval(vk_client_t *client, const char *key, size_t key_length, const char *member,
               size_t member_length, double score, const char *, size_t) {
  return with_client(client, key != nullptr && member != nullptr, [=] {
    // As %.17g writes it, whatever the process's locale has for a decimal point.
    char digits[32];
    const auto [end, error] =
        std::to_chars(std::begin(digits), std::end(digits), score, std::chars_format::general, 17);
    if (error != std::errc()) return static_cast<int>(VK_ERR_ARGUMENT);
    const char *words[] = {"ZADD", key, digits, member};
    const size_t lengths[] = {4, key_length, static_cast<size_t>(end - digits), member_length};
    vk_reply reply;
    return run_words(client, 4, words, lengths, REDIS_REPLY_INTEGER, REDIS_REPLY_INTEGER, reply);
  });
}

int vk_exists(vk_client_t *client, const char *key, size_t key_length) {
  // A caller that could not ask must not conclude that the key is free to create.
  constexpr int unknown = 1;
  if (client == nullptr || key == nullptr) return unknown;
  return no_throw(unknown, [=] {
    const char *words[] = {"EXISTS", key};
    const size_t lengths[] = {6, key_length};
    vk_reply reply;
    const int status =
        run_words(client, 2, words, lengths, REDIS_REPLY_INTEGER, REDIS_REPLY_INTEGER, reply);
    return status != VK_OK || reply->integer != 0 ? 1 : 0;
  });
}

int vk_run(vk_client_t *client, std::span<const std::string_view> words, vk_reply &reply) {
  reply.reset();
  return with_client(client, !words.empty() && words.size() < most_words, [&] {
    std::vector<const char *> texts;
    std::vector<size_t> lengths;
    for (const std::string_view word : words) {
      texts.push_back(word.data());
      lengths.push_back(word.size());
    }
    const vk_command command(static_cast<int>(words.size()), texts.data(), lengths.data());
    const int status = run_command(*client->state, command, reply);
    if (status != VK_OK && status != VK_ERR_REPLY) reply.reset();
    return status;
  });
}
