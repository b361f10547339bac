// Members of the queues as texts, and the names that belong to them.
// In memory only. docs/transfer.md has the forms.
#include "transfer/queue_names.h"

#include <charconv>

#include "main/transfer/config.h"

namespace {

constexpr std::string_view claims = "storage:claim:s3:main:";
constexpr std::string_view marks = "storage:swept:s3:main:";

// The first three components of a key.
// A key with fewer components is its own prefix, and meets no deletion of a prefix.
std::string prefix_of(const std::string &key) {
  size_t end = 0;
  for (int component = 0; component < 3; ++component) {
    end = key.find('/', component == 0 ? 0 : end + 1);
    if (end == std::string::npos) return key;
  }
  return key.substr(0, end);
}

double number_of(std::string_view text) {
  double value = 0;
  // A score is printed by the DisDB, so it always is a number; anything else reads as 0.
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

}  // namespace

std::string queue_number(double value) {
  char digits[32];
  const auto end =
      std::to_chars(std::begin(digits), std::end(digits), value, std::chars_format::general, 17);
  return {digits, end.ptr};
}

double queue_entry::queued_at() const {
  return number_of(score);
}

std::optional<upload_member> upload_member::parse(std::string_view member) {
  // No accepted location, node or key has a colon, so the last one separates.
  const size_t colon = member.rfind(':');
  if (colon == std::string_view::npos || colon + 1 == member.size()) return std::nullopt;
  const location_parts parts = parts_of_location(member.substr(0, colon));
  return upload_member{std::string(parts.location), std::string(parts.node),
                       std::string(member.substr(colon + 1))};
}

std::optional<delete_member> delete_member::parse(std::string_view member) {
  // The same form with ":o" or ":r" before the last colon.
  const auto outer = upload_member::parse(member);
  if (!outer) return std::nullopt;
  std::string_view text = member.substr(0, member.rfind(':'));
  const bool whole_prefix = text.ends_with(":r");
  if (!whole_prefix && !text.ends_with(":o")) return std::nullopt;
  text.remove_suffix(2);
  const location_parts parts = parts_of_location(text);
  delete_member result{std::string(parts.location), std::string(parts.node), whole_prefix,
                       outer->key};
  while (whole_prefix && result.key.ends_with('/')) result.key.pop_back();
  if (result.key.empty()) return std::nullopt;
  return result;
}

upload_names::upload_names(const upload_member &member) {
  const std::string prefix = prefix_of(member.key);
  unclear = member.location + ":" + member.key;
  claim = std::string(claims) + unclear;
  deletion = member.location + ":o:" + member.key;
  prefix_deletion = member.location + ":r:" + prefix;
  prefix_claim = std::string(claims) + prefix_deletion;
  prefix_mark = std::string(marks) + member.location + ":" + prefix;
}

delete_names::delete_names(const delete_member &member) {
  unclear = member.location + ":" + member.key + (member.whole_prefix ? "/" : "");
  deletion = member.location + (member.whole_prefix ? ":r:" : ":o:") + member.key;
  claim = std::string(claims) + (member.whole_prefix ? deletion : unclear);
  mark = std::string(marks) + member.location + ":" + member.key;
}
