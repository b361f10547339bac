// Lookups: sums of the database beside the bare client call, cached fields beside the bare command.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <spoolcap/sqlsession.h>
#include <spoolcap/zarn_db_files.h>
#include <spoolcap/zarn_extension.h>
#include <spoolcap/zarn_user.h>
#include "bench/bare_cache.h"
#include "bench/ratio.h"
#include "platform/base/text_array.h"
#include "platform/sql/handles.h"
#include "tests/support/sandbox.h"

namespace {

constexpr int owner_id = 12;

mysql_handle connect_mysql(const support::sandbox &box) {
  mysql_handle connection(mysql_init(nullptr));
  if (mysql_real_connect(connection.get(), nullptr, support::database_user,
                         support::database_password, box.database().c_str(), 0,
                         support::shared_servers().mariadb_socket.c_str(), 0) == nullptr) {
    std::abort();
  }
  return connection;
}

int64_t bare_sum(MYSQL *connection) {
  static const std::string statement =
      "SELECT SUM(er.filesize) FROM extension_recording as er, extension as e WHERE "
      "e.id=er.extension_id and e.client_id='12'";
  if (mysql_real_query(connection, statement.data(), statement.size()) != 0) std::abort();
  const sql_result rows(mysql_store_result(connection));
  return std::strtoll(mysql_fetch_row(rows.get())[0], nullptr, 10);
}

void bare_level(redisContext *connection) {
  bare_hget(connection, "res:inf:mng:12", "lvl");
}

void one_preference() {
  const c_string value(qx_extension_get_pref("0002*1", "dnd"));
  if (!value) std::abort();
}

void three_fields() {
  const char *names[] = {"max_moh", "max_record", "max_sound"};
  const text_array values(qx_account_get_prefs(owner_id, 3, names), 3);
  if (!values || values[2] == nullptr) std::abort();
}

}  // namespace

int main(int argc, char **argv) {
  support::sandbox box;
  box.add_reseller(1, "reseller");
  box.add_client(2, 1, "client");
  box.add_owner(owner_id, 2, "owner");
  for (const char *name : {"max_moh", "max_record", "max_sound"}) {
    box.set_preference(owner_id, name, "100");
  }
  box.sql(
      "INSERT INTO extension(id, client_id, number, extended_number) "
      "SELECT seq, 12, seq, CONCAT('0002*', seq) FROM seq_1_to_20000");
  box.sql(
      "INSERT INTO extension_recording(extension_id, filesize) "
      "SELECT 1 + seq MOD 20000, seq FROM seq_1_to_200000");
  box.sql("INSERT INTO extension_prefs VALUES(1, 'dnd', 'yes')");
  box.sql("ANALYZE TABLE extension, extension_recording");
  qx_sql_pool_init();

  const mysql_handle sql = connect_mysql(box);
  const vk_context redis = connect_redis(box);
  if (qx_get_db_files_quota("extension_recording", 100, "12") != bare_sum(sql.get())) {
    std::fprintf(stderr, "bench: the two sums disagree\n");
    return 1;
  }
  ratio::at_most(1.05, "sum of 200,000 rows of 20,000 extensions", "the bare client call",
                 ratio::once([] { qx_get_db_files_quota("extension_recording", 100, "12"); }),
                 ratio::once([&] { bare_sum(sql.get()); }));

  if (qx_account_get_level(owner_id) != 100) return 1;  // and the caches are warm
  three_fields();
  one_preference();
  ratio::at_most(1.10, "one cached field", "bare hiredis HGET",
                 ratio::once([] { qx_account_get_level(owner_id); }),
                 ratio::once([&] { bare_level(redis.get()); }), ratio::length::calls);
  ratio::at_most(1.10, "one cached preference of an extension", "bare hiredis HGET",
                 ratio::once([] { one_preference(); }),
                 ratio::once([&] { bare_hget(redis.get(), "res:po:ext:0002*1", "dnd"); }),
                 ratio::length::calls);
  ratio::at_most(1.30, "three cached fields at once", "bare hiredis HGET",
                 ratio::once([] { three_fields(); }), ratio::once([&] { bare_level(redis.get()); }),
                 ratio::length::calls);
  return ratio::run(argc, argv);
}
