// Mail headers: nothing of a text is lost, no character is split, every line keeps to its columns.
#include <openssl/evp.h>

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

std::string decoded(std::string_view code) {
  std::string bytes(code.size() + 1, '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                                     reinterpret_cast<const unsigned char *>(code.data()),
                                     static_cast<int>(code.size()));
  REQUIRE(length >= 0);
  bytes.resize(static_cast<size_t>(length - std::count(code.begin(), code.end(), '=')));
  return bytes;
}

// Bytes that the character at the start of a text takes, as its lead byte tells it.
size_t width(const std::string &text) {
  return static_cast<size_t>(zarn_utf8_get_char_length(static_cast<unsigned char>(text[0])));
}

// Takes the word of a line, which begins after `start`, off the text. It has as many whole
// characters as the line has room for.
void take_word(const std::string &line, const std::string &start, std::string &text) {
  REQUIRE(line.starts_with(start) && line.ends_with("?=") && line.size() <= 78);
  const std::string bytes = decoded(line.substr(start.size(), line.size() - start.size() - 2));
  const size_t budget = (76 - start.size()) / 4 * 3;
  REQUIRE(text.starts_with(bytes) && bytes.size() <= budget);
  const std::string rest = text.substr(bytes.size());
  while (text.size() > rest.size()) text.erase(0, width(text));
  REQUIRE(text == rest);
  REQUIRE(text.empty() || bytes.size() + width(text) > budget);
}

}  // namespace

void check(std::string_view bytes) {
  if (bytes.size() < 3) return;
  const auto *lengths = reinterpret_cast<const unsigned char *>(bytes.data());
  const std::string address(lengths[2] % 90, '@');
  std::string text = std::string(bytes.substr(3)).c_str();
  for (const char *optional_address : {address.c_str(), static_cast<const char *>(nullptr)}) {
    encode(std::string(lengths[0], '%'), std::string(lengths[1], 'C'), text, optional_address);
  }

  // A line has room for 60 columns of name and charset, and a character of any width after them.
  // The letters complete a character that the end of the text cuts short.
  const std::string name(lengths[0] % 31, '%');
  const std::string charset(lengths[1] % 31, 'C');
  text += "end";
  std::vector<std::string> lines = fuzz::lines_of(encode(name, charset, text, address.c_str()));
  std::string start = name + ": ";
  const std::string opening = "=?" + charset + "?B?";
  for (size_t i = 0; !text.empty(); ++i, start = " ") {
    REQUIRE(i < lines.size() && lines[i].ends_with('\n'));
    lines[i].pop_back();
    take_word(lines[i], start + opening, text);
  }
  const std::string end = " <" + address + ">\n";
  REQUIRE(lines.back() == end || lines.back() == " " + end);
  REQUIRE(lines.back().size() <= 79 || address.size() > 72);
}
