// A platform for tests of the report, with sums of its figures made without the report.
#ifndef TESTS_E2E_REPORT_FIXTURE_H
#define TESTS_E2E_REPORT_FIXTURE_H

#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>
#include <rapidjson/schema.h>

#include <fstream>

#include "tests/support/sandbox.h"

// Resellers 1 (ann) and 3 (fay); client 2 (bob) of ann; its users 12 (cid), with an extension and
// files of each kind, and 13 (dan), with none; all refreshed.
class Report : public testing::Test {
 protected:
  Report() {
    box.add_reseller(1, "ann");
    box.add_reseller(3, "fay");
    box.add_client(2, 1, "bob");
    box.add_owner(12, 2, "cid");
    box.add_owner(13, 2, "dan");
    box.add_extension(7, 12, "101");
    box.add_recording(7, 1536);
    box.add_recording(7, 500);
    box.add_voicemail(7, 1023);
    box.add_fax(7, 1048576);
    box.write_file(box.sound_folder("12") + "/hello.wav", 100);
    box.write_file(box.music_folder("0001") + "/song.mp3", 10);
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

  support::sandbox box{{.guides = {"administrator.md", "report.md"}}};
};

#endif
