// Caller screening: a behaviour and two lists of numbers, from one call of a stored procedure.
// Both lists are kept in the cache, in hashes of their own.
#include <new>

#include <spoolcap/zarn_extension.h>
#include <spoolcap/zarn_str.h>
#include "main/extension/extension.h"
#include "platform/base/text.h"
#include "platform/base/view.h"

namespace {

// The procedure's row: behaviour, allowed numbers, denied numbers.
constexpr field_lookup behaviour_lookup = {
    .key_format = extension_prefs_key,
    .field = "scrb",
    .statement = "CALL get_screening_prefs('%s')",
    .value_of = column_or_marker,
    .announcement = "searching for screening params in database ..."};

// Takes a list out of a column and writes its numbers into their hash. Throws std::bad_alloc, as
// the behaviour must not be cached without its lists.
c_string list_of(const char *column, const char *key_format, const char *full_number) {
  if (is_empty(column)) return nullptr;
  const text_array numbers = text_array::of_list(zarn_str_split_char(column, ','));
  const int count = static_cast<int>(numbers.count());
  if (rmset_hash(0, count, numbers.data(), numbers.data(), key_format, full_number) != 0) {
    throw std::bad_alloc();
  }
  return copy_text(column);
}

}  // namespace

int qx_screening_get_behaviour(const char *full_number, char **behaviour, char **allowed,
                               char **denied) {
  const call_site here = QX_HERE;
  // Outputs are cleared first; on a failure the caller finds nothing to free.
  for (char **const out : {behaviour, allowed, denied}) {
    if (out != nullptr) *out = nullptr;
  }
  return no_throw(-1, [&] {
    c_string allow_list;
    c_string deny_list;
    // The lists are written before the behaviour: a reader that finds it in the cache finds them.
    const auto read_lists = [&](MYSQL_RES *rows, MYSQL_ROW row) {
      const unsigned columns = mysql_num_fields(rows);
      if (columns > 1) allow_list = list_of(row[1], allowed_key, full_number);
      if (columns > 2) deny_list = list_of(row[2], denied_key, full_number);
    };
    field_answer answer = read_extension(here, behaviour_lookup, full_number, nullptr, read_lists);
    if (!answer.value) return -1;
    // From the database the lists have come with the row already.
    if (answer.source == answer_source::cache) {
      if (allowed != nullptr) allow_list.reset(rgetall_hash_comma(0, allowed_key, full_number));
      if (denied != nullptr) deny_list.reset(rgetall_hash_comma(0, denied_key, full_number));
    }
    hand_over(std::move(answer.value), behaviour);
    hand_over(std::move(allow_list), allowed);
    hand_over(std::move(deny_list), denied);
    return 0;
  });
}
