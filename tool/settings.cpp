// Reads the directories of a run from the configuration files.
// Fills `run`, before any thread or connection is made.
#include "tool/settings.h"

#include <array>
#include <string>

#include <spoolcap/utils.h>
#include "common/paths.h"
#include "platform/base/parseconfig.h"
#include "platform/base/view.h"

// Written by one thread at the start; nothing has to guard it.
run_settings run = {};

namespace {

// An empty text stands for the default.
const char *text_or(const std::string &text, qx_path_id fallback) {
  return is_empty(text.c_str()) ? qx_path(fallback) : text.c_str();
}

void take_value(safestr_owner &setting, safestr_t value, qx_path_id fallback) {
  setting.reset(value != nullptr ? value : safestr_dup(qx_path(fallback)));
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
  run.quota_dir.reset(safestr_dup(text_or(quota_dir, QX_PATH_QUOTA_ROOT)));

  constexpr std::array<const char *, 3> keys = {"astspooldir", "astlibdir", nullptr};
  std::array<safestr_t, 2> values = {};
  get_astconf_section_values(text_or(conf_file, QX_PATH_ASTERISK_CONF), "directories", keys.data(),
                             values.data());
  take_value(run.ast_spool_dir, values[0], QX_PATH_AST_SPOOL);
  take_value(run.ast_lib_dir, values[1], QX_PATH_AST_LIB);
  return 0;
}
