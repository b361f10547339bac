// A walk over the target table, in the order in which the accounts were selected.
#ifndef TOOL_KEYS_H
#define TOOL_KEYS_H

#include <cstdint>
#include <memory>
#include <new>

#include "platform/base/hash.h"
#include "platform/base/owner.h"
#include "tool/targets.h"

// Calls visit(id, record) for each target, holding the table's lock for the whole walk. Throws
// std::bad_alloc when the targets cannot be listed.
template <class Visitor>
void for_each_target(fr_hash_t *targets, Visitor visit) {
  fr_hash_lock(targets);
  const std::unique_ptr<fr_hash_t, call_to_release<fr_hash_unlock>> locked(targets);
  const std::unique_ptr<fr_array_t, call_to_release<fr_array_free>> keys(fr_hash_getkeys(targets));
  if (keys == nullptr) throw std::bad_alloc();
  for (size_t i = 0; i < fr_array_length(keys.get()); ++i) {
    const int32_t id = *static_cast<const int32_t *>(fr_array_get(keys.get(), i));
    if (const auto *target = fr_hash_find<target_record>(targets, id)) visit(id, *target);
  }
}

#endif
