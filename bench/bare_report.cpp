// The least that listing all accounts can be: the two statements, and each quota file opened,
// looked at, read and printed.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>

#include "bench/bare_platform.h"

int main(int argc, char **argv) {
  if (argc != 8) return 2;
  bare_platform platform(argv);
  const sql_result accounts = platform.query(
      "SELECT client.id, client.parent_client_id, client.level, acc.username FROM client LEFT JOIN "
      "hs_account acc ON acc.userID = client.id ORDER BY client.id");
  const sql_result limits = platform.query(
      "SELECT client_id, param, value FROM client_prefs WHERE param IN ('fax_storage', "
      "'max_sound', 'max_record', 'max_voice', 'max_moh') ORDER BY client_id");
  std::map<int, std::string> places;  // those of resellers and clients, whose ids are the lowest
  while (MYSQL_ROW row = mysql_fetch_row(accounts.get())) {
    const int id = std::atoi(row[0]);
    const std::string above = places[std::atoi(row[1])];
    const std::string place =
        (above.empty() ? platform.root + "/var/lib/quorvexquota" : above) + "/" + row[0];
    if (std::atoi(row[2]) < 100) places[id] = place;
    std::printf("%d %s", id, row[3]);
    for (const char *kind : {"fax", "sound", "recording", "voicemail", "music"}) {
      const unique_fd file(::open((place + "/" + kind + ".quota").c_str(), O_RDONLY | O_CLOEXEC));
      struct stat status = {};
      char record[32] = {};
      if (::fstat(file.get(), &status) != 0 || ::read(file.get(), record, 31) < 0) std::abort();
      std::printf(" %lld %ld", std::atoll(record), static_cast<long>(status.st_mtime));
    }
    std::putchar('\n');
  }
  while (MYSQL_ROW row = mysql_fetch_row(limits.get())) std::printf("%s %s\n", row[0], row[2]);
  return 0;
}
