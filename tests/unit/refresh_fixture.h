// A small platform whose figures are known by heart, for the tests of the refresh and its faults.
#ifndef TESTS_UNIT_REFRESH_FIXTURE_H
#define TESTS_UNIT_REFRESH_FIXTURE_H

#include <spoolcap/quota.h>
#include "main/quota/kinds.h"
#include "tests/support/platform_test.h"

// The files of each account by its place ("1/2/21"): fax, sound, recording, voicemail, music, "-"
// for one that is not there, "!" behind one with a dirty mark; "redo" at the end for a redo mark.
using figures = std::map<std::string, std::string>;

inline const figures right_figures = {
    {"1", "7.0 1234.0 35.0 3.0 51.0"},   {"1/2", "7.0 230.0 35.0 3.0 50.0"},
    {"1/2/21", "0.0 30.0 30.0 3.0 0.0"}, {"1/2/22", "7.0 0.0 5.0 0.0 50.0"},
    {"1/3", "0.0 4.0 0.0 0.0 0.0"},      {"1/3/31", "0.0 4.0 0.0 0.0 0.0"}};

// Reseller 1 with clients 2 (owners 21 and 22) and 3 (owner 31, without extensions).
class small_platform {
 public:
  explicit small_platform(support::sandbox &given) : box(given) {
    box.add_reseller(1, "reseller");
    for (const int client : {2, 3}) box.add_client(client, 1, "client");
    for (const int owner : {21, 22, 31}) box.add_owner(owner, owner / 10, "owner");
    for (const int extension : {210, 211, 220}) {
      box.add_extension(extension, extension / 10, std::to_string(extension));
    }
    box.add_recording(210, 10);
    box.add_recording(211, 20);
    box.add_recording(220, 5);
    box.add_voicemail(210, 3);
    box.add_fax(220, 7);
    box.write_file(box.sound_folder("0001") + "/hello.wav", 1000);
    box.write_file(box.sound_folder("2") + "/menu/hello.wav", 200);
    box.write_file(box.sound_folder("21") + "/hello.wav", 30);
    box.write_file(box.sound_folder("31") + "/hello.wav", 4);
    box.write_file(box.music_folder("0001") + "/song.wav", 1);
    box.write_file(box.music_folder("22") + "/song.wav", 50);
  }

  std::string quota_root() const { return box.path("var/lib/quorvexquota"); }

  figures stored() const {
    namespace fs = std::filesystem;
    figures found;
    if (!fs::is_directory(quota_root())) return found;
    for (const auto &entry : fs::recursive_directory_iterator(quota_root())) {
      if (!entry.is_directory()) continue;
      std::string &line = found[fs::relative(entry.path(), quota_root())];
      for (const media_kind &kind : media_kinds) {
        const std::string file = entry.path().string() + "/" + kind.quota_file;
        line += line.empty() ? "" : " ";
        line += box.read_file(file).value_or("-");
        line += fs::exists(file + ".dirty") ? "!" : "";
      }
      if (fs::exists(entry.path() / "quota.redo")) line += " redo";
    }
    return found;
  }

  void store_everywhere(const std::string &record) {
    for (const auto &[place, unused] : right_figures) {
      const std::filesystem::path folder = "var/lib/quorvexquota/" + place;
      for (const media_kind &kind : media_kinds) {
        box.write_file((folder / kind.quota_file).string(), record);
      }
    }
  }

 private:
  support::sandbox &box;
};

class refresh_test : public platform_test, protected small_platform {
 protected:
  refresh_test() : small_platform(platform_test::box) {}
  using platform_test::box;
};

#endif
