#include "tests/support/object_store.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace support {
namespace {

using namespace std::chrono_literals;

constexpr const char *configuration = R"([global]
auth_cluster_required = none
auth_service_required = none
auth_client_required = none
public_addr = 127.0.0.1
cluster_addr = 127.0.0.1
ms_bind_msgr2 = false
# One copy in memory.
osd_objectstore = memstore
memstore_device_bytes = 8589934592
osd_pool_default_size = 1
osd_pool_default_min_size = 1
osd_pool_default_pg_num = 1
osd_pool_default_pg_autoscale_mode = off
mon_allow_pool_size_one = true
osd_crush_chooseleaf_type = 0
osd_class_load_list = *
osd_class_default_list = *
# By default the object server places itself, which often fails in a cluster as young as this.
osd_class_update_on_start = false
osd_crush_update_on_start = false
# By default the monitor waits a second for each pool.
paxos_propose_interval = 0.02
paxos_min_wait = 0.01
mon_tick_interval = 1
rgw_dns_name = s3.localhost
)";

const process_options quiet{.environment = {{"LD_PRELOAD", std::nullopt}}, .limit = 60s};

bool succeeds(const std::vector<std::string> &argv) {
  return run_process(argv, quiet).status == 0;
}

std::string configuration_of(const server &store) {
  return (store.folder() / "ceph.conf").string();
}

std::vector<std::string> gateway_argv(const server &store) {
  return {"radosgw", "-f", "-c", configuration_of(store), "-n", "client.gateway"};
}

bool gateway_answers(const server &store) {
  s3_control control;
  s3_client client({.endpoint = "http://127.0.0.1:" + std::to_string(store.port()),
                    .region = "default",
                    .bucket = "no-such-bucket",
                    .credentials = store_credentials()},
                   control);
  return client.list("", "", 1).answer.code == "NoSuchBucket";
}

}  // namespace

object_store::object_store() : server({"store", gateway_argv, gateway_answers}, {.tcp = true}) {
  int attempts = 3;
  while (attempts > 0 && !set_up()) --attempts;
  if (attempts == 0) {
    throw std::runtime_error("no object store: is each of radosgw, ceph-mon, ceph-osd there?");
  }
  start();
}

bool object_store::set_up() {
  monitor_.reset();
  objects_.reset();
  const std::filesystem::path data = folder() / "data";
  std::filesystem::remove_all(data);
  std::filesystem::create_directories(data);
  for (const char *name : {"mon", "osd"}) std::filesystem::create_directory(data / name);
  const std::string here = data.string(), settings = configuration_of(*this);
  const std::string cluster = "5f0c5a52-0000-4000-8000-000000000001";
  const std::string unit = "5f0c5a52-0000-4000-8000-000000000002";
  int port = 0;
  bound_to_loopback(port);
  const std::string address = "v1:127.0.0.1:" + std::to_string(port);
  std::ofstream(settings) << configuration << "fsid = " << cluster << "\nmon_host = " << address
                          << "\nmon_data = " << here << "/mon\nosd_data = " << here
                          << "/osd\nrun_dir = " << here << "\nadmin_socket = \npid_file = " << here
                          << "/$name.pid\nlog_file = " << here << "/$name.log\ncrash_dir = " << here
                          << "/crash\nkeyring = " << here << "/keyring\nrgw_data = " << here
                          << "/gateway\nrgw_frontends = beast tcp_nodelay=1 endpoint=127.0.0.1:"
                          << this->port() << "\n";
  const auto in_background = [&](const char *program, const char *id) {
    process_options options = quiet;
    options.log = data / (std::string(program) + ".out");
    return std::make_unique<background_process>(
        std::vector<std::string>{program, "-f", "-c", settings, "-i", id}, options);
  };
  const std::string map = here + "/monmap";
  if (!succeeds(
          {"monmaptool", "--create", "--fsid", cluster, "--addv", "a", "[" + address + "]", map}) ||
      !succeeds({"ceph-mon", "-c", settings, "--mkfs", "-i", "a", "--monmap", map})) {
    return false;
  }
  monitor_ = in_background("ceph-mon", "a");
  const std::vector<std::string> ask{"ceph", "-c", settings, "--connect-timeout", "10"};
  const auto asked = [&](std::vector<std::string> words) {
    words.insert(words.begin(), ask.begin(), ask.end());
    return succeeds(words);
  };
  if (!asked({"osd", "new", unit}) ||
      !succeeds({"ceph-osd", "-c", settings, "-i", "0", "--mkfs", "--osd-uuid", unit}) ||
      !asked({"osd", "crush", "add", "osd.0", "1", "root=default", "host=h"})) {
    return false;
  }
  objects_ = in_background("ceph-osd", "0");
  const s3_credentials keys = store_credentials();
  return succeeds({"radosgw-admin", "-c", settings, "user", "create", "--uid=spoolcap",
                   "--display-name=spoolcap", "--access-key=" + keys.access_key,
                   "--secret-key=" + keys.secret_key});
}

s3_credentials store_credentials() {
  const char *key = std::getenv(store_key_variable);
  return {.access_key = key != nullptr ? key : "spoolcap",
          .secret_key = "top/secret+key=",
          .session_token = {}};
}

s3_place new_bucket(const std::string &endpoint, const s3_credentials &keys) {
  static std::atomic<int> count = 0;
  s3_place place{.endpoint = endpoint,
                 .region = "default",
                 .bucket = "b" + std::to_string(getpid()) + "-" + std::to_string(++count),
                 .credentials = keys};
  s3_control control;
  s3_client client(place, control);
  // A PUT below the bucket without a name is one of the bucket itself, which has no ETag.
  const s3_answer answer = client.put("", stored_bytes("").body());
  if (answer.status != 200) throw std::runtime_error("no new bucket: " + answer.text);
  return place;
}

std::string shared_object_store() {
  const char *endpoint = std::getenv(object_store_variable);
  if (endpoint == nullptr) {
    throw std::runtime_error("run these tests under testbed --object-store: make test-s3");
  }
  return endpoint;
}

stored_bytes::stored_bytes(std::string_view content) : fd_(::memfd_create("body", MFD_CLOEXEC)) {
  const ssize_t written = ::pwrite(fd_.get(), content.data(), content.size(), 0);
  if (written != std::ssize(content)) throw std::runtime_error("no file in memory");
  body_ = part(0, written);
}

s3_body stored_bytes::part(std::int64_t offset, std::int64_t length) const {
  s3_body body{.fd = fd_.get(), .offset = offset, .length = length, .md5 = {}, .sha256 = {}};
  if (!s3_digest(body)) throw std::runtime_error("no such part of the file");
  return body;
}

std::string content_of(int fd) {
  std::string content(static_cast<size_t>(::lseek(fd, 0, SEEK_END)), '\0');
  const ssize_t read = ::pread(fd, content.data(), content.size(), 0);
  if (read != std::ssize(content)) throw std::runtime_error("the file cannot be read");
  return content;
}

}  // namespace support
