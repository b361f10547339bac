// Mail headers: any name, charset, text and address gives one, and its lines keep to their columns
// where name and charset leave room for a character. The unit test has the exact layout.
#include <spoolcap/zarn_str.h>
#include "fuzz/fuzz.h"

namespace {

std::string encode(const std::string &name, const std::string &charset, const std::string &text,
                   const char *address) {
  const c_string header(
      zarn_base64_encode_email_header(name.c_str(), charset.c_str(), text.c_str(), address));
  REQUIRE(header != nullptr);
  return header.get();
}

}  // namespace

void check(std::string_view bytes) {
  if (bytes.size() < 3) return;
  const auto *lengths = reinterpret_cast<const unsigned char *>(bytes.data());
  const std::string address(lengths[2] % 90, '@');
  const std::string text = std::string(bytes.substr(3)).c_str();
  for (const char *optional_address : {address.c_str(), static_cast<const char *>(nullptr)}) {
    encode(std::string(lengths[0], '%'), std::string(lengths[1], 'C'), text, optional_address);
  }

  // A line has room for 60 columns of name and charset, and a character of any width after them.
  const std::string name(lengths[0] % 31, '%');
  const std::string charset(lengths[1] % 31, 'C');
  for (const std::string &line : fuzz::lines_of(encode(name, charset, text, address.c_str()))) {
    REQUIRE(line.size() <= 79 || address.size() > 72);
  }
}
