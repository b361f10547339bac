// Objects of a store.
#include "platform/s3/client.h"

std::string s3_hex(std::string_view bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    text += digits[value >> 4];
    text += digits[value & 15];
  }
  return text;
}
