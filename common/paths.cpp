// The installed program's provider: the paths as they are.
// No environment is read; tests link another provider in its place.
#include "common/paths.h"

#include "common/paths_table.h"

const char *qx_path(qx_path_id id) {
  return qx_fixed_paths[id];
}
