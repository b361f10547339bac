// Owners of what the MariaDB client hands out.
#ifndef PLATFORM_SQL_HANDLES_H
#define PLATFORM_SQL_HANDLES_H

#include <mysql.h>

#include "platform/base/owner.h"

// Closing says goodbye to the server; a child of fork must `abandon` what it inherited instead.
using mysql_handle = std::unique_ptr<MYSQL, call_to_release<mysql_close>>;
using sql_result = std::unique_ptr<MYSQL_RES, call_to_release<mysql_free_result>>;

#endif
