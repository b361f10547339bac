// A platform for tests of the report, with sums of its figures made without the report.
#ifndef TESTS_E2E_REPORT_FIXTURE_H
#define TESTS_E2E_REPORT_FIXTURE_H

#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/schema.h>

#include <fstream>

#include "tests/e2e/small_platform.h"

// Beside the small platform reseller 3 (faÿ) and user 13 (dan), who have nothing; all refreshed.
class Report : public SmallPlatform {
 protected:
  Report() : SmallPlatform({"administrator.md", "report.md"}) {
    box.add_reseller(3, "faÿ");
    box.add_owner(13, 2, "dan");
    box.run_spoolcap({"--action", "set", "--all", "--quiet"});
  }

  // The output of a report that succeeds.
  std::string report(const std::vector<std::string> &arguments) const {
    const support::process_result result = box.run_report(arguments);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 0);
    return result.out;
  }

  // The output as a document.
  rapidjson::Document json(const std::vector<std::string> &arguments) const {
    rapidjson::Document document;
    document.Parse(report(arguments).c_str());
    EXPECT_FALSE(document.HasParseError());
    return document;
  }

  // Whether a document follows an installed schema.
  static testing::AssertionResult follows(const rapidjson::Document &document,
                                          const std::string &name) {
    std::ifstream stream(SPOOLCAP_SOURCE "/report/" + name);
    rapidjson::IStreamWrapper text(stream);
    rapidjson::Document schema;
    schema.ParseStream(text);
    const rapidjson::SchemaDocument rules(schema);
    rapidjson::SchemaValidator validator(rules);
    if (schema.IsObject() && document.Accept(validator)) return testing::AssertionSuccess();
    return testing::AssertionFailure() << name << ": " << validator.GetInvalidSchemaKeyword();
  }

  // Gives all figures the age 0 from now on: an age does not go below that.
  void stop_ages() const {
    support::run_process({"find", box.path("var/lib/quorvexquota"), "-type", "f", "-exec", "touch",
                          "--date=next hour", "{}", "+"});
  }

  void write_quota(const std::string &place_and_kind, const std::string &text) {
    box.write_file(box.quota_path(place_and_kind), text);
  }
};

#endif
