// Reads the directories of a run from the configuration files.
// Fills `run`, before any thread or connection is made.
#include "tool/settings.h"

#include <array>
#include <string>

#include <spoolcap/utils.h>
#include "common/paths.h"
#include "platform/base/parseconfig.h"

// Written by one thread at the start; nothing has to guard it.
run_settings run = {};

namespace {

void take_value(safestr_owner &setting, safestr_t found, qx_path_id fallback) {
  const safestr_owner value(found);
  setting.reset(safestr_dup(qx_path_or(value.get(), fallback)));
}

}  // namespace

int get_config() {
  std::string quota_dir;
  std::string conf_file;
  const std::array<parseconfig_entry, 2> directives = {{
      {"QUORVEX_QUOTA_D", &quota_dir},
      {"ASTERISK_CONF_FILE", &conf_file},
  }};
  parseconfig(qx_path(QX_PATH_PATHS_CONF), directives.data(), directives.size());
  run.quota_dir.reset(safestr_dup(qx_path_or(quota_dir.c_str(), QX_PATH_QUOTA_ROOT)));

  constexpr std::array<const char *, 3> keys = {"astspooldir", "astlibdir", nullptr};
  std::array<safestr_t, 2> values = {};
  get_astconf_section_values(qx_path_or(conf_file.c_str(), QX_PATH_ASTERISK_CONF), "directories",
                             keys.data(), values.data());
  take_value(run.ast_spool_dir, values[0], QX_PATH_AST_SPOOL);
  take_value(run.ast_lib_dir, values[1], QX_PATH_AST_LIB);
  return 0;
}
