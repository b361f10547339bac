// The least that refreshing a whole platform can be: the same statements, the same directories
// walked, the same records written, and nothing else.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "bench/bare_platform.h"
#include "bench/trees.h"

namespace {

constexpr std::array<const char *, 5> kinds = {"fax", "sound", "recording", "voicemail", "music"};

void write_record(const std::string &path, int64_t value) {
  const unique_fd file(::open(path.c_str(), O_RDWR | O_CREAT, 0660));
  char record[32];
  const int length = std::snprintf(record, sizeof record, "%lld.0", static_cast<long long>(value));
  struct stat status;
  if (::flock(file.get(), LOCK_EX) != 0 ||
      ::pwrite(file.get(), record, static_cast<size_t>(length), 0) != length ||
      ::fstat(file.get(), &status) != 0) {
    std::abort();
  }
  if (status.st_size > length && ::ftruncate(file.get(), length) != 0) std::abort();
}

int64_t database_sum(bare_platform &platform, const char *table, const char *id) {
  const sql_result rows = platform.query(
      "SELECT SUM(er.filesize) FROM %s as er, extension as e WHERE e.id=er.extension_id and "
      "e.client_id='%s'",
      table, id);
  const char *sum = mysql_fetch_row(rows.get())[0];
  return sum == nullptr ? 0 : std::strtoll(sum, nullptr, 10);
}

int64_t read_record(const std::string &path) {
  const unique_fd file(::open(path.c_str(), O_RDONLY));
  char record[32] = {};
  if (::read(file.get(), record, sizeof record - 1) <= 0) std::abort();
  return std::atoll(record);
}

// What the accounts below have in their files.
int64_t sum_of_children(bare_platform &platform, const char *id, const std::string &directory,
                        const char *kind) {
  const sql_result children =
      platform.query("SELECT client.id FROM client WHERE client.parent_client_id = '%s'", id);
  int64_t sum = 0;
  while (MYSQL_ROW row = mysql_fetch_row(children.get())) {
    sum += read_record(directory + "/" + row[0] + "/" + kind + ".quota");
  }
  return sum;
}

void refresh(bare_platform &platform, const char *id, int level, const std::string &directory) {
  if (level < 100) {
    const sql_result children = platform.query(
        " SELECT client.id, client.level  FROM client WHERE client.parent_client_id = '%s' ", id);
    while (MYSQL_ROW row = mysql_fetch_row(children.get())) {
      refresh(platform, row[0], std::atoi(row[1]), directory + "/" + row[0]);
    }
  }
  const std::string media = platform.root + "/var/lib/asterisk/";
  for (size_t i = 0; i < kinds.size(); ++i) {
    int64_t sum = 0;
    if (i == 1) sum += bare_walk((media + "sounds/." + id).c_str());
    if (i == 4) sum += bare_walk((media + "music/" + id).c_str());
    if (level == 100) {
      if (i == 0) sum += database_sum(platform, "extension_fax_center", id);
      if (i == 2) sum += database_sum(platform, "extension_recording", id);
      if (i == 3) sum += database_sum(platform, "extension_voicemail", id);
    } else {
      sum += sum_of_children(platform, id, directory, kinds[i]);
    }
    write_record(directory + "/" + kinds[i] + ".quota", sum);
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 8) return 2;
  bare_platform platform(argv);
  const sql_result targets = platform.query(
      "SELECT client.id, client.parent_client_id, client.level, acc.username \tFROM client, "
      "hs_account acc \tWHERE acc.userID = client.id AND client.level = 10");
  while (MYSQL_ROW row = mysql_fetch_row(targets.get())) {
    char id[16];
    std::snprintf(id, sizeof id, "%04d", std::atoi(row[0]));
    platform.read_field(std::atoi(row[0]), "lvl");
    platform.read_field(std::atoi(row[0]), "pid");
    refresh(platform, id, 10, platform.root + "/var/lib/quorvexquota/" + row[0]);
  }
  return 0;
}
