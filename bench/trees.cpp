// Builds directory trees to walk.
#include "bench/trees.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <vector>

#include "platform/base/owner.h"

namespace {

void make_file(int directory, int number) {
  char name[32];
  std::snprintf(name, sizeof name, "media-%06d.wav", number);
  const unique_fd file(::openat(directory, name, O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  if (!file || ::ftruncate(file.get(), 1 + number % 64) != 0) {
    std::perror(name);
    std::exit(1);
  }
}

unique_fd open_directory(int parent, const char *path) {
  return unique_fd(::openat(parent, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// One buffer a level, kept from walk to walk.
char *level_buffer(size_t depth, size_t size) {
  static std::vector<std::unique_ptr<char[]>> buffers;
  while (buffers.size() <= depth) buffers.emplace_back(new char[size]);
  return buffers[depth].get();
}

int64_t bare_walk_at(int parent, const char *name, size_t depth) {
  constexpr size_t buffer_size = 32 * 1024;
  const unique_fd directory = open_directory(parent, name);
  if (!directory) return 0;
  int64_t total = 0;
  char *buffer = level_buffer(depth, buffer_size);
  for (;;) {
    const ssize_t length = ::getdents64(directory.get(), buffer, buffer_size);
    if (length <= 0) return total;
    for (ssize_t offset = 0; offset < length;) {
      auto *entry = reinterpret_cast<dirent64 *>(buffer + offset);
      offset += entry->d_reclen;
      if (entry->d_type == DT_DIR) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
          total += bare_walk_at(directory.get(), entry->d_name, depth + 1);
        }
        continue;
      }
      struct stat status;
      if (::fstatat(directory.get(), entry->d_name, &status, 0) == 0 && S_ISREG(status.st_mode)) {
        total += status.st_size;
      }
    }
  }
}

}  // namespace

void make_flat_tree(const std::string &root, int directories, int files) {
  for (int i = 0; i < directories; ++i) {
    const std::string path = root + "/d" + std::to_string(i);
    std::filesystem::create_directories(path);
    const unique_fd directory = open_directory(AT_FDCWD, path.c_str());
    for (int j = 0; j < files; ++j) make_file(directory.get(), j);
  }
}

void make_chains(const std::string &root, int chains, int depth) {
  for (int i = 0; i < chains; ++i) {
    const std::string path = root + "/chain" + std::to_string(i);
    std::filesystem::create_directories(path);
    unique_fd at = open_directory(AT_FDCWD, path.c_str());
    for (int j = 1; j < depth; ++j) {
      make_file(at.get(), j);
      if (::mkdirat(at.get(), "nested", 0755) != 0) std::exit(1);
      at = open_directory(at.get(), "nested");
    }
    make_file(at.get(), depth);
  }
}

int64_t bare_walk(const char *path) {
  return bare_walk_at(AT_FDCWD, path, 0);
}
