// Looks kinds of media up by what the callers know of them.
// The table itself is in the header; nothing is read and nothing is kept.
#include "main/account/media.h"

#include <strings.h>

namespace {

// What an unknown type gets: its object keys begin with "misc", and it has no folder.
constexpr media_kind misc_kind = {
    .name = "misc", .quota_file = nullptr, .limit = nullptr, .label = nullptr, .folder = nullptr};

}  // namespace

const media_kind &media_of_type(int storage_type) {
  for (const media_kind &kind : media_kinds) {
    if (storage_type != 0 && kind.storage_type == storage_type) return kind;
  }
  return misc_kind;
}

media_rows rows_of_table(const char *table) {
  for (const media_kind &kind : media_kinds) {
    if (kind.rows.table != nullptr && ::strcasecmp(table, kind.rows.table) == 0) return kind.rows;
  }
  return {table, "ext", "filename"};
}
