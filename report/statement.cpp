// Reads rows from the connection of a session, without storing them.
// On a connection of the pool, which takes no other statement meanwhile.
#include "report/statement.h"

#include <charconv>

#include "report/command.h"

namespace {

[[noreturn]] void fail(MYSQL *mysql) {
  throw report_trouble(std::string("The database gives no answer: ") + mysql_error(mysql));
}

}  // namespace

report_session::report_session(server_choice server) {
  sql_result nothing;
  // After a statement that is no SELECT the pool keeps the session on a master. This one changes
  // nothing and needs no right.
  const bool is_ready =
      *this && (server == server_choice::any || sql_query(QX_HERE, get(), nothing, "DO 0") == 0);
  if (!is_ready) throw report_trouble("The database cannot be reached");
}

void for_each_row(SessionHandle session, const std::string &statement,
                  const std::function<void(const sql_fields &)> &visit) {
  MYSQL *const mysql = fr_sql_conn_get_mysql(session);
  // Past the pool's own call, which would store the whole result first.
  if (mysql_real_query(mysql, statement.data(), statement.size()) != 0) fail(mysql);
  // Freeing it early reads what the server still sends.
  const sql_result rows(mysql_use_result(mysql));
  if (!rows) fail(mysql);
  sql_fields fields(mysql_num_fields(rows.get()));
  while (MYSQL_ROW row = mysql_fetch_row(rows.get())) {
    const unsigned long *lengths = mysql_fetch_lengths(rows.get());
    for (size_t i = 0; i < fields.size(); ++i) {
      fields[i] = row[i] == nullptr ? sql_field() : sql_field({row[i], lengths[i]});
    }
    visit(fields);
  }
  // A lost connection ends the rows like their last one does.
  if (mysql_errno(mysql) != 0) fail(mysql);
}

std::int64_t number_of(const sql_field &field) {
  std::int64_t number = 0;
  if (field) std::from_chars(field->data(), field->data() + field->size(), number);
  return number;
}
