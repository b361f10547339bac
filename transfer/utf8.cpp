#include "transfer/utf8.h"

#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>

std::string valid_utf8(std::string_view text) {
  std::string valid;
  while (!text.empty()) {
    rapidjson::MemoryStream from(text.data(), text.size());
    rapidjson::StringBuffer to;
    if (rapidjson::UTF8<>::Validate(from, to)) {
      valid.append(to.GetString(), to.GetSize());
      text.remove_prefix(from.Tell());
    } else {
      valid += "\xef\xbf\xbd";
      text.remove_prefix(1);
    }
  }
  return valid;
}

std::string without_controls(std::string text) {
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x20 || byte == 0x7f) text[at] = '?';
    // U+0080 to U+009F.
    const bool is_high =
        byte == 0xc2 && at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) < 0xa0;
    if (is_high) text.replace(at, 2, "?");
  }
  return text;
}
