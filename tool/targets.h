// The accounts that a run is about.
#ifndef TOOL_TARGETS_H
#define TOOL_TARGETS_H

#include <cstdint>
#include <functional>
#include <memory>

#include "platform/base/hash.h"
#include "platform/base/owner.h"

// One selected account. The table keys these by account id, a 32-bit integer in native byte order.
struct target_record {
  char level_ids[3][5];  // own id in the slot of its level, the parent's in the slot above; cut to
                         // four characters, as nothing reads them
  int32_t level;         // LEVEL_RESELLER, LEVEL_CLIENT or LEVEL_OWNER
  int32_t level_index;
  int32_t parent_id;
  int32_t selected;  // 1: this run refreshes the account itself; 0: it is shown only, or its
                     // parent's refresh covers it
  char *login;       // owned by the table
};

// Freed with its records and their logins. Keeps the order of the statement.
using target_table = std::unique_ptr<fr_hash_t, call_to_release<fr__hash_destroy>>;

// The accounts that the command line names, each once and parents first. Null when nothing was
// selected or no session could be had; such a run ends with status 10. A statement that fails is
// logged and gives a table without records; such a run goes on and ends with 0. That difference
// is kept. Throws std::bad_alloc when memory is short.
target_table get_sql_data();

// Visits each target in the order of selection, holding the table's lock for the whole walk. Throws
// std::bad_alloc when the targets cannot be listed.
void for_each_target(fr_hash_t *targets,
                     const std::function<void(int32_t id, const target_record &target)> &visit);

#endif
