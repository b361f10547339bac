// Quota records: any content of the file, read and written over.
#include "fuzz/fuzz.h"
#include "main/quota/record.h"

namespace {

constexpr size_t longest_record = 31;

void read_any(const fuzz::memory_file &file, std::string_view content) {
  file.assign(content);
  int64_t value = -7;
  int revision = -8;
  const int result = quota_read_internal(file.fd(), &value, &revision);

  // The reader sees a C text: a NUL ends it.
  const std::string text = std::string(content.substr(0, longest_record)).c_str();
  const size_t dot = text.find('.');
  const bool is_record = dot != std::string::npos;
  REQUIRE(result == (is_record ? 0 : -1));
  REQUIRE(value == (is_record ? std::atoll(text.substr(0, dot).c_str()) : -7));
  REQUIRE(revision == (is_record ? std::atoi(text.c_str() + dot + 1) : -8));
}

void write_over(const fuzz::memory_file &file, int64_t value, int revision) {
  const std::string record = std::to_string(value) + "." + std::to_string(revision);
  const bool fits = record.size() <= longest_record;
  REQUIRE(quota_write_internal(file.fd(), value, revision) == (fits ? 0 : -1));
  REQUIRE(file.content() == (fits ? record : ""));
}

}  // namespace

void check(std::string_view bytes) {
  static const fuzz::memory_file file;
  read_any(file, bytes);

  // Numbers of all lengths, over what was read.
  struct {
    int64_t value;
    int revision;
    uint8_t shift;
  } numbers = {};
  std::memcpy(&numbers, bytes.data(), std::min(bytes.size(), sizeof numbers));
  write_over(file, numbers.value >> numbers.shift % 64, numbers.revision >> numbers.shift % 32);
  read_any(file, file.content());
  // A record over one that is longer by a byte.
  write_over(file, numbers.value, 7);
  write_over(file, numbers.value / 10, 7);
}
