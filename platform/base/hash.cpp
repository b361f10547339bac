// The hash table of the platform: keeps the order in which entries came.
// In memory only; one lock for each table.
#include "platform/base/hash.h"

#include <cstddef>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/base/owner.h"

// Only pointers into the table: freeing the array leaves the keys where they are.
struct fr_array {
  std::vector<const void *> elements;
};

// Entries stand in a deque in the order of their arrival. There they never move, so the map may
// look them up by views of their keys.
struct fr_hash {
  struct entry {
    std::string key;
    std::unique_ptr<std::byte[]> value;
  };

  // Runs under the lock when a value is replaced: it must not wait for another user of the table.
  fr_hash_destructor destroy_value = nullptr;
  std::deque<entry> entries;
  std::unordered_map<std::string_view, entry *> by_key;
  std::recursive_mutex lock;

  entry *find(std::string_view key) {
    const auto found = by_key.find(key);
    return found == by_key.end() ? nullptr : found->second;
  }

  // Strong guarantee: when memory is short, neither the deque nor the map has changed. An entry
  // keeps its place in the order when its value is replaced.
  void put(std::string_view key, std::unique_ptr<std::byte[]> value) {
    if (entry *known = find(key)) {
      if (destroy_value != nullptr) destroy_value(known->value.get());
      known->value = std::move(value);
      return;
    }
    entry &added = entries.emplace_back(entry{std::string(key), std::move(value)});
    try {
      by_key.emplace(added.key, &added);
    } catch (...) {
      entries.pop_back();
      throw;
    }
  }

  // Runs without the lock: whoever destroys the table must be the last one to use it.
  ~fr_hash() {
    for (const entry &last : entries) {
      if (destroy_value != nullptr) destroy_value(last.value.get());
    }
  }
};

namespace {

std::string_view key_view(const void *key, size_t length) {
  return {static_cast<const char *>(key), length};
}

}  // namespace

fr_hash_t *fr_hash_init_api(int key_kinds, fr_hash_destructor destroy_value) {
  // Callers pass the number of kinds of key; no other number was ever given a meaning.
  if (key_kinds != 1) return nullptr;
  return no_throw<fr_hash_t *>(nullptr, [&] {
    auto table = std::make_unique<fr_hash>();
    table->destroy_value = destroy_value;
    return table.release();
  });
}

int fr_hash_force_add(fr_hash_t *table, const void *key, size_t key_length, const void *value,
                      size_t value_length) {
  if (table == nullptr || key == nullptr || value == nullptr) return -1;
  return no_throw(-1, [&] {
    const std::lock_guard lock(table->lock);
    auto copy = std::make_unique_for_overwrite<std::byte[]>(value_length);
    std::memcpy(copy.get(), value, value_length);
    table->put(key_view(key, key_length), std::move(copy));
    return 0;
  });
}

void *fr_hash_find(fr_hash_t *table, const void *key, size_t key_length) {
  if (table == nullptr || key == nullptr) return nullptr;
  return no_throw<void *>(nullptr, [&]() -> void * {
    const std::lock_guard lock(table->lock);
    const fr_hash::entry *found = table->find(key_view(key, key_length));
    return found == nullptr ? nullptr : found->value.get();
  });
}

int fr_hash_empty(fr_hash_t *table) {
  if (table == nullptr) return 1;
  // A lock that fails counts as an empty table, which makes callers do nothing.
  return no_throw(1, [&] {
    const std::lock_guard lock(table->lock);
    return table->entries.empty() ? 1 : 0;
  });
}

fr_array_t *fr_hash_getkeys(fr_hash_t *table) {
  if (table == nullptr) return nullptr;
  return no_throw<fr_array_t *>(nullptr, [&] {
    const std::lock_guard lock(table->lock);
    auto keys = std::make_unique<fr_array>();
    keys->elements.reserve(table->entries.size());
    // Keys are never removed, so these pointers hold until the table is destroyed.
    for (const fr_hash::entry &entry : table->entries) keys->elements.push_back(entry.key.data());
    return keys.release();
  });
}

void fr_hash_lock(fr_hash_t *table) {
  if (table == nullptr) return;
  // It fails only for a thread that holds the lock more often than can be counted.
  no_throw([table] { table->lock.lock(); });
}

void fr_hash_unlock(fr_hash_t *table) {
  if (table != nullptr) table->lock.unlock();
}

void fr__hash_destroy(fr_hash_t *table) {
  delete table;
}

size_t fr_array_length(const fr_array_t *array) {
  return array == nullptr ? 0 : array->elements.size();
}

const void *fr_array_get(const fr_array_t *array, size_t index) {
  return index < fr_array_length(array) ? array->elements[index] : nullptr;
}

void fr_array_free(fr_array_t *array) {
  delete array;
}
