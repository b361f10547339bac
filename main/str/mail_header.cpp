// Mail headers with RFC 2047 "B" encoded words.
// Text goes in, a whole header with its line ends comes out, malloc'ed.
#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include <spoolcap/zarn_str.h>
#include "platform/base/owner.h"
#include "platform/base/str.h"

namespace {

// A line with an encoded word keeps within this many columns before its closing "?=".
constexpr int word_columns = 76;
// A line that takes the address stays shorter than this, its newline included.
constexpr int address_columns = 78;

int columns_of(const std::string &line) {
  return static_cast<int>(line.size());
}

// Length of the first character by its lead byte, at most what is left of the text.
size_t length_of_first_character(std::string_view text) {
  const auto told = zarn_utf8_get_char_length(static_cast<unsigned char>(text.front()));
  return std::min(static_cast<size_t>(told), text.size());
}

// How many bytes of whole characters fit into the budget.
size_t fitting(std::string_view text, size_t budget) {
  size_t taken = 0;
  while (taken < text.size()) {
    const size_t next = length_of_first_character(text.substr(taken));
    if (next > budget - taken) break;
    taken += next;
  }
  return taken;
}

// Moves as much of the text as the line has room for into an encoded word on it. The first line may
// have no room after a long header name; its word is empty then. A continuation line takes at least
// one character, so that the loop ends however long the charset is.
void append_word(std::string &line, bool continuation, const char *charset,
                 std::string_view &text) {
  line.append("=?").append(charset).append("?B?");
  // Base64 makes four columns out of three bytes, so whole groups are counted.
  const int groups = (word_columns - columns_of(line)) / 4;
  size_t taken = groups > 0 ? fitting(text, static_cast<size_t>(groups) * 3) : 0;
  if (taken == 0 && continuation) taken = length_of_first_character(text);
  const c_string encoded(base64_enc_str(text.substr(0, taken)));
  if (!encoded) throw std::bad_alloc();
  line.append(encoded.get()).append("?=\n");
  text.remove_prefix(taken);
}

bool has_room_for(const char *address, const std::string &line) {
  return address_columns - columns_of(line) > static_cast<int>(std::strlen(address)) + 4;
}

// Each round makes one line: words while there is text, then the address. Without text and address
// there is no line at all, not even for the name.
std::string encode_header(const std::string &name, const char *charset, std::string_view text,
                          const char *address) {
  std::string result;
  std::string line = name + ": ";
  for (bool continuation = false; !text.empty() || address != nullptr; continuation = true) {
    if (!text.empty()) {
      append_word(line, continuation, charset, text);
    } else if (continuation || has_room_for(address, line)) {
      // A continuation line takes any address, as no later line has more room.
      line.append(" <").append(address).append(">\n");
      address = nullptr;
    }
    result += line;
    // Continuation lines begin with one blank, as folded headers must.
    line.assign(1, ' ');
  }
  return result;
}

}  // namespace

char *zarn_base64_encode_email_header(const char *name, const char *charset, const char *text,
                                      const char *address) {
  if (name == nullptr || charset == nullptr || text == nullptr) return nullptr;
  return no_throw<char *>(
      nullptr, [&] { return ::strdup(encode_header(name, charset, text, address).c_str()); });
}
