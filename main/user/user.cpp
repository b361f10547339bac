// Lookups of one account: parent, level, status, name, extensions and preferences.
// Through the cache, from `client`, `client_prefs` and `extension`.
#include <spoolcap/zarn_user.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>
#include <utility>

#include <spoolcap/zarn_cache.h>
#include <spoolcap/zarn_extension.h>
#include "main/account/media.h"
#include "main/cache/keys.h"
#include "main/cache/parameters.h"
#include "main/user/account_place.h"
#include "platform/base/text.h"
#include "platform/base/view.h"

namespace {

constexpr char extensions_statement[] = "SELECT number, id FROM extension WHERE client_id = '%d'";
constexpr char prefs_statement[] =
    "SELECT param, value FROM client_prefs  WHERE client_id='%s' AND param IN(%s) ";

// Sorted by name. "maxconcurent" is how the parameter is stored.
constexpr cache_binding pref_bindings[] = {
    {"fax_storage", limits_key, 0, "fax"},          {"max_maxconcurent", account_key, 0, "ecc"},
    {"max_maxconcurentint", account_key, 0, "icc"}, {"max_moh", limits_key, 0, "mmoh"},
    {"max_record", limits_key, 0, "mrec"},          {"max_sound", limits_key, 0, "msnd"},
    {"max_voice", limits_key, 0, "mvoc"},
};
static_assert(is_sorted_by_name(pref_bindings));
// A limit that is no preference here would read as none, and would stop no account.
static_assert(std::ranges::all_of(media_kinds, [](const media_kind &kind) {
  return std::ranges::any_of(pref_bindings, [&kind](const cache_binding &row) {
    return std::string_view(row.name) == kind.limit;
  });
}));
constexpr int pref_count = static_cast<int>(std::size(pref_bindings));

// Text that is no number, such as a marker, counts as 0 and is accepted.
bool not_negative(const char *cached) {
  return std::atoi(cached) >= 0;
}
bool not_minus_one(const char *cached) {
  return std::atoi(cached) != -1;
}

c_string column_or_empty(MYSQL_RES *rows) {
  const MYSQL_ROW row = next_row(rows);
  if (row == nullptr) return nullptr;
  return c_string(::strdup(row[0] == nullptr ? "" : row[0]));
}

c_string filled_column(MYSQL_RES *rows) {
  c_string column = column_or_nothing(rows);
  return is_empty(column.get()) ? nullptr : std::move(column);
}

// A lookup in the account's hash. Any cached text is the answer, so no marker is hidden; none is
// written either.
constexpr field_lookup account_field(const char *field, const char *statement,
                                     bool (*usable)(const char *),
                                     c_string (*value_of)(MYSQL_RES *),
                                     const char *complaint = nullptr) {
  return {.key_format = account_key,
          .field = field,
          .statement = statement,
          .usable = usable,
          .value_of = value_of,
          .keep_markers = QX_KEEP_NULL | QX_KEEP_NO_ROW,
          .complaint = complaint};
}

constexpr field_lookup parent_lookup = account_field(
    "pid", "SELECT parent_client_id FROM client WHERE id='%d' ", nullptr, column_or_empty);

constexpr field_lookup level_lookup =
    account_field("lvl", "SELECT level FROM client WHERE id=%d", not_negative, filled_column);

// A cached -1 stands for "not known" and is no answer: the database is asked.
constexpr field_lookup status_lookup = account_field(
    "st", "SELECT status FROM client WHERE id='%d'", not_minus_one, column_or_nothing);

constexpr field_lookup phone_status_lookup = account_field(
    "pst", "SELECT phonestatus FROM client WHERE id='%d'", not_minus_one, column_or_nothing);

constexpr field_lookup name_lookup =
    account_field("nam", "SELECT name FROM client WHERE id = %d", nullptr, column_or_nothing,
                  "Could not query for client name with id %d");

// The extensions as the database has them, each also written to the index in the cache.
text_array extensions_from_database(const call_site &site, SessionHandle session, const char *key,
                                    const char *parent_id, int account_id, bool numbers_only) {
  const sql_session own(session);
  if (!own) {
    log_condition_failed(site);
    return {};
  }
  sql_result rows;
  if (sql_query(site, own.get(), rows, extensions_statement, account_id) != 0) return {};
  if (!rows) {
    log_condition_failed({site.source, site.function, __LINE__});
    return {};
  }
  const size_t row_count = mysql_num_rows(rows.get());
  if (row_count == 0) return {};

  // Some slots may stay NULL: rows without a number.
  text_array numbers(row_count);
  for (size_t i = 0; i < row_count; ++i) {
    const MYSQL_ROW row = mysql_fetch_row(rows.get());
    if (row == nullptr) break;
    const char *const number = row[0];
    const char *const id = row[1];
    if (number == nullptr) continue;
    numbers.set(i, numbers_only ? copy_text(number)
                                : c_string(qx_get_full_number_sess(own.get(), parent_id, number)));
    // Without the check of markers: this writer fills the index as a whole.
    if (id != nullptr) cache_hset(site, 0, key, number, id);
  }
  return numbers;
}

text_array read_extensions(const call_site &site, SessionHandle session, const char *parent_id,
                           int account_id, bool numbers_only) {
  const c_string key = lookup_argument(account_id).format(extension_index_key);
  if (!key) throw std::bad_alloc();
  std::optional<hash_entries> index = cache_hgetall(site, 0, key.get());
  // An index that is there counts as complete: whoever adds an extension adds it there.
  if (!index) {
    return extensions_from_database(site, session, key.get(), parent_id, account_id, numbers_only);
  }
  text_array &numbers = index->fields;
  for (size_t i = 0; !numbers_only && i < numbers.count(); ++i) {
    numbers.set(i, c_string(qx_get_full_number_sess(session, parent_id, numbers[i])));
  }
  return std::move(numbers);
}

}  // namespace

char *qx_account_get_parent_str_sess(SessionHandle session, int account_id) {
  return read_through(QX_HERE, parent_lookup, lookup_argument(account_id), session).value.release();
}

int qx_account_get_parent_sess(SessionHandle session, int account_id) {
  const c_string parent(qx_account_get_parent_str_sess(session, account_id));
  if (!parent) return -2;
  // -2 for an account that is not known, -1 for one without a parent.
  return *parent == '\0' ? -1 : std::atoi(parent.get());
}

int qx_account_get_level_sess(SessionHandle session, int account_id) {
  return number_or(-1,
                   read_through(QX_HERE, level_lookup, lookup_argument(account_id), session).value);
}

int qx_account_get_level(int account_id) {
  return qx_account_get_level_sess(nullptr, account_id);
}

account_place get_account_place(SessionHandle session, int account_id) {
  const c_string key = lookup_argument(account_id).format(account_key);
  const char *const fields[] = {level_lookup.field, parent_lookup.field};
  text_array cached;
  if (key) cached = rmget_hash_key(QX_HERE, 0, key.get(), fields, std::size(fields));
  // One read instead of two: the engine asks this for every account of the parent chain.
  if (cached && cached[0] != nullptr && cached[1] != nullptr && not_negative(cached[0])) {
    return {std::atoi(cached[0]), cached.take(1)};
  }
  const int level = qx_account_get_level_sess(session, account_id);
  return {level, c_string(qx_account_get_parent_str_sess(session, account_id))};
}

int qx_user_get_status(int account_id) {
  return number_or(
      -1, read_through(QX_HERE, status_lookup, lookup_argument(account_id), nullptr).value);
}

// Only the database's answer is reduced to its last two digits. The cache holds the whole number,
// which other readers share, and returns it unreduced: later callers see another value than the
// first. Callers depend on both.
int qx_user_get_phonestatus(int account_id) {
  const field_answer answer =
      read_through(QX_HERE, phone_status_lookup, lookup_argument(account_id), nullptr);
  const int status = number_or(-1, answer.value);
  return answer.source == answer_source::database ? status % 100 : status;
}

char *qx_account_get_name_sess(SessionHandle session, int account_id) {
  return read_through(QX_HERE, name_lookup, lookup_argument(account_id), session).value.release();
}

char *qx_account_get_name(int account_id) {
  return qx_account_get_name_sess(nullptr, account_id);
}

char **qx_user_get_extensions_sess(SessionHandle session, const char *parent_id, int account_id,
                                   int numbers_only, size_t *count) {
  const call_site here = QX_HERE;
  return no_throw<char **>(nullptr, [&] {
    text_array numbers = read_extensions(here, session, parent_id, account_id, numbers_only != 0);
    *count = numbers.count();
    return numbers.release();
  });
}

char **qx_account_get_prefs(int account_id, int count, const char *const *names) {
  const c_string id = format_text("%d", account_id);
  if (!id) return nullptr;
  return drmget_hash(pref_count, pref_bindings, count, names, prefs_statement, id.get(), 1, 0, 0);
}

char *qx_account_get_pref(int account_id, const char *name) {
  // Unlike the call for several names, this one looks up no unknown name.
  if (get_binding(pref_count, pref_bindings, name) == nullptr) return nullptr;
  return only_text(qx_account_get_prefs(account_id, 1, &name)).release();
}
