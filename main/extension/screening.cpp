// Caller screening: a behaviour and two lists of numbers, from one call of a stored procedure.
#include <cstring>
#include <memory>

#include <spoolcap/zarn_extension.h>
#include <spoolcap/zarn_str.h>
#include "main/extension/extension.h"
#include "platform/base/view.h"

namespace {

constexpr char allowed_key[] = "res:scral:ext:%s";
constexpr char denied_key[] = "res:scrdl:ext:%s";

constexpr field_lookup behaviour_lookup = {
    .key_format = extension_prefs_key,
    .field = "scrb",
    .statement = "CALL get_screening_prefs('%s')",
    .value_of = column_or_marker,
    .announcement = "searching for screening params in database ..."};

using string_list = std::unique_ptr<char *, call_to_release<zarn_str_freelist>>;

// Takes a list out of a column and puts its numbers into their hash. Throws std::bad_alloc: the
// behaviour must not be cached without its lists.
c_string list_of(const char *column, const char *key_format, const char *full_number) {
  if (is_empty(column)) return nullptr;
  const string_list numbers(zarn_str_split_char(column, ','));
  int count = 0;
  while (numbers && numbers.get()[count] != nullptr) ++count;
  if (rmset_hash(0, count, numbers.get(), numbers.get(), key_format, full_number) != 0) {
    throw std::bad_alloc();
  }
  return copy_of(column);
}

void hand_over(c_string &value, char **out) {
  if (out != nullptr) *out = value.release();
}

}  // namespace

int qx_screening_get_behaviour(const char *full_number, char **behaviour, char **allowed,
                               char **denied) {
  const call_site here = QX_HERE;
  for (char **const out : {behaviour, allowed, denied}) {
    if (out != nullptr) *out = nullptr;
  }
  return no_throw(-1, [&] {
    c_string allow_list;
    c_string deny_list;
    // The lists are in the cache before the behaviour is: whoever finds that finds them too.
    const auto read_lists = [&](MYSQL_RES *rows, MYSQL_ROW row) {
      const unsigned columns = mysql_num_fields(rows);
      if (columns > 1) allow_list = list_of(row[1], allowed_key, full_number);
      if (columns > 2) deny_list = list_of(row[2], denied_key, full_number);
    };
    field_answer answer = read_extension(here, behaviour_lookup, full_number, nullptr, read_lists);
    if (!answer.value) return -1;
    if (answer.source == answer_source::cache) {
      if (allowed != nullptr) allow_list.reset(rgetall_hash_comma(0, allowed_key, full_number));
      if (denied != nullptr) deny_list.reset(rgetall_hash_comma(0, denied_key, full_number));
    }
    hand_over(answer.value, behaviour);
    hand_over(allow_list, allowed);
    hand_over(deny_list, denied);
    return 0;
  });
}
