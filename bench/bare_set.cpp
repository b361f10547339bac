// The least that refreshing a whole platform can be: the same statements, the same directories
// walked, the same records written, and nothing else.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "bare_platform.h"
#include "trees.h"

namespace {

constexpr std::array<const char *, 5> kinds = {"fax", "sound", "recording", "voicemail", "music"};
using totals = std::array<int64_t, 5>;

void write_record(const std::string &path, int64_t value) {
  const unique_fd file(open(path.c_str(), O_RDWR | O_CREAT, 0660));
  char record[32];
  const int length = snprintf(record, sizeof record, "%lld.0", static_cast<long long>(value));
  struct stat status;
  if (flock(file.get(), LOCK_EX) != 0 ||
      pwrite(file.get(), record, static_cast<size_t>(length), 0) != length ||
      fstat(file.get(), &status) != 0)
    abort();
  if (status.st_size > length && ftruncate(file.get(), length) != 0) abort();
}

int64_t database_sum(bare_platform &platform, const char *table, const char *id) {
  const bare_rows rows = platform.query(
      "SELECT SUM(er.filesize) FROM %s as er, extension as e WHERE e.id=er.extension_id and "
      "e.client_id='%s'",
      table, id);
  const char *sum = mysql_fetch_row(rows.get())[0];
  return sum == nullptr ? 0 : strtoll(sum, nullptr, 10);
}

totals refresh(bare_platform &platform, const char *id, int level, const std::string &directory) {
  totals sums = {};
  if (level < 100) {
    const bare_rows children = platform.query(
        " SELECT client.id, client.level  FROM client WHERE client.parent_client_id = '%s' ", id);
    while (MYSQL_ROW row = mysql_fetch_row(children.get())) {
      const totals child = refresh(platform, row[0], atoi(row[1]), directory + "/" + row[0]);
      for (size_t i = 0; i < kinds.size(); ++i) sums[i] += child[i];
    }
  }
  const std::string media = platform.root + "/var/lib/asterisk/";
  for (size_t i = 0; i < kinds.size(); ++i) {
    if (i == 1) sums[i] += bare_walk((media + "sounds/." + id).c_str());
    if (i == 4) sums[i] += bare_walk((media + "music/" + id).c_str());
    if (level == 100) {
      if (i == 0) sums[i] += database_sum(platform, "extension_fax_center", id);
      if (i == 2) sums[i] += database_sum(platform, "extension_recording", id);
      if (i == 3) sums[i] += database_sum(platform, "extension_voicemail", id);
    } else {
      platform.query("SELECT client.id FROM client WHERE client.parent_client_id = '%s'", id);
    }
    write_record(directory + "/" + kinds[i] + ".quota", sums[i]);
  }
  return sums;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 8) return 2;
  bare_platform platform(argv);
  const bare_rows targets = platform.query(
      "SELECT client.id, client.parent_client_id, client.level, acc.username \tFROM client, "
      "hs_account acc \tWHERE acc.userID = client.id AND client.level = 10");
  while (MYSQL_ROW row = mysql_fetch_row(targets.get())) {
    char id[16];
    snprintf(id, sizeof id, "%04d", atoi(row[0]));
    platform.read_field(atoi(row[0]), "lvl");
    platform.read_field(atoi(row[0]), "pid");
    refresh(platform, id, 10, platform.root + "/var/lib/quorvexquota/" + row[0]);
  }
  return 0;
}
