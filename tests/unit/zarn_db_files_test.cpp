// The database's records of stored files, and their sums by level of the account.
#include <spoolcap/zarn_db_files.h>

#include "tests/support/platform_test.h"

namespace {

const char *const table = "extension_recording";

class DbFiles : public platform_test {
 protected:
  DbFiles() : platform_test("../main/zarn_db_files") {
    box.sql(R"(INSERT INTO extension (id, extended_number) VALUES (1, '0001*100'), (2, '0001*200');
      INSERT INTO extension_recording
      (id, rid, extension_id, filesize, ext, filename, folder, se, az, callid, flow) VALUES
      (3, 31, 1, 5000000000, 'gsm', NULL, 'a', NULL, 'z', 'c', 'in'),
      (7, 70, 1, 77, 'wav', 'seven', 'b', 's', NULL, 'c', 'in'),
      (8, 90, 1, 0, 'gsm', NULL, 'c', NULL, NULL, 'c', 'out'),
      (9, 80, 2, 9, 'wav', NULL, 'a', NULL, NULL, 'c', 'in');
      INSERT INTO extension_fax_center (id, extension_id, file_name) VALUES (4, 1, 'page');
      CREATE VIEW Extension_FAX_Center AS SELECT * FROM extension_fax_center)");
  }
  ~DbFiles() override { qx_release_db_files(&list); }

  std::string with_records(int64_t result) const {
    std::string text = std::to_string(result);
    for (auto *file = list->records; file != list->records + list->count; ++file) {
      text += " " + std::to_string(file->id) + "," + std::to_string(file->filesize);
      for (const char *field : {file->ext, file->filename, file->se, file->az}) {
        text.append(",").append(field == nullptr ? "-" : field);
      }
    }
    return text;
  }

  qx_db_file_list_t *list = nullptr;
};

TEST_F(DbFiles, ListsHaveTheRecordsOfAnExtensionAndFolderInOrder) {
  const struct {
    const char *table, *folder, *order, *expected;
  } rows[] = {
      {table, nullptr, "id DESC", "3 8,0,gsm,-,-,- 7,77,wav,seven,s,- 3,5000000000,gsm,-,-,z"},
      {table, "b", "id", "1 7,77,wav,seven,s,-"},
      {"Extension_FAX_Center", nullptr, nullptr, "1 4,0,pdf,page,-,-"}};
  for (const auto &row : rows) {
    EXPECT_EQ(with_records(qx_list_db_files(row.table, 1, row.folder, row.order, &list)),
              row.expected)
        << row.table;
  }
}

TEST_F(DbFiles, NamesOfFilesAreMatchedWithTheirRecords) {
  const std::pair<const char *, const char *> rows[] = {
      {"7.wav 3.gsm", "2 7,77,wav,seven,s,- 3,5000000000,gsm,-,-,z"},
      {"3.a.b 7.c ", "3 3,5000000000,a.b,-,-,z 7,77,c,seven,s,- 0,0,-,-,-,-"},
      {"6.x 7.y", "2 6,77,x,seven,s,- 7,0,y,-,-,-"},
      {"7) or (1=1.wav", "1 7,5000000000,wav,-,-,z"},  // more rows than records
      {"no names", "0"},
      {"7 3.wav", "-1"}};
  for (const auto &[names, expected] : rows) {
    EXPECT_EQ(with_records(qx_parse_db_files(table, names, &list)), expected) << names;
  }
  EXPECT_EQ(qx_parse_db_files("extension_fax_center", "4.pdf", &list), -1);
}

TEST_F(DbFiles, AreCounted) {
  EXPECT_EQ(qx_count_db_files(table, 1, nullptr), 3);
  EXPECT_EQ(qx_count_db_files(table, 1, "a"), 1);
}

TEST_F(DbFiles, AColumnOfOneRecordIsChanged) {
  EXPECT_EQ(qx_db_file_set_meta(table, 7, "created", "2020-09-13 12:26:40"), 0);
  EXPECT_EQ(std::to_string(qx_db_file_creation_timestamp(table, 7, "created")),
            box.sql_value("SELECT UNIX_TIMESTAMP('2020-09-13 12:26:40')"));
  EXPECT_EQ(box.sql_value("SELECT GROUP_CONCAT(id) FROM extension_recording WHERE "
                          "created='2020-09-13 12:26:40'"),
            "7");
  EXPECT_EQ(qx_db_file_set_meta(table, 3, "no_such_column", "x"), -1);
  EXPECT_TRUE(log.has("../main/zarn_db_files:qx_db_file_set_meta:"));
}

TEST_F(DbFiles, ARecordingIsFoundByItsCall) {
  EXPECT_EQ(qx_get_db_recording("b", "in", "0001*100"), -1);
  EXPECT_EQ(qx_get_db_recording("c", "in", "0001*100"), 70);
}

TEST_F(DbFiles, OneRecordIsDeleted) {
  EXPECT_EQ(qx_delete_db_file(table, 7), 0);
  EXPECT_EQ(qx_delete_db_file(table, 7), 0) << "there is none any more";
  EXPECT_EQ(box.sql_value("SELECT GROUP_CONCAT(id ORDER BY id) FROM extension_recording"), "3,8,9");
  EXPECT_EQ(qx_db_file_creation_timestamp(table, 7, "created"), 0U);
}

TEST_F(DbFiles, WithoutADatabaseThereAreNone) {
  qx_sql_pool_destroy();
  EXPECT_EQ(with_records(qx_list_db_files(table, 1, nullptr, nullptr, &list)), "-1");
  EXPECT_EQ(qx_get_db_files_quota(table, 100, "100"), -1);
  EXPECT_EQ(log.count(":condition failed"), 2U);
}

TEST_F(DbFiles, ALevelCountsTheFilesOfAllExtensionsBelowIt) {
  for (const int client : {10, 11, 20}) box.add_client(client, client / 10, "client");
  for (const int owner : {100, 101, 110, 200}) box.add_owner(owner, owner / 10, "owner");
  std::int64_t size = 1;
  for (const int extension : {1000, 1001, 1010, 1100, 2000}) {
    box.add_extension(extension, extension / 10, std::to_string(extension));
    box.add_voicemail(extension, size);
    box.add_fax(extension, 2 * size);
    size *= 10;
  }
  box.add_voicemail(1100, 5'000'000'000);  // beyond 32 bits
  const struct {
    const char *table;
    int level;
    const char *id;
    std::int64_t sum;
  } rows[] = {{"extension_fax_center", 100, "100", 22},
              {"extension_voicemail", 50, "10", 111},
              {"extension_voicemail", 10, "1", 5'000'001'111},
              {"extension_fax_center as er", 0, "1", 22'222},
              {"extension_fax_center", 0, "1", -1},   // the statement relies on the alias
              {"extension_voicemail", 100, "10", 0},  // an account of another level owns none
              {"extension_voicemail", 100, "1' GROUP BY er.id -- ", -1},  // no row is no sum
              {"no_such_table", 20, "1", 0},  // a level that is none needs no statement
              {"no_such_table", 100, "1", -1}};
  for (const auto &row : rows) {
    EXPECT_EQ(qx_get_db_files_quota(row.table, row.level, row.id), row.sum)
        << row.table << " level " << row.level << " of " << row.id;
  }
}

}  // namespace
