#include "tests/support/paths_sandbox.h"

#include <array>
#include <cstdlib>

#include "common/paths.h"
#include "common/paths_table.h"

namespace {

using path_texts = std::array<std::string, QX_PATH_COUNT>;

path_texts below(const std::string &root) {
  path_texts texts;
  for (std::size_t i = 0; i < texts.size(); ++i) texts[i] = root + qx_fixed_paths[i];
  return texts;
}

// Without a root nothing is found: a sandboxed program never reaches the machine's own platform.
path_texts &paths() {
  static path_texts texts = [] {
    const char *root = std::getenv(support::paths_root_variable);
    return below(root != nullptr && *root != '\0' ? root : "/nonexistent/sandbox");
  }();
  return texts;
}

}  // namespace

const char *qx_path(qx_path_id id) {
  return paths()[id].c_str();
}

void support::set_paths_root(const std::string &root) {
  paths() = below(root);
}
