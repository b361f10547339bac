// Which statements a slave may answer. Internal to platform/sql.
#ifndef PLATFORM_SQL_STATEMENT_H
#define PLATFORM_SQL_STATEMENT_H

#include <string_view>

// Whether the statement is a SELECT, after blanks and opening parentheses. One behind a comment
// counts as a write, which costs no more than the turn of the slaves.
bool is_read_statement(std::string_view text);

#endif
