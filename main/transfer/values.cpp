// Checks the values of transfer.conf, and says what is wrong with one.
// Text goes in, a value or a sentence comes out; no file is opened.
#include "main/transfer/values.h"

#include <algorithm>
#include <regex>

#include "main/storage/names.h"
#include "platform/base/number.h"
#include "platform/base/view.h"

namespace {

// Bytes. A key has at most 1,024 of them in a store; the prefix leaves half.
constexpr std::size_t longest_name = 64, longest_bucket = 255, longest_prefix = 512;

bool is_alphanumeric(char byte) {
  return (byte >= '0' && byte <= '9') || (ascii_lower(byte) >= 'a' && ascii_lower(byte) <= 'z');
}

// Whether the text is not empty and has only letters, digits, and what is in `others`.
bool is_word(std::string_view text, std::string_view others) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [others](char byte) {
    return is_alphanumeric(byte) || others.find(byte) != others.npos;
  });
}

// A slash at the end is dropped.
std::string read_endpoint(std::string_view text, std::string &endpoint) {
  static const std::regex form(R"((https?://([A-Za-z0-9.-]+|\[[0-9A-Fa-f:.]+\])(:[0-9]{1,5})?)/?)");
  std::cmatch parts;
  if (!std::regex_match(text.data(), text.data() + text.size(), parts, form)) {
    return "the endpoint must be http(s)://host or http(s)://host:port";
  }
  endpoint = parts[1];
  return "";
}

std::string read_bucket(std::string_view text, bool virtual_host, std::string &bucket) {
  // In a host name the rules of host names hold.
  const auto fits_host = [](char byte) { return byte != '_' && ascii_lower(byte) == byte; };
  if (!is_word(text, "-._") || text.size() > longest_bucket || text.starts_with('.')) {
    return "the bucket is no bucket's name";
  }
  // 63 is the length of one label of a host name.
  if (virtual_host && (!std::all_of(text.begin(), text.end(), fits_host) || text.size() > 63)) {
    return "this bucket cannot be part of a host name: use \"path\"";
  }
  bucket = text;
  return "";
}

// Ends with a slash when it is not empty.
std::string read_prefix(std::string_view text, std::string &prefix) {
  while (text.ends_with('/')) text.remove_suffix(1);
  bool is_good = text.size() <= longest_prefix && !has_reserved_byte(text);
  for (std::string_view rest = text; is_good && !rest.empty();) {
    const std::string_view component = rest.substr(0, rest.find('/'));
    is_good = !component.empty() && component != "." && component != "..";
    rest.remove_prefix(std::min(component.size() + 1, rest.size()));
  }
  if (!is_good || text.empty()) return "the prefix must be like \"one/two/\"";
  prefix = std::string(text) + '/';
  return "";
}

}  // namespace

bool read_number(std::string_view text, std::int64_t least, std::int64_t most,
                 std::int64_t &number) {
  const auto found = whole_number<std::int64_t>(text);
  if (!found || *found < least || *found > most) return false;
  number = *found;
  return true;
}

std::vector<std::string_view> fields_of(std::string_view value) {
  std::vector<std::string_view> fields;
  for (value = trimmed(value); !value.empty(); value = trimmed(value)) {
    fields.push_back(value.substr(0, value.find_first_of(white_space)));
    value.remove_prefix(fields.back().size());
  }
  return fields;
}

std::string quoted(std::string_view text) {
  return '"' + std::string(text) + '"';
}

std::string read_location(std::string_view value, transfer_config &config) {
  const std::vector<std::string_view> fields = fields_of(value);
  // Checked in the order in which a person reads the line.
  if (fields.size() < 4 || fields.size() > 6) {
    return "expected: name endpoint region bucket [path|host [prefix]]";
  }
  transfer_location made;
  made.name = fields[0];
  if (!is_word(made.name, "-_") || made.name.size() > longest_name) {
    return "the name may have letters, digits, \"-\" and \"_\"";
  }
  if (config.find(made.name) != nullptr) return "location " + quoted(made.name) + " exists already";
  if (!is_word(fields[2], "-._")) return "the region is no region's name";
  made.region = fields[2];
  if (fields.size() > 4 && fields[4] != "path" && fields[4] != "host") {
    return "\"path\" or \"host\" is expected after the bucket, not " + quoted(fields[4]);
  }
  made.virtual_host = fields.size() > 4 && fields[4] == "host";
  std::string wrong = read_endpoint(fields[1], made.endpoint);
  if (wrong.empty()) wrong = read_bucket(fields[3], made.virtual_host, made.bucket);
  if (wrong.empty() && fields.size() > 5) wrong = read_prefix(fields[5], made.prefix);
  // Only a location without a mistake counts.
  if (wrong.empty()) config.locations.push_back(std::move(made));
  return wrong;
}
