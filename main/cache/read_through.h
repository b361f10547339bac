// The read-through lookup of one field: cache, then database, then back into the cache. Internal
// to main/.
#ifndef MAIN_CACHE_READ_THROUGH_H
#define MAIN_CACHE_READ_THROUGH_H

#include <functional>

#include "main/cache/client.h"
#include "main/sql/query.h"

// The one argument of a lookup's key and statement: a number (%d), a text (%s), or none, for a key
// that is used as it stands.
class lookup_argument {
 public:
  explicit lookup_argument(int number) : kind_(kind::number), number_(number) {}
  explicit lookup_argument(const char *text)
      : kind_(text == nullptr ? kind::none : kind::text), text_(text) {}

  // A text with the argument put in as it is; null when memory is short.
  c_string format(const char *pattern) const;

 private:
  enum class kind { none, number, text };
  kind kind_;
  int number_ = 0;
  const char *text_ = nullptr;
};

// What one lookup is made of; lookups are constants of this type.
struct field_lookup {
  const char *key_format;
  const char *field;
  int persistent = 0;
  const char *statement;

  // Whether a cached text answers the question, so that the database need not be asked; NULL: any.
  bool (*usable)(const char *cached) = nullptr;

  // The value that the database gave, which is also what is written back; null when there is none
  // and nothing is written. `rows` is at its first row; NULL when the statement failed or gives
  // none.
  c_string (*value_of)(MYSQL_RES *rows);

  // The value is never a marker, so it is written without asking whether one may be.
  bool unguarded = false;

  int keep_markers = 0;

  // When not NULL, told before the database is asked.
  const char *announcement = nullptr;

  // When not NULL, a statement without a row is reported as a warning that begins with this text,
  // formatted with the argument. Otherwise only a failed statement is, in the common form.
  const char *complaint = nullptr;
};

enum class answer_source { cache, database, nowhere };

// When the answer came from nowhere, the value is the cached text that was not usable, or null.
struct field_answer {
  c_string value;
  answer_source source;
};

// For a lookup that takes more from the result than its one value: called with the first row before
// the value is written back, and not at all when there is no row.
using row_reader = std::function<void(MYSQL_RES *rows, MYSQL_ROW row)>;

field_answer read_through(const call_site &site, const field_lookup &lookup,
                          const lookup_argument &argument, SessionHandle session,
                          const row_reader &also = {});

// The next row, NULL when there is none; no result has none.
inline MYSQL_ROW next_row(MYSQL_RES *rows) {
  return rows == nullptr ? nullptr : mysql_fetch_row(rows);
}

// First columns of first rows as values.
c_string column_or_nothing(MYSQL_RES *rows);
c_string column_or_marker(MYSQL_RES *rows);

#endif
