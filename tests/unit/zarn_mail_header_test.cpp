// Folded mail headers of encoded words.
#include <gtest/gtest.h>

#include <spoolcap/zarn_str.h>
#include "platform/base/owner.h"

namespace {

using std::string;

TEST(MailHeader, LaysOutTextsAndAddresses) {
  const string a70(70, 'a'), a71(71, 'a'), n60(60, 'N'), n61(61, 'N');
  string accents, code;  // 44 bytes fit behind a name of one letter, and no half of a character
  for (int i = 0; i < 23; ++i) accents += "\xc3\xa9";
  for (int i = 0; i < 7; ++i) code += "w6nDqcOp";
  const struct {
    string name;
    const char *text, *address;
    string expected;
  } rows[] = {
      {"N", "hi", "a@b", "N: =?UTF-8?B?aGk=?=\n  <a@b>\n"},
      {"N", "", "a@b", "N:  <a@b>\n"},
      {"N", "", "", "N:  <>\n"},
      {"N", "", nullptr, ""},
      {"N", "", a70.c_str(), "N:  <" + a70 + ">\n"},
      {"N", "", a71.c_str(), "N:   <" + a71 + ">\n"},
      {"N", accents.c_str(), nullptr, "N: =?UTF-8?B?" + code + "w6k=?=\n =?UTF-8?B?w6k=?=\n"},
      // A name that leaves 3 columns leaves no room for a group of bytes.
      {n60, "hi", nullptr, n60 + ": =?UTF-8?B?aGk=?=\n"},
      {n61, "hi", nullptr, n61 + ": =?UTF-8?B?\?=\n =?UTF-8?B?aGk=?=\n"}};
  for (const auto &row : rows) {
    const c_string header(
        zarn_base64_encode_email_header(row.name.c_str(), "UTF-8", row.text, row.address));
    EXPECT_EQ(header.get(), row.expected);
  }
  EXPECT_EQ(zarn_base64_encode_email_header("N", "C", nullptr, nullptr), nullptr);
}

}  // namespace
