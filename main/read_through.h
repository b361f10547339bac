// The read-through lookup of one field: cache, then database, then back into the cache. Internal
// to main/.
#ifndef MAIN_READ_THROUGH_H
#define MAIN_READ_THROUGH_H

#include "sql_owner.h"
#include "zarn_cache_internal.h"

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
  int persistent;
  const char *statement;

  // Whether a cached text answers the question, so that the database need not be asked; NULL: any.
  bool (*usable)(const char *cached);

  // The value that the database gave, which is also what is written back; null when there is none
  // and nothing is written. `row` is the first row, NULL when there is none or the statement
  // failed.
  c_string (*value_of)(MYSQL_ROW row);

  int keep_markers;

  // When not NULL, a statement without a row is reported as a warning that begins with this text,
  // formatted with the argument. Otherwise only a failed statement is, in the common form.
  const char *complaint;
};

enum class answer_source { cache, database, nowhere };

// When the answer came from nowhere, the value is the cached text that was not usable, or null.
struct field_answer {
  c_string value;
  answer_source source;
};

field_answer read_through(const call_site &site, const field_lookup &lookup,
                          const lookup_argument &argument, SessionHandle session);

// First columns as values.
c_string column_or_nothing(MYSQL_ROW row);
c_string column_or_marker(MYSQL_ROW row);

#endif
