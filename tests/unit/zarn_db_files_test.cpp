// The database's records of stored files.
#include <spoolcap/zarn_db_files.h>

#include "tests/unit/lookup_fixture.h"

struct db_files_test : lookup_test {
  const char *const table = "extension_recording";
  qx_db_file_list_t *list = nullptr;

  db_files_test() : lookup_test("../main/zarn_db_files") {
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
  ~db_files_test() override { qx_release_db_files(&list); }

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
};

TEST_F(db_files_test, ListsAreFilledAndUsedAgainAndRowsReadChangedAndDeleted) {
  const struct {
    const char *table, *folder, *order, *names, *expected;
  } rows[] = {
      {table, nullptr, "id DESC", "", "3 8,0,gsm,-,-,- 7,77,wav,seven,s,- 3,5000000000,gsm,-,-,z"},
      {table, "b", "id", "", "1 7,77,wav,seven,s,-"},
      {"Extension_FAX_Center", nullptr, nullptr, "", "1 4,0,pdf,page,-,-"},
      {table, "", "", "7.wav 3.gsm", "2 7,77,wav,seven,s,- 3,5000000000,gsm,-,-,z"},
      {table, "", "", "3.a.b 7.c ", "3 3,5000000000,a.b,-,-,z 7,77,c,seven,s,- 0,0,-,-,-,-"},
      {table, "", "", "6.x 7.y", "2 6,77,x,seven,s,- 7,0,y,-,-,-"},
      {table, "", "", "7) or (1=1.wav", "1 7,5000000000,wav,-,-,z"},  // more rows than records
      {table, "", "", "no names", "0"},
      {table, "", "", "7 3.wav", "-1"},
      {"extension_fax_center", "", "", "4.pdf", "-1"},
  };
  for (const auto &row : rows) {
    const int64_t count = *row.names == '\0'
                              ? qx_list_db_files(row.table, 1, row.folder, row.order, &list)
                              : qx_parse_db_files(row.table, row.names, &list);
    EXPECT_EQ(row.expected, with_records(count)) << row.table << row.names;
  }
  EXPECT_EQ(3, qx_count_db_files(table, 1, nullptr));
  EXPECT_EQ(1, qx_count_db_files(table, 1, "a"));
  EXPECT_EQ(0, qx_db_file_set_meta(table, 7, "created", "2020-09-13 12:26:40"));
  EXPECT_EQ(box.sql_value("SELECT UNIX_TIMESTAMP('2020-09-13 12:26:40')"),
            std::to_string(qx_db_file_creation_timestamp(table, 7, "created")));
  EXPECT_EQ("7", box.sql_value("SELECT GROUP_CONCAT(id) FROM extension_recording WHERE "
                               "created='2020-09-13 12:26:40'"));
  EXPECT_EQ(-1, qx_get_db_recording("b", "in", "0001*100"));
  EXPECT_EQ(70, qx_get_db_recording("c", "in", "0001*100"));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(0, qx_delete_db_file(table, 7));
  EXPECT_EQ("3,8,9", box.sql_value("SELECT GROUP_CONCAT(id ORDER BY id) FROM extension_recording"));
  EXPECT_EQ(0u, qx_db_file_creation_timestamp(table, 7, "created"));
  EXPECT_EQ(-1, qx_db_file_set_meta(table, 3, "no_such_column", "x"));
  EXPECT_TRUE(log.has("../main/zarn_db_files:qx_db_file_set_meta:"));
  qx_sql_pool_destroy();
  EXPECT_EQ("-1", with_records(qx_list_db_files(table, 1, nullptr, nullptr, &list)));
  EXPECT_TRUE(log.has(":condition failed"));
}
