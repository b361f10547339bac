// The platform that whole runs and reports begin with.
#ifndef TESTS_E2E_SMALL_PLATFORM_H
#define TESTS_E2E_SMALL_PLATFORM_H

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"

// Reseller 1 (ann), client 2 (bob), and user 12 (cid) with an extension and files of each kind.
class SmallPlatform : public testing::Test {
 protected:
  // Commands connect as the user that these guides make.
  explicit SmallPlatform(const std::vector<std::string> &guides) : box({.guides = guides}) {
    box.add_reseller(1, "ann");
    box.add_client(2, 1, "bob");
    box.add_owner(12, 2, "cid");
    box.add_extension(7, 12, "101");
    box.add_recording(7, 1536);
    box.add_recording(7, 500);
    box.add_voicemail(7, 1023);
    box.add_fax(7, 1048576);
    box.write_file(box.sound_folder("12") + "/hello.wav", 100);
    box.write_file(box.music_folder("0001") + "/song.mp3", 10);
  }

  support::sandbox box;
};

#endif
