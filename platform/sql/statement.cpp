#include "statement.h"

#include <strings.h>

#include <cctype>

namespace {

bool is_space(char byte) {
  return std::isspace(static_cast<unsigned char>(byte)) != 0;
}

// Drops everything up to and with the first `end`; all of the text when it is not there.
void skip_past(std::string_view &text, std::string_view end) {
  const size_t at = text.find(end);
  text.remove_prefix(at == text.npos ? text.size() : at + end.size());
}

bool is_executed_comment(std::string_view text) {
  return text.starts_with("/*!") || text.starts_with("/*M!");
}

bool is_dash_comment(std::string_view text) {
  return text.starts_with("--") && (text.size() == 2 || is_space(text[2]));
}

}  // namespace

bool is_read_statement(std::string_view text) {
  constexpr std::string_view keyword = "SELECT";
  while (!text.empty()) {
    if (is_space(text.front()) || text.front() == '(') {
      text.remove_prefix(1);
    } else if (text.front() == '#' || is_dash_comment(text)) {
      skip_past(text, "\n");
    } else if (text.starts_with("/*") && !is_executed_comment(text)) {
      skip_past(text, "*/");
    } else {
      break;
    }
  }
  if (text.size() < keyword.size()) return false;
  if (strncasecmp(text.data(), keyword.data(), keyword.size()) != 0) return false;
  const char next = text.size() == keyword.size() ? ' ' : text[keyword.size()];
  return std::isalnum(static_cast<unsigned char>(next)) == 0 && next != '_';
}
