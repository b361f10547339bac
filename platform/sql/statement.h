// Which statements a slave may answer. Internal to platform/sql.
#ifndef PLATFORM_SQL_STATEMENT_H
#define PLATFORM_SQL_STATEMENT_H

#include <string_view>

// Whether the statement is a SELECT, after blanks, comments and opening parentheses. A comment that
// the server executes may hold anything, and is no SELECT.
bool is_read_statement(std::string_view text);

#endif
