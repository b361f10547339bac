// Preferences of extensions, each in its place in the cache.
// From the cache where it has them, else from `extension_prefs`.
#include <iterator>

#include <spoolcap/zarn_extension.h>
#include "main/cache/parameters.h"
#include "main/extension/extension.h"

namespace {

constexpr char prefs_statement[] =
    "SELECT p.param, p.value FROM extension e LEFT JOIN extension_prefs p ON p.extension_id=e.id "
    "WHERE e.extended_number='%s' AND param IN(%s) ";
constexpr char pref_statement[] =
    "SELECT value FROM extension_prefs WHERE extension_id='%d'AND param='%s'";

// A preference in the hash that most of them share; the others name their own.
constexpr cache_binding pref(const char *name, const char *field) {
  return {name, extension_prefs_key, 0, field};
}

// Sorted by name.
constexpr cache_binding pref_bindings[] = {
    pref("call_waiting", "cw"),
    {"callreturn", callreturn_key, 0, "crt"},
    pref("chat_status", "cst"),
    pref("conf", "conf"),
    pref("conf_size", "confs"),
    {"credit_limit", credit_key, 0, "clim"},
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
static_assert(is_sorted_by_name(pref_bindings));
constexpr int pref_count = static_cast<int>(std::size(pref_bindings));

}  // namespace

char **qx_extension_get_prefs(const char *full_number, int count, const char *const *names) {
  if (!is_given(QX_HERE, full_number)) return nullptr;
  return drmget_hash(pref_count, pref_bindings, count, names, prefs_statement, full_number, 0, 0,
                     0);
}

char *qx_extension_get_pref(const char *full_number, const char *name) {
  return only_text(qx_extension_get_prefs(full_number, 1, &name)).release();
}

// Past the cache, whose keys go by number; the database is asked each time.
char *qx_extension_get_pref_by_id(int extension_id, const char *name) {
  if (!is_given(QX_HERE, name)) return nullptr;
  return sql_text(QX_HERE, nullptr, pref_statement, extension_id, name).release();
}

void qx_free_string_array(int count, char **array) {
  rget_free_vals(count, array);
}
