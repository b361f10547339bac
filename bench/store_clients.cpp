#include "bench/store_clients.h"

#include <fstream>
#include <stdexcept>

namespace bench {
namespace {

using namespace std::chrono_literals;

constexpr const char *at_once = "32";

support::process_options quiet() {
  return {.environment = {{"AWS_CA_BUNDLE", std::nullopt}, {"LD_PRELOAD", std::nullopt}},
          .limit = 30min};
}

}  // namespace

client_command rclone_copy(const s3_place &place, const std::string &folder) {
  client_command made{{"rclone", "--config", "", "copy", "--transfers", at_once, "--s3-chunk-size",
                       "16M", "--s3-upload-concurrency", "4", folder, "store:" + place.bucket},
                      quiet()};
  for (const auto &[name, value] :
       std::map<std::string, std::string>{{"TYPE", "s3"},
                                          {"PROVIDER", "Ceph"},
                                          {"ENDPOINT", place.endpoint},
                                          {"REGION", place.region},
                                          {"ACCESS_KEY_ID", place.credentials.access_key},
                                          {"SECRET_ACCESS_KEY", place.credentials.secret_key}}) {
    made.options.environment["RCLONE_CONFIG_STORE_" + name] = value;
  }
  return made;
}

client_command s3cmd_sync(const s3_place &place, const std::string &folder) {
  const std::string host = place.endpoint.substr(place.endpoint.find("//") + 2);
  return {{"s3cmd", "--config", "/dev/null", "--no-ssl", "--quiet", "--host", host, "--host-bucket",
           host, "--access_key", place.credentials.access_key, "--secret_key",
           place.credentials.secret_key, "sync", folder + "/", "s3://" + place.bucket + "/"},
          quiet()};
}

client_command aws_copy(const s3_place &place, const std::string &folder) {
  const std::string settings = folder + ".aws";
  std::ofstream(settings) << "[default]\ns3 =\n  max_concurrent_requests = " << at_once << "\n";
  // By its path, as others may come first that only find it.
  client_command made{{"/usr/bin/aws", "--endpoint-url", place.endpoint, "s3", "cp", "--recursive",
                       "--quiet", folder, "s3://" + place.bucket + "/"},
                      quiet()};
  made.options.environment["AWS_CONFIG_FILE"] = settings;
  made.options.environment["AWS_DEFAULT_REGION"] = place.region;
  made.options.environment["AWS_ACCESS_KEY_ID"] = place.credentials.access_key;
  made.options.environment["AWS_SECRET_ACCESS_KEY"] = place.credentials.secret_key;
  return made;
}

bucket_content count_and_empty(const s3_place &place) {
  s3_control control;
  s3_client client(place, control);
  bucket_content found;
  for (;;) {
    const s3_listing page = client.list("");
    if (!page.answer) throw std::runtime_error("no list: " + page.answer.text);
    if (page.objects.empty()) return found;
    std::vector<std::string> keys;
    for (const s3_listed &one : page.objects) {
      ++found.count;
      found.bytes += one.length;
      keys.push_back(one.key);
    }
    const s3_removal removal = client.remove(keys);
    if (!removal.answer || !removal.failed.empty()) throw std::runtime_error("they stay");
  }
}

}  // namespace bench
