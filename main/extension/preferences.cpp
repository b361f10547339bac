// Preferences of extensions and parameters of the system, each in its place in the cache.
#include <iterator>

#include <spoolcap/zarn_extension.h>
#include "main/extension/extension.h"

namespace {

constexpr char prefs_statement[] =
    "SELECT p.param, p.value FROM extension e LEFT JOIN extension_prefs p ON p.extension_id=e.id "
    "WHERE e.extended_number='%s' AND param IN(%s) ";
constexpr char pref_statement[] =
    "SELECT value FROM extension_prefs WHERE extension_id='%d'AND param='%s'";
constexpr char params_statement[] = "SELECT param, value FROM misc WHERE param IN (%s)";

constexpr cache_binding pref(const char *name, const char *field) {
  return {name, extension_prefs_key, 0, field};
}

// Sorted by name, as is the table after it.
constexpr cache_binding pref_bindings[] = {
    pref("call_waiting", "cw"),
    {"callreturn", "res:cb:ext:%s", 0, "crt"},
    pref("chat_status", "cst"),
    pref("conf", "conf"),
    pref("conf_size", "confs"),
    {"credit_limit", "res:cc:ext:%s", 0, "clim"},
    pref("dir", "dir"),
    pref("dnd", "dnd"),
    pref("dnd_sound", "dndso"),
    pref("dnd_sound_active", "dndsa"),
    pref("encryption", "enc"),
    pref("fax", "fx"),
    pref("fax_active", "fxa"),
    pref("fax_attach", "fxatt"),
    pref("fax_autoans_time", "fxat"),
    pref("fax_redirect_to_voicemail", "fxrv"),
    pref("hotdesk", "hdsk"),
    pref("no_answer", "noans"),
    pref("rec", "rec"),
    pref("record_always", "recal"),
    pref("record_sound_active", "recsa"),
    pref("voicemail", "vm"),
    pref("voicemail_active", "vma"),
    pref("voicemail_autoans_time", "vmat"),
};
constexpr int pref_count = static_cast<int>(std::size(pref_bindings));

constexpr cache_binding system_param(const char *name, const char *field) {
  return {name, "system:pbx", 0, field};
}

// "text2speach" is how the parameter is stored.
constexpr cache_binding param_bindings[] = {
    system_param("avgcall", "acd"),           system_param("billing_disabled", "chst"),
    system_param("currency", "cur"),          system_param("diagnostic_passwd", "dp"),
    system_param("elocal_calls_cost", "ecc"), system_param("ext_length", "extlen"),
    system_param("ext_separator", "extsep"),  system_param("language", "pln"),
    system_param("local_calls_cost", "lcc"),  system_param("snd_currency", "sndc"),
    system_param("text2speach", "t2s"),
};
constexpr int param_count = static_cast<int>(std::size(param_bindings));

// The value of an array that has one.
c_string only_value(char **array) {
  string_array values(array, 1);
  return values ? values.take(0) : nullptr;
}

c_string system_parameter(const char *name) {
  return only_value(qx_misc_get_params(1, &name));
}

}  // namespace

char **qx_extension_get_prefs(const char *full_number, int count, const char *const *names) {
  if (!is_given(QX_HERE, full_number)) return nullptr;
  return drmget_hash(pref_count, pref_bindings, count, names, prefs_statement, full_number, 0, 0,
                     0);
}

char *qx_extension_get_pref(const char *full_number, const char *name) {
  return only_value(qx_extension_get_prefs(full_number, 1, &name)).release();
}

char *qx_extension_get_pref_by_id(int extension_id, const char *name) {
  if (!is_given(QX_HERE, name)) return nullptr;
  return sql_text(QX_HERE, nullptr, pref_statement, extension_id, name).release();
}

char **qx_misc_get_params(int count, const char *const *names) {
  return drmget_hash(param_count, param_bindings, count, names, params_statement, nullptr, 0, 0, 0);
}

char *qx_misc_get_param(const char *name) {
  return system_parameter(name).release();
}

int qx_get_extlen(void) {
  return number_or(-1, system_parameter("ext_length"));
}

int qx_get_extsep(void) {
  const c_string separator = system_parameter("ext_separator");
  return separator ? static_cast<unsigned char>(*separator) : -1;
}

int qx_billing_disabled(void) {
  return number_or(0, system_parameter("billing_disabled")) == 1 ? 1 : 0;
}

void qx_free_string_array(int count, char **array) {
  rget_free_vals(count, array);
}
