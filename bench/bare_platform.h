// What the bare programs share: a connection to the database and one to the cache, and statements
// without any care around them. They stop at the first surprise.
#ifndef BENCH_BARE_PLATFORM_H
#define BENCH_BARE_PLATFORM_H

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/sql/handles.h"
#include "platform/velkan/handles.h"

class bare_platform {
 public:
  // Arguments of a bare program: database socket, user, password, database, cache socket, cache
  // database, and the folder that holds the platform.
  explicit bare_platform(char **argv) : root(argv[7]) {
    if (mysql_real_connect(sql_.get(), nullptr, argv[2], argv[3], argv[4], 0, argv[1], 0) ==
        nullptr) {
      std::abort();
    }
    cache_.reset(redisConnectUnix(argv[5]));
    reply_of("SELECT %s", argv[6]);
  }

  __attribute__((format(printf, 2, 3))) sql_result query(const char *format, ...) {
    char statement[512];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(statement, sizeof statement, format, arguments);
    va_end(arguments);
    if (::mysql_real_query(sql_.get(), statement, static_cast<unsigned long>(length)) != 0) {
      std::abort();
    }
    return sql_result(mysql_store_result(sql_.get()));
  }

  void read_field(int account, const char *field) {
    reply_of("HGET res:inf:mng:%d %s", account, field);
  }

  const std::string root;

 private:
  void reply_of(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const vk_reply reply = own_reply(redisvCommand(cache_.get(), format, arguments));
    va_end(arguments);
    if (reply == nullptr) std::abort();
  }

  mysql_handle sql_{mysql_init(nullptr)};
  vk_context cache_;
};

#endif
