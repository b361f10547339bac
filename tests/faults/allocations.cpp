// Loaded in front of a program: fails one of its allocations, or counts them.
//   FAULT_ALLOCATION        which one fails, from 1 on
//   FAULT_ALLOCATION_COUNT  a file that takes the count at the end
#include <dlfcn.h>
#include <link.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string_view>

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *old, std::size_t size);
}

namespace {

std::atomic<long> allocations{0};

// The setting up of TLS allocates thousands of times and is not ours; nor are the loader, and what
// only the tests load.
bool is_foreign(void *caller) {
  dl_find_object module{};
  if (_dl_find_object(caller, &module) != 0) return true;
  const std::string_view file = module.dlfo_link_map->l_name;
  for (const char *name : {"/libcrypto.", "/libssl.", "/ld-linux", "/libnss_wrapper."}) {
    if (file.find(name) != file.npos) return true;
  }
  return false;
}

bool fails(void *caller) {
  static const char *const chosen = std::getenv("FAULT_ALLOCATION");
  static const long number = chosen != nullptr ? std::atol(chosen) : 0;
  if (is_foreign(caller) || ++allocations != number) return false;
  errno = ENOMEM;
  return true;
}

__attribute__((destructor)) void tell_count() {
  const long count = allocations;
  const char *path = std::getenv("FAULT_ALLOCATION_COUNT");
  std::FILE *file = path != nullptr ? std::fopen(path, "we") : nullptr;
  if (file == nullptr) return;
  std::fprintf(file, "%ld", count);
  std::fclose(file);
}

}  // namespace

extern "C" {

// operator new comes to these as well.
void *malloc(std::size_t size) {
  return fails(__builtin_return_address(0)) ? nullptr : __libc_malloc(size);
}

void *calloc(std::size_t count, std::size_t size) {
  return fails(__builtin_return_address(0)) ? nullptr : __libc_calloc(count, size);
}

void *realloc(void *old, std::size_t size) {
  return fails(__builtin_return_address(0)) ? nullptr : __libc_realloc(old, size);
}
}
