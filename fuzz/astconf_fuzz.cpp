// Asterisk's configuration: both readers hand out only what the file holds, and the helpers of a
// line's layout keep to the room that they are given. The rules are those of the unit test.
#include <spoolcap/utils.h>
#include "fuzz/fuzz.h"

namespace {

void require_piece(std::string_view bytes, safestr_t value) {
  const safestr_owner owned(value);
  if (owned) REQUIRE(bytes.find({value, safestr_length(value)}) != bytes.npos);
}

void check_layout(const std::string &line, size_t room) {
  const std::unique_ptr<char[]> place(new char[room]);
  REQUIRE(get_start_padding(line.c_str(), place.get(), room, nullptr) == place.get());
  REQUIRE(line.starts_with(place.get()));

  const std::string comment = get_inline_comment(line.c_str(), nullptr, 0, ";");
  REQUIRE(line.ends_with(comment));
  get_inline_comment(line.c_str(), place.get(), room, ";");
  REQUIRE(comment.substr(0, room) == std::string(place.get(), strnlen(place.get(), room)));
}

}  // namespace

void check(std::string_view bytes) {
  static const fuzz::memory_file file;
  const char *const keys[] = {"astspooldir", nullptr};
  file.assign(bytes);
  for (const char *section : {"directories", static_cast<const char *>(nullptr)}) {
    safestr_t value = nullptr;
    REQUIRE(get_astconf_section_values(file.path().c_str(), section, keys, &value) == 0);
    require_piece(bytes, value);
  }
  safestr_t value = nullptr;
  REQUIRE(get_astconf_values(file.path().c_str(), keys, &value, 1) == 0);
  require_piece(bytes, value);

  const std::string text = std::string(bytes).c_str();
  check_layout(text, 3);
  check_layout(text, text.size() + 1);
}
