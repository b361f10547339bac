// Statements whose rows come one by one: a platform has too many accounts to hold them twice.
#ifndef REPORT_STATEMENT_H
#define REPORT_STATEMENT_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "main/sql/query.h"

// A column of a row; borrowed until the next row, nothing for NULL.
using sql_field = std::optional<std::string_view>;
using sql_fields = std::vector<sql_field>;

// Which server a session is on: the pool's choice for reading, which may be a replica that lags, or
// a master.
enum class server_choice : std::uint8_t { any, master };

// A session of its own; throws report_trouble when none can be had.
// Gives its connection back at the end of its scope.
class report_session : public sql_session {
 public:
  // From the pool that `main` has set up.
  explicit report_session(server_choice server = server_choice::any);
};

// Runs a statement and visits its rows as the server sends them; no other statement may run on the
// session meanwhile. Throws report_trouble, with the server's reason, when it fails.
void for_each_row(SessionHandle session, const std::string &statement,
                  const std::function<void(const sql_fields &)> &visit);

// The number at the start of a column; 0 where there is none.
std::int64_t number_of(const sql_field &field);

#endif
