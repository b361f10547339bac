/* Hash table of the platform: keys and values are byte strings that the table copies.
 *
 * The table keeps its keys in the order in which they were added. Destroying it runs the value
 * destructor on every value. A table has a lock of its own (recursive, so that a walk under
 * fr_hash_lock may look keys up); each call below takes it for its own length. */
#ifndef PLATFORM_BASE_HASH_H
#define PLATFORM_BASE_HASH_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct fr_hash fr_hash_t;

/* An array of byte strings, handed out by fr_hash_getkeys. */
typedef struct fr_array fr_array_t;

/* Told of each value when it leaves the table; frees what the value owns, not the value itself. */
typedef int (*fr_hash_destructor)(void *value);

/* A new, empty table, or NULL. `key_kinds` is the number of kinds of key and must be 1;
 * `destroy_value` may be NULL. Release with fr__hash_destroy. */
fr_hash_t *fr_hash_init_api(int key_kinds, fr_hash_destructor destroy_value);

/* Adds a copy of the value under a copy of the key; a value that is there is destroyed and
 * replaced. 0, or -1 when memory is short (the table is then unchanged). */
int fr_hash_force_add(fr_hash_t *table, const void *key, size_t key_length, const void *value,
                      size_t value_length);

/* The value under the key, borrowed until it is replaced or the table destroyed, or NULL. */
void *fr_hash_find(fr_hash_t *table, const void *key, size_t key_length);

/* 1 when the table holds nothing (or is NULL), else 0. */
int fr_hash_empty(fr_hash_t *table);

/* All keys in the order they were added, or NULL. The keys are borrowed from the table, the array
 * is the caller's: release with fr_array_free. */
fr_array_t *fr_hash_getkeys(fr_hash_t *table);

/* Holds off all other threads between several calls. Each lock needs one unlock by the same
 * thread; NULL is ignored by both. */
void fr_hash_lock(fr_hash_t *table);
void fr_hash_unlock(fr_hash_t *table);

/* NULL is ignored. */
void fr__hash_destroy(fr_hash_t *table);

/* 0 for NULL. */
size_t fr_array_length(const fr_array_t *array);

/* Element `index`, or NULL beyond the end. */
const void *fr_array_get(const fr_array_t *array, size_t index);

/* NULL is ignored. */
void fr_array_free(fr_array_t *array);

#ifdef __cplusplus
}

/* Typed access for C++ callers whose keys and values are plain values, copied byte by byte. Types
 * with padding are no keys: equal ones may differ there. */
template <class Key, class Value>
int fr_hash_force_add(fr_hash_t *table, const Key &key, const Value &value) {
  return fr_hash_force_add(table, &key, sizeof key, &value, sizeof value);
}

/* Value is the caller's word for it: nothing checks that it is the type which was added. */
template <class Value, class Key>
Value *fr_hash_find(fr_hash_t *table, const Key &key) {
  return static_cast<Value *>(fr_hash_find(table, &key, sizeof key));
}
#endif

#endif
