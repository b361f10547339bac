// Full numbers from the database.
#include "zarn_extension.h"

#include <gtest/gtest.h>

#include "lookup_fixture.h"

namespace {

class FullNumber : public lookup_test {
 protected:
  FullNumber() : lookup_test("../main/zarn_extension") {
    box.add_reseller(1, "reseller");
    box.add_client(2, 1, "client");
    box.add_owner(3, 2, "owner");
    box.add_extension(11, 3, "101");
  }
};

TEST_F(FullNumber, IsFoundByShortNumberAndParent) {
  const struct {
    const char *parent, *number;
    std::optional<std::string> expected;
  } rows[] = {
      {"2", "101", "0002*101"},       {"1", "101", std::nullopt},
      {"2", "102", std::nullopt},     {"", "101", std::nullopt},
      {nullptr, "101", std::nullopt}, {"2", "x' OR extension.number='101", "0002*101"},
      {"2", nullptr, std::nullopt},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.expected, taken(qx_get_full_number(row.parent, row.number)));
    EXPECT_EQ(row.expected, taken(qx_get_full_number_sess(nullptr, row.parent, row.number)));
  }
  EXPECT_EQ(texts{}, told());
}

TEST_F(FullNumber, NullColumnAndFailedStatementAreTold) {
  const SessionHandle session = sess_init();
  box.sql("ALTER TABLE extension MODIFY extended_number VARCHAR(40) NULL");
  box.sql("UPDATE extension SET extended_number=NULL");
  EXPECT_EQ(std::nullopt, taken(qx_get_full_number_sess(session, "2", "101")));
  EXPECT_EQ(texts{"condition failed"}, told());

  box.sql("ALTER TABLE extension DROP COLUMN extended_number");
  EXPECT_EQ(std::nullopt, taken(qx_get_full_number_sess(session, "2", "101")));
  const texts lines = told();
  ASSERT_EQ(1U, lines.size());
  EXPECT_TRUE(lines[0].starts_with("../main/zarn_extension:qx_get_full_number_sess:" +
                                   std::to_string(last_line.line) + " -MySQL error: "))
      << lines[0];
  sess_destroy(session);
}

TEST_F(FullNumber, WithoutADatabaseThereIsNone) {
  qx_sql_pool_destroy();
  EXPECT_EQ(std::nullopt, taken(qx_get_full_number("2", "101")));
  EXPECT_EQ(std::nullopt, taken(qx_get_full_number_sess(nullptr, "2", "101")));
  EXPECT_EQ((texts{"condition failed", "condition failed"}), told());
}

}  // namespace
