// Loaded in front of a program: fails one of its allocations, or counts them.
//   FAULT_ALLOCATION        which one fails, from 1 on
//   FAULT_ALLOCATION_COUNT  a file that takes the count at the end
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *old, std::size_t size);
}

namespace {

std::atomic<long> allocations{0};

bool fails() {
  static const char *const chosen = std::getenv("FAULT_ALLOCATION");
  static const long number = chosen != nullptr ? std::atol(chosen) : 0;
  if (++allocations != number) return false;
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
  return fails() ? nullptr : __libc_malloc(size);
}

void *calloc(std::size_t count, std::size_t size) {
  return fails() ? nullptr : __libc_calloc(count, size);
}

void *realloc(void *old, std::size_t size) {
  return fails() ? nullptr : __libc_realloc(old, size);
}
}
