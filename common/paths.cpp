// The installed program's provider: the paths as they are.
#include "common/paths.h"

#include "common/paths_table.h"

const char *qx_path(qx_path_id id) {
  return qx_fixed_paths[id];
}
