// The least that showing owner 12 of client 2 of reseller 1 can be: connect, one query, the three
// lookups' round trips, five files.
#include <fcntl.h>
#include <unistd.h>

#include "bench/bare_platform.h"

int main(int argc, char **argv) {
  if (argc != 8) return 2;
  bare_platform platform(argv);
  const sql_result rows = platform.query(
      "SELECT client.id, client.parent_client_id, client.level, acc.username FROM client, "
      "hs_account acc WHERE acc.userID = client.id AND client.id IN(12) ORDER BY client.level");
  std::printf("%s\n", mysql_fetch_row(rows.get())[3]);
  platform.read_field(12, "lvl");
  platform.read_field(12, "pid");
  platform.read_field(2, "pid");
  for (const char *kind : {"fax", "sound", "recording", "voicemail", "music"}) {
    const std::string path = platform.root + "/var/lib/quorvexquota/1/2/12/" + kind + ".quota";
    const unique_fd file(::open(path.c_str(), O_RDONLY));
    char record[32];
    const ssize_t length = ::read(file.get(), record, sizeof record);
    std::printf("%.*s\n", static_cast<int>(length), record);
  }
  return 0;
}
