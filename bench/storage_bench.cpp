// Storing files: beside the bare system calls, beside cp, and from eight threads beside one.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <spoolcap/log.h>
#include <spoolcap/sqlsession.h>
#include <spoolcap/zarn_storage.h>
#include "bench/ratio.h"
#include "main/storage/files.h"
#include "platform/base/owner.h"
#include "tests/support/sandbox.h"

namespace {

const std::string content(64 * 1024, 'x');

void write_content(const char *path, int flags) {
  const unique_fd file(::open(path, O_WRONLY | O_CLOEXEC | flags, 0770));
  if (::write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    std::abort();
  }
}

void store(int id) {
  qx_storage_session_t *session = qx_storage_session_create(QX_STORAGE_RECORDING, 1, 2, "wav");
  write_content(qx_storage_get_temp_file(session), 0);
  if (qx_storage_commit_file(session, id) != 0) std::abort();
  qx_storage_release_session(session);
}

void bare_store(const std::string &folder, int id) {
  const std::string temporary = folder + "/tmp/" + std::to_string(id) + ".wav";
  const std::string place = folder + "/1/" + std::to_string(id) + ".wav";
  write_content(temporary.c_str(), O_CREAT | O_EXCL);
  ::mkdir((folder + "/1").c_str(), 0770);
  if (std::rename(temporary.c_str(), place.c_str()) != 0) std::abort();
}

// Storage in this sandbox from now on.
void use_engine(support::sandbox &box, const std::string &word, const std::string &further = "") {
  box.write_file("etc/quorvex/storage.conf", "STORAGE_SYSTEM " + word + "\n" + further);
  if (qx_storage_initialize(box.path("base").c_str(), nullptr) != 0) std::abort();
}

// Stores ever new files, which go after each round: a file that replaces another one waits for the
// disk, and nothing else would show.
ratio::body new_files(std::string folder, const std::function<void(int)> &store_one) {
  return [folder = std::move(folder), store_one](benchmark::State &state) {
    int id = 0;
    for (auto _ : state) store_one(++id);
    std::filesystem::remove_all(folder + "/1");
  };
}

void measure_posix(support::sandbox &box) {
  const std::string bare = box.path("bare");
  box.make_folder("bare/tmp");
  const ratio::body library = new_files(box.path("base/monitor"), store);
  ratio::at_most(
      1.5, "storing a file of 64 KiB, without the database", "create, write, mkdir, rename",
      [&box, library](benchmark::State &state) {
        use_engine(box, "posix");
        library(state);
      },
      new_files(bare, [bare](int id) { bare_store(bare, id); }), ratio::length::calls);
}

void measure_copy(support::sandbox &box) {
  box.write_file("large", 256 << 20);
  // Each copy is a new file.
  const auto fresh = [&box](const std::function<void(const std::string &)> &copy) {
    return [&box, copy](benchmark::State &state) {
      for (auto _ : state) {
        state.PauseTiming();
        std::filesystem::remove(box.path("copies/copy"));
        ::sync();  // what was written before is not to be waited for meanwhile
        state.ResumeTiming();
        copy(box.path("copies/copy"));
      }
    };
  };
  box.make_folder("copies");
  const std::string from = box.path("large");
  ratio::at_most(1.05, "a file of 256 MiB into the cache", "cp", fresh([from](auto &to) {
                   committed_file copy;
                   if (copy_file(from, to, copy) != 0) std::abort();
                 }),
                 fresh([from](auto &to) {
                   if (support::run_process({"cp", from, to}).status != 0) std::abort();
                 }));
}

// The same number of files, shared by several threads. They lie in memory: on a disk the waits for
// its journal differ more from round to round than the two sides do.
ratio::body stored_by(int threads, support::sandbox &box, const std::string &folder) {
  return [threads, &box, folder](benchmark::State &state) {
    constexpr int files = 400;
    use_engine(box, "s3",
               "STORAGE_TRANSFEROUT_D " + folder + "/out\nSTORAGE_CACHE_D " + folder + "/cache\n");
    qx_sql_pool_init();
    const auto share = [threads](int first) {
      for (int id = first; id < files; id += threads) store(1 + id);
    };
    const auto all = [&] {
      std::vector<std::thread> workers;
      workers.reserve(static_cast<size_t>(threads));
      for (int first = 0; first < threads; ++first) workers.emplace_back(share, first);
      for (std::thread &one : workers) one.join();
    };
    all();  // the connections are there
    std::filesystem::remove_all(folder + "/cache");
    for (auto _ : state) all();
    qx_sql_pool_destroy();
  };
}

}  // namespace

int main(int argc, char **argv) {
  fr_log_set_sink([](const fr_log_record *, void *) {}, nullptr);
  const qx_storage_api_t api = {
      nullptr, [](void *) { return 1; },
      [](void *, const qx_storage_location_query_t *) { return ::strdup("eu:bucket"); },
      [](void *, const char *, const char *, const char *, const char *, const char *,
         qx_storage_done_fn, void *) -> void * { return nullptr; },
      [](void *, void *) {}};
  support::sandbox box;
  box.sql(
      "INSERT INTO extension_recording (id, extension_id, filesize) SELECT seq, 1, 1 FROM "
      "seq_1_to_1000");
  if (qx_storage_register_api(&api) != 0) return 1;
  measure_posix(box);
  measure_copy(box);
  ::setenv(support::folder_variable, "/dev/shm", 1);
  const support::private_folder in_memory("bench-storage");
  ratio::at_most(1.0, "400 files into S3, by eight threads, tmpfs", "by one thread",
                 stored_by(8, box, in_memory.path()), stored_by(1, box, in_memory.path()));
  return ratio::run(argc, argv);
}
