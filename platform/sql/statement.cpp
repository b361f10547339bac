// Tells by the text of a statement whether a slave may answer it.
// In memory only; the text is not understood any further.
#include "platform/sql/statement.h"

#include <strings.h>

#include <cctype>

#include "platform/base/view.h"

bool is_read_statement(std::string_view text) {
  constexpr std::string_view keyword = "SELECT";
  while (!text.empty() && (is_space(text.front()) || text.front() == '(')) text.remove_prefix(1);
  if (text.size() < keyword.size()) return false;
  if (::strncasecmp(text.data(), keyword.data(), keyword.size()) != 0) return false;
  const char next = text.size() == keyword.size() ? ' ' : text[keyword.size()];
  return std::isalnum(static_cast<unsigned char>(next)) == 0 && next != '_';
}
