// A small platform whose figures are known by heart, for the tests of the refresh.
#ifndef TESTS_REFRESH_FIXTURE_H
#define TESTS_REFRESH_FIXTURE_H

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>

#include "quota/quota.h"
#include "quota/store.h"
#include "sqlsession.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

// The files of each account by its place ("1/2/21"): fax, sound, recording, voicemail, music, "-"
// for one that is not there, "!" behind one with a dirty mark.
using figures = std::map<std::string, std::string>;

// Reseller 1 with clients 2 (owners 21 and 22) and 3 (owner 31).
class refresh_test : public testing::Test {
 protected:
  refresh_test() {
    box.add_reseller(1, "reseller");
    box.add_client(2, 1, "client");
    box.add_client(3, 1, "other client");
    box.add_owner(21, 2, "owner");
    box.add_owner(22, 2, "other owner");
    box.add_owner(31, 3, "owner without extensions");
    box.add_extension(100, 21, "100");
    box.add_extension(101, 21, "101");
    box.add_extension(200, 22, "200");
    box.add_recording(100, 10);
    box.add_recording(101, 20);
    box.add_recording(200, 5);
    box.add_voicemail(100, 3);
    box.add_fax(200, 7);
    box.write_file(box.sound_folder("0001") + "/hello.wav", 1000);
    box.write_file(box.sound_folder("2") + "/menu/hello.wav", 200);
    box.write_file(box.sound_folder("21") + "/hello.wav", 30);
    box.write_file(box.sound_folder("31") + "/hello.wav", 4);
    box.write_file(box.music_folder("0001") + "/song.wav", 1);
    box.write_file(box.music_folder("22") + "/song.wav", 50);
  }

  static figures right_figures() {
    return {{"1", "7.0 1234.0 35.0 3.0 51.0"},   {"1/2", "7.0 230.0 35.0 3.0 50.0"},
            {"1/2/21", "0.0 30.0 30.0 3.0 0.0"}, {"1/2/22", "7.0 0.0 5.0 0.0 50.0"},
            {"1/3", "0.0 4.0 0.0 0.0 0.0"},      {"1/3/31", "0.0 4.0 0.0 0.0 0.0"}};
  }

  std::string quota_root() const { return box.path("var/lib/quorvexquota"); }

  figures stored() const {
    namespace fs = std::filesystem;
    figures found;
    if (!fs::is_directory(quota_root())) return found;
    for (const auto &entry : fs::recursive_directory_iterator(quota_root())) {
      if (!entry.is_directory() || entry.path().extension() == ".quota") continue;
      std::string &line = found[fs::relative(entry.path(), quota_root())];
      for (const char *kind : quota_kind_names) {
        const std::string file = entry.path().string() + "/" + kind + ".quota";
        line += line.empty() ? "" : " ";
        line += fs::is_regular_file(file) ? *box.read_file(file) : "-";
        line += fs::exists(file + ".dirty") ? "!" : "";
      }
    }
    return found;
  }

  // Every file of the platform above, with this record and, when asked for, a dirty mark.
  void store_everywhere(const std::string &record, bool dirty) {
    for (const auto &[place, unused] : right_figures()) {
      for (const char *kind : quota_kind_names) {
        const std::string file = "var/lib/quorvexquota/" + place + "/" + kind + ".quota";
        box.write_file(file, record);
        if (dirty) box.write_file(file + ".dirty", "");
      }
    }
  }

  support::log_capture log;
  support::sandbox box;
};

#endif
