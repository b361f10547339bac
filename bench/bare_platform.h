// What the bare programs share: a connection to the database and one to the cache, and statements
// without any care around them. They stop at the first surprise.
#ifndef BENCH_BARE_PLATFORM_H
#define BENCH_BARE_PLATFORM_H

#include <hiredis/hiredis.h>
#include <mysql.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "platform/base/owner.h"

using bare_rows = std::unique_ptr<MYSQL_RES, call_to_release<mysql_free_result>>;

class bare_platform {
 public:
  // Arguments of a bare program: database socket, user, password, database, cache socket, cache
  // database, and the folder that holds the platform.
  explicit bare_platform(char **argv) : root(argv[7]) {
    if (mysql_real_connect(sql_.get(), nullptr, argv[2], argv[3], argv[4], 0, argv[1], 0) ==
        nullptr) {
      abort();
    }
    cache_.reset(redisConnectUnix(argv[5]));
    reply_of("SELECT %s", argv[6]);
  }

  __attribute__((format(printf, 2, 3))) bare_rows query(const char *format, ...) {
    char statement[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(statement, sizeof statement, format, arguments);
    va_end(arguments);
    if (mysql_real_query(sql_.get(), statement, static_cast<unsigned long>(length)) != 0) abort();
    return bare_rows(mysql_store_result(sql_.get()));
  }

  void read_field(int account, const char *field) {
    reply_of("HGET res:inf:mng:%d %s", account, field);
  }

  const std::string root;

 private:
  void reply_of(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::unique_ptr<redisReply, call_to_release<freeReplyObject>> reply(
        static_cast<redisReply *>(redisvCommand(cache_.get(), format, arguments)));
    va_end(arguments);
    if (reply == nullptr) abort();
  }

  std::unique_ptr<MYSQL, call_to_release<mysql_close>> sql_{mysql_init(nullptr)};
  std::unique_ptr<redisContext, call_to_release<redisFree>> cache_;
};

#endif
