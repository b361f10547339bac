// Which statements a slave may answer. Internal to platform/sql.
#ifndef PLATFORM_SQL_STATEMENT_H
#define PLATFORM_SQL_STATEMENT_H

#include <string_view>

// Whether the statement is a SELECT, after blanks and opening parentheses. A SELECT after a comment
// is treated as a write: it runs on the master, which is always correct.
bool is_read_statement(std::string_view text);

#endif
