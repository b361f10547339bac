// The table of engines, one row each.
// Engines are found by their word, which rows and configuration have.
#include "main/storage/engine.h"

#include <strings.h>

#include <cstring>

namespace {

constexpr const storage_engine *engines[] = {&posix_engine, &s3_engine};

// Rows and callers write the word in any case, the configuration only in lower case.
const storage_engine *find_engine(const char *word, int (*compare)(const char *, const char *)) {
  for (const storage_engine *engine : engines) {
    if (compare(word, engine->word) == 0) return engine;
  }
  return nullptr;
}

}  // namespace

const storage_engine *engine_of(const char *word) {
  return word == nullptr ? &posix_engine : find_engine(word, ::strcasecmp);
}

const storage_engine &configured_engine(const char *word) {
  const storage_engine *const named = find_engine(word, std::strcmp);
  return named == nullptr ? posix_engine : *named;
}
