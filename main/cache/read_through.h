// The read-through lookup of one field: cache, then database, then back into the cache.
#ifndef MAIN_CACHE_READ_THROUGH_H
#define MAIN_CACHE_READ_THROUGH_H

#include <functional>

#include "main/cache/client.h"
#include "main/sql/query.h"

// The one argument of a lookup's key and statement: a number (%d), a text (%s), or none, for a key
// that is used as it stands.
class lookup_argument {
 public:
  explicit lookup_argument(int number) noexcept : kind_(kind::number), number_(number) {}
  explicit lookup_argument(const char *text) noexcept
      : kind_(text == nullptr ? kind::none : kind::text), text_(text) {}

  // A text with the argument put in, unescaped; null when memory is short.
  c_string format(const char *pattern) const noexcept;

 private:
  enum class kind { none, number, text };
  kind kind_;
  int number_ = 0;
  const char *text_ = nullptr;
};

// What one lookup is made of; lookups are constants of this type.
struct field_lookup {
  // The key takes the lookup's argument; `field` is a field of the hash under it.
  const char *key_format;
  const char *field;
  int persistent = 0;
  // Text with one conversion for the argument, or none.
  const char *statement;

  // Accepts or rejects a cached value; a rejected one is looked up in the database. NULL accepts
  // all.
  bool (*usable)(const char *cached) = nullptr;

  // Makes the value out of the database's answer; it is also written back. Null: there is none, and
  // nothing is written. `rows` is at its first row, or NULL when the statement failed or gives
  // none.
  c_string (*value_of)(MYSQL_RES *rows);

  // The value is never a marker: it is written without the check of markers.
  bool unguarded = false;

  // Bits QX_KEEP_...: which markers reach the caller as they are; others become null.
  int keep_markers = 0;

  // When not NULL, logged before the database is asked.
  const char *announcement = nullptr;

  // When not NULL, a statement without a row is a warning that begins with this text, formatted
  // with the argument. When NULL, only a failed statement is logged, in the common form.
  const char *complaint = nullptr;
};

// Callers need it where the cache holds another form than the database gives.
enum class answer_source { cache, database, nowhere };

// When the answer came from nowhere, the value is the rejected cached text, or null.
struct field_answer {
  c_string value;
  answer_source source;
};

// For a lookup that takes more from the result than its one value. Called with the first row,
// before the value is written back; not called when there is no row.
using row_reader = std::function<void(MYSQL_RES *rows, MYSQL_ROW row)>;

// Short memory is an answer from nowhere, without a value.
field_answer read_through(const call_site &site, const field_lookup &lookup,
                          const lookup_argument &argument, SessionHandle session,
                          const row_reader &also = {}) noexcept;

// Values from the first column of the first row: null for a missing row and for NULL, or a marker
// for each.
c_string column_or_nothing(MYSQL_RES *rows);
c_string column_or_marker(MYSQL_RES *rows);

#endif
