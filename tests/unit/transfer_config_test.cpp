// transfer.conf: what is read, and one line for what is wrong.
#include "main/transfer/config.h"
#include "tests/support/platform_test.h"

namespace {

const std::string minimal = "TRANSFER_LOCATION eu https://s3.example.com eu-1 media\n";

class TransferConfig : public testing::Test {
 protected:
  TransferConfig() { box.write_file("etc/quorvexnode/nodeid", "node 7\n"); }

  transfer_reading read(const std::string &text) {
    box.write_file("etc/quorvex/transfer.conf", text);
    return read_transfer_config();
  }
  std::string error(const std::string &text) {
    const transfer_reading reading = read(text);
    EXPECT_FALSE(reading.config);
    const std::string root = box.root().string() + "/etc/";
    EXPECT_TRUE(reading.error.starts_with(root)) << reading.error;
    return reading.error.substr(std::min(root.size(), reading.error.size()));
  }

  support::sandbox box{{.use_database = false, .use_cache = false}};
};

TEST_F(TransferConfig, OneLocationIsEnough) {
  const transfer_config config = read("# ours\n\n" + minimal).config.value();
  EXPECT_EQ(config.location_text(12), "eu@node 7");
  EXPECT_EQ(config.credentials_file, box.path("etc/quorvex/transfer.keys"));
  EXPECT_EQ(config.socket, box.path("run/spoolcap/transfer.sock"));
  const transfer_location &eu = *config.find("eu");
  EXPECT_EQ(eu.endpoint, "https://s3.example.com");
  EXPECT_EQ(eu.region, "eu-1");
  EXPECT_EQ(eu.bucket, "media");
  EXPECT_EQ(eu.prefix, "");
  EXPECT_FALSE(eu.virtual_host);
}

TEST_F(TransferConfig, EveryDirectiveIsTaken) {
  const transfer_config config = read(R"(
TRANSFER_DEFAULT b-2
TRANSFER_OWNER 12 a_1
TRANSFER_LOCATION a_1 http://[::1]:8080/ x b_c path voice/of//
TRANSFER_LOCATION = b-2  https://h  x b.c host
TRANSFER_CREDENTIALS "/my keys"
TRANSFER_CA /ca
TRANSFER_SOCKET /socket
TRANSFER_UPLOADS 1
TRANSFER_DOWNLOADS 2
TRANSFER_RATE 3
TRANSFER_MULTIPART 5
TRANSFER_PART 6
TRANSFER_WAIT 0
TRANSFER_CACHE_SIZE 7
TRANSFER_CACHE_FREE 8
TRANSFER_METRICS /metrics
)")
                                     .config.value();
  EXPECT_EQ(config.location_of(12), "a_1");
  EXPECT_EQ(config.location_of(13), "b-2");
  EXPECT_EQ(config.find("a_1")->endpoint, "http://[::1]:8080");
  EXPECT_EQ(config.find("a_1")->prefix, "voice/of/");
  EXPECT_TRUE(config.find("b-2")->virtual_host);
  EXPECT_EQ(config.find("c"), nullptr);
  EXPECT_EQ(config.credentials_file, "/my keys");
  EXPECT_EQ(config.ca_file, "/ca");
  EXPECT_EQ(config.socket, "/socket");
  EXPECT_EQ(config.metrics_file, "/metrics");
  EXPECT_EQ(config.uploads, 1);
  EXPECT_EQ(config.downloads, 2);
  EXPECT_EQ(config.wait, 0);
  EXPECT_EQ(config.cache_free, 8);
  EXPECT_EQ(config.bytes_per_second, 3 << 10);
  EXPECT_EQ(config.multipart_from, 5 << 20);
  EXPECT_EQ(config.part_size, 6 << 20);
  EXPECT_EQ(config.cache_size, 7LL << 30);
}

TEST_F(TransferConfig, AnErrorNamesTheLine) {
  const std::pair<const char *, const char *> lines[] = {
      {"TRANSFER_UPLAODS 3", "TRANSFER_UPLAODS: no such directive"},
      {"TRANSFER_UPLOADS 0", "TRANSFER_UPLOADS: a number from 1 to 256 is expected, not \"0\""},
      {"TRANSFER_UPLOADS 257", "TRANSFER_UPLOADS: a number"},
      {"TRANSFER_WAIT 1s", "TRANSFER_WAIT: a number"},
      {"TRANSFER_PART", "TRANSFER_PART: a number"},
      {"TRANSFER_CA ca.pem", "TRANSFER_CA: an absolute path"},
      {"TRANSFER_OWNER 1", "TRANSFER_OWNER: expected: first-id name"},
      {"TRANSFER_OWNER 1 us", "TRANSFER_OWNER: there is no location \"us\""},
      {"TRANSFER_DEFAULT us", "TRANSFER_DEFAULT: there is no location \"us\""},
      {"TRANSFER_LOCATION us https://h r", "TRANSFER_LOCATION: expected: name endpoint"},
      {"TRANSFER_LOCATION eu https://h r b", "TRANSFER_LOCATION: location \"eu\" exists already"},
      {"TRANSFER_LOCATION u@s https://h r b", "TRANSFER_LOCATION: the name may"},
      {"TRANSFER_LOCATION us ftp://h r b", "TRANSFER_LOCATION: the endpoint must"},
      {"TRANSFER_LOCATION us https://h/b r b", "TRANSFER_LOCATION: the endpoint must"},
      {"TRANSFER_LOCATION us https://h r/s b", "TRANSFER_LOCATION: the region"},
      {"TRANSFER_LOCATION us https://h r b/c", "TRANSFER_LOCATION: the bucket"},
      {"TRANSFER_LOCATION us https://h r B host", "TRANSFER_LOCATION: this bucket cannot"},
      {"TRANSFER_LOCATION us https://h r b two/", "TRANSFER_LOCATION: \"path\" or \"host\""},
      {"TRANSFER_LOCATION us https://h r b path a/../b", "TRANSFER_LOCATION: the prefix"},
      {"TRANSFER_LOCATION us https://h r b path /a", "TRANSFER_LOCATION: the prefix"},
  };
  for (const auto &[line, wrong] : lines) {
    const std::string told = error(minimal + line + "\n");
    EXPECT_TRUE(told.starts_with("quorvex/transfer.conf:2: " + std::string(wrong))) << told;
  }
  EXPECT_EQ(error(minimal + "TRANSFER_LOCATION us https://h r b\n"),
            "quorvex/transfer.conf: TRANSFER_DEFAULT is missing, and there are several locations");
  EXPECT_EQ(error(minimal + "TRANSFER_SOCKET /" + std::string(107, 'x')),
            "quorvex/transfer.conf:2: TRANSFER_SOCKET: the path is too long for a socket");
  EXPECT_EQ(error("# none"), "quorvex/transfer.conf: TRANSFER_LOCATION is missing");
  for (const std::string node : {"", "a:b", "a@b", "a\tb"}) {
    box.write_file("etc/quorvexnode/nodeid", node);
    EXPECT_TRUE(error(minimal).starts_with("quorvexnode/nodeid:")) << node;
  }
  std::filesystem::remove(box.path("etc/quorvex/transfer.conf"));
  EXPECT_EQ(read_transfer_config().error,
            box.path("etc/quorvex/transfer.conf") + ": No such file or directory");
}

}  // namespace
