// Parameters of the whole platform, from the table `misc`.
// Through the cache; the few that modules need by themselves have functions here.
#include <iterator>

#include <spoolcap/zarn_extension.h>
#include "main/cache/keys.h"
#include "main/cache/parameters.h"
#include "platform/base/text.h"

namespace {

// The list of names is put together by the cache layer, quoted.
constexpr char statement[] = "SELECT param, value FROM misc WHERE param IN (%s)";

constexpr cache_binding parameter(const char *name, const char *field) {
  return {name, system_key, 0, field};
}

// Sorted by name. "text2speach" is how the parameter is stored.
constexpr cache_binding bindings[] = {
    parameter("avgcall", "acd"),           parameter("billing_disabled", "chst"),
    parameter("currency", "cur"),          parameter("diagnostic_passwd", "dp"),
    parameter("elocal_calls_cost", "ecc"), parameter("ext_length", "extlen"),
    parameter("ext_separator", "extsep"),  parameter("language", "pln"),
    parameter("local_calls_cost", "lcc"),  parameter("snd_currency", "sndc"),
    parameter("text2speach", "t2s"),
};
static_assert(is_sorted_by_name(bindings));

c_string value_of(const char *name) noexcept {
  return only_text(qx_misc_get_params(1, &name));
}

}  // namespace

char **qx_misc_get_params(int count, const char *const *names) {
  return drmget_hash(static_cast<int>(std::size(bindings)), bindings, count, names, statement,
                     nullptr, 0, 0, 0);
}

char *qx_misc_get_param(const char *name) {
  return value_of(name).release();
}

int qx_get_extlen(void) {
  return number_or(-1, value_of("ext_length"));
}

// The separator as a byte value; of a longer text only the first byte counts.
int qx_get_extsep(void) {
  const c_string separator = value_of("ext_separator");
  return separator ? static_cast<unsigned char>(*separator) : -1;
}

int qx_billing_disabled(void) {
  return number_or(0, value_of("billing_disabled")) == 1 ? 1 : 0;
}
