#include "tool/settings.h"

#include <array>

#include <spoolcap/utils.h>
#include "common/paths.h"
#include "platform/base/owner.h"
#include "platform/base/parseconfig.h"
#include "platform/base/view.h"

run_settings run = {};

namespace {

safestr_t value_or(safestr_t value, qx_path_id fallback) {
  return value != nullptr ? value : safestr_dup(qx_path(fallback));
}

}  // namespace

int get_config() {
  safestr_t conf_file = nullptr;
  const std::array<parseconfig_entry, 2> directives = {{
      {"QUORVEX_QUOTA_D", &run.quota_dir},
      {"ASTERISK_CONF_FILE", &conf_file},
  }};
  parseconfig(qx_path(QX_PATH_PATHS_CONF), directives.data(), directives.size());
  const safestr_owner asterisk_conf(conf_file);

  if (is_empty(run.quota_dir)) {
    safestr_free(run.quota_dir);
    run.quota_dir = safestr_dup(qx_path(QX_PATH_QUOTA_ROOT));
  }

  constexpr std::array<const char *, 3> keys = {"astspooldir", "astlibdir", nullptr};
  std::array<safestr_t, 2> values = {};
  get_astconf_section_values(
      is_empty(asterisk_conf.get()) ? qx_path(QX_PATH_ASTERISK_CONF) : asterisk_conf.get(),
      "directories", keys.data(), values.data());
  run.ast_spool_dir = value_or(values[0], QX_PATH_AST_SPOOL);
  run.ast_lib_dir = value_or(values[1], QX_PATH_AST_LIB);
  return 0;
}
