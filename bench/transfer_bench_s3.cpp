// The transfer service beside other people's clients on the same store, and what a host feels of
// it.
#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <spoolcap/log.h>
#include <spoolcap/sqlsession.h>
#include <spoolcap/transfer.h>
#include <spoolcap/zarn_storage.h>
#include <spoolcap/zarn_str.h>
#include "bench/ratio.h"
#include "bench/store_clients.h"
#include "platform/s3/digest.h"
#include "platform/s3/signature.h"
#include "tests/support/faulty_proxy.h"
#include "tests/support/object_store.h"
#include "tests/support/transfer_daemon.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr const char *upload_queue = "storage:upqueue:s3:main";
constexpr const char *many_uploads = "TRANSFER_UPLOADS 32\n";

struct workload {
  int count;
  std::int64_t size;
};

void check(bool is_well, const std::string &what) {
  if (!is_well) throw std::runtime_error(what);
}

constexpr const char *queue_script = R"lua(
for i = 1, tonumber(ARGV[2]) do
  redis.call('ZADD', KEYS[1], ARGV[1] + i / 1000,
             'eu@n1:rc/1/' .. i % 100 .. '/' .. i .. '.wav')
end
)lua";

void queue_all(const support::sandbox &box, int count) {
  box.redis({"EVAL", queue_script, "1", upload_queue, std::to_string(qx_get_tstamp() - 1e6),
             std::to_string(count)});
}

void make_files(support::sandbox &box, const workload &what) {
  fs::remove_all(box.path("cache/main"));
  for (int i = 1; i <= what.count; ++i) {
    const std::string name =
        "cache/main/rc/1/" + std::to_string(i % 100) + "/" + std::to_string(i) + ".wav";
    box.write_file(name, "");
    fs::resize_file(box.path(name), static_cast<std::uintmax_t>(what.size));
    std::fstream(box.path(name)) << i;
  }
}

// Uploads of the same files by both sides, each time into a new bucket.
class upload_rows {
 public:
  upload_rows(support::sandbox &box, std::string endpoint, std::string way)
      : box_(box), endpoint_(std::move(endpoint)), way_(std::move(way)) {}

  using client = bench::client_command (*)(const s3_place &, const std::string &folder);

  ratio::body ours(const workload &what) {
    return both(what, [this, what](const s3_place &place, benchmark::State &state) {
      queue_all(box_, what.count);
      fs::remove(box_.path("notify"));  // of the daemon before
      support::transfer_daemon daemon(box_, place, many_uploads);
      state.ResumeTiming();
      check(daemon.start(), "no service");
      while (box_.redis({"ZCARD", upload_queue}) != "0") std::this_thread::sleep_for(5ms);
      state.PauseTiming();
      daemon.stop();
    });
  }

  ratio::body theirs(const workload &what, client command) {
    return both(what, [this, command](const s3_place &place, benchmark::State &state) {
      const bench::client_command call = command(place, box_.path("cache/main"));
      state.ResumeTiming();
      const support::process_result result = support::run_process(call.argv, call.options);
      state.PauseTiming();
      check(result.status == 0, call.argv[0] + ": " + result.out + result.err);
    });
  }

 private:
  ratio::body both(const workload &what,
                   std::function<void(const s3_place &, benchmark::State &)> upload) {
    return [this, what, upload = std::move(upload)](benchmark::State &state) {
      for (auto _ : state) {
        state.PauseTiming();
        make_files(box_, what);
        const s3_place direct = support::new_bucket(endpoint_);
        s3_place place = direct;
        if (!way_.empty()) place.endpoint = way_;
        upload(place, state);
        check(bench::count_and_empty(direct) ==
                  bench::bucket_content{what.count, what.count * what.size},
              "not all came to the store");
        state.ResumeTiming();
      }
    };
  }

  support::sandbox &box_;
  std::string endpoint_;
  std::string way_;  // an endpoint that leads to the same store; empty for none
};

// Hosts: this process is one.
class host {
 public:
  host() : daemon_(box_, place_) {
    box_.sql(
        "INSERT INTO extension_recording (id, extension_id, filesize) SELECT seq, 1, 1 FROM "
        "seq_1_to_100");
    check(daemon_.start(), "no service");
    qx_sql_pool_init();
    check(qx_storage_initialize(box_.path("base").c_str(), nullptr) == 0, "no storage");
    check(qx_transfer_start() == 0, "no transfer service");
  }
  ~host() {
    qx_transfer_stop();
    qx_storage_cleanup();
    qx_sql_pool_destroy();
  }

  // How long it takes until the object is there, of 64 KiB, in milliseconds.
  double commit(int id) {
    qx_storage_session_t *session = qx_storage_session_create(QX_STORAGE_RECORDING, 1, 2, "wav");
    check(session != nullptr, "no session");
    std::ofstream(qx_storage_get_temp_file(session)) << std::string(64 << 10, 'x');
    const double seconds = support::seconds_of([&] {
      check(qx_storage_commit_file(session, id) == 0, "no commit");
      while (!store_.head(key_of(id))) std::this_thread::sleep_for(1ms);
    });
    qx_storage_release_session(session);
    return 1000 * seconds;
  }

  void forget(int id) { ::unlink(box_.path("cache/main/" + key_of(id)).c_str()); }
  void retrieve(int id) {
    qx_storage_session_t *session =
        qx_storage_session_retrieve(QX_STORAGE_RECORDING, key_of(id).c_str(), "s3", "eu@n1");
    check(qx_storage_wait_for_file(session) == QX_STORAGE_READY, "no file");
    qx_storage_release_session(session);
  }

  static std::string key_of(int id) { return "rc/1/2/" + std::to_string(id) + ".wav"; }
  const s3_place &place() const { return place_; }

 private:
  support::sandbox box_;
  s3_place place_ = support::new_bucket(support::shared_object_store());
  support::transfer_daemon daemon_;
  s3_control control_;
  s3_client store_{place_, control_};
};

void measure_commits(host &one) {
  std::vector<double> times;
  for (int id = 1; id <= 51; ++id) {
    times.push_back(one.commit(id));
    std::this_thread::sleep_for(std::chrono::milliseconds(7 * id % 50));  // idle again
  }
  std::nth_element(times.begin(), times.begin() + 25, times.end());
  ratio::bound("from the commit to the object in the store", "ms, median of 51, told by the host",
               times[25], 100);
}

size_t ignore(char * /*bytes*/, size_t size, size_t count, void * /*data*/) {
  return size * count;
}

using curl_owner = std::unique_ptr<CURL, call_to_release<curl_easy_cleanup>>;
using list_owner = std::unique_ptr<curl_slist, call_to_release<curl_slist_free_all>>;

// The HTTP library's own GET; signed before each round, as a signature is good for some minutes.
void get_bare(benchmark::State &state, const s3_place &place, const std::string &key) {
  const std::string path = "/" + place.bucket + "/" + key, now = s3_timestamp(std::time(nullptr)),
                    nothing = s3_hex(s3_sha256(""));
  s3_unsigned request{"GET",
                      path,
                      "",
                      {{"host", place.endpoint.substr(place.endpoint.find("//") + 2)},
                       {"x-amz-content-sha256", nothing},
                       {"x-amz-date", now}},
                      nothing};
  list_owner headers;
  for (const std::string &line :
       {"authorization: " + s3_signer(place.credentials, place.region).authorization(request, now),
        "x-amz-content-sha256: " + nothing, "x-amz-date: " + now}) {
    curl_slist *longer = curl_slist_append(headers.get(), line.c_str());
    static_cast<void>(headers.release());
    headers.reset(longer);
  }
  const curl_owner handle(curl_easy_init());
  curl_easy_setopt(handle.get(), CURLOPT_URL, (place.endpoint + path).c_str());
  curl_easy_setopt(handle.get(), CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, ignore);
  check(curl_easy_perform(handle.get()) == CURLE_OK, "no bare GET");  // the connection is open
  for (auto _ : state) check(curl_easy_perform(handle.get()) == CURLE_OK, "no bare GET");
}

double peak_memory(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) return std::stod(line.substr(6)) / 1024;
  }
  return 0;
}

// The oldest members have their files and are uploaded; the rest are found to have lost theirs.
void measure_memory() {
  support::sandbox box{{.use_database = false}};
  const s3_place place = support::new_bucket(support::shared_object_store());
  make_files(box, {2000, 10 << 10});
  queue_all(box, 1'000'000);
  support::transfer_daemon daemon(box, place, many_uploads);
  check(daemon.start(), "no service");
  std::this_thread::sleep_for(20s);
  check(daemon.run({"--status"}).status == 0, "no status");
  check(bench::count_and_empty(place).count == 2000, "the oldest were not uploaded");
  ratio::bound("memory with 1,000,000 queued members",
               "MiB, most in 20 s: 2,000 uploads, lost files", peak_memory(daemon.process().pid()),
               32);
}

}  // namespace

int main(int argc, char **argv) {
  fr_log_set_sink([](const fr_log_record *, void *) {}, nullptr);
  const std::string endpoint = support::shared_object_store();
  measure_memory();
  support::sandbox box{{.use_database = false}};
  const support::faulty_proxy proxy(endpoint, {.refused = 20, .dropped = 0});
  upload_rows direct(box, endpoint, ""), through_faults(box, endpoint, proxy.endpoint());
  host telephony;
  measure_commits(telephony);

  const workload small{10'000, 10 << 10}, medium{2'000, 64 << 10}, few{200, 10 << 10},
      faulty{1'000, 10 << 10}, large{1, 1 << 30};
  using ratio::length;
  ratio::at_least(1.0, "10,000 uploads of 10 KiB", "rclone copy --transfers 32", direct.ours(small),
                  direct.theirs(small, bench::rclone_copy), length::once);
  ratio::at_least(1.0, "2,000 uploads of 64 KiB", "rclone copy --transfers 32", direct.ours(medium),
                  direct.theirs(medium, bench::rclone_copy), length::once);
  ratio::at_least(1.0, "200 uploads of 10 KiB, as these are slow", "s3cmd sync", direct.ours(few),
                  direct.theirs(few, bench::s3cmd_sync), length::once);
  ratio::at_least(1.0, "200 uploads of 10 KiB, as these are slow", "aws s3 cp, 32 at once",
                  direct.ours(few), direct.theirs(few, bench::aws_copy), length::once);
  ratio::at_most(1.0, "1,000 uploads with 20 % of answers 503", "rclone copy --transfers 32",
                 through_faults.ours(faulty), through_faults.theirs(faulty, bench::rclone_copy),
                 length::once);
  ratio::at_most(1.0, "an upload of 1 GiB, 4 parts of 16 MiB at once", "rclone copy, the same",
                 direct.ours(large), direct.theirs(large, bench::rclone_copy), length::once);
  ratio::at_most(
      1.5, "a retrieval of 64 KiB through the service", "a bare GET on an open connection",
      [&](benchmark::State &state) {
        for (auto _ : state) {
          state.PauseTiming();
          telephony.forget(1);
          state.ResumeTiming();
          telephony.retrieve(1);
        }
      },
      [&](benchmark::State &state) { get_bare(state, telephony.place(), host::key_of(1)); },
      length::calls);
  return ratio::run(argc, argv);
}
