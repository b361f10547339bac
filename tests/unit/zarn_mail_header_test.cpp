// Folded mail headers of encoded words.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <sstream>
#include <string>
#include <vector>

#include <spoolcap/zarn_str.h>
#include "platform/base/owner.h"

namespace {

using std::string;

string encode(const string &name, const string &charset, const string &text, const char *address) {
  return c_string(
             zarn_base64_encode_email_header(name.c_str(), charset.c_str(), text.c_str(), address))
      .get();
}

// What the encoded words of a header hold, and how long its longest line is.
struct reading {
  std::vector<string> words;
  string text;
  size_t longest_line = 0;

  explicit reading(const string &header) {
    std::istringstream lines(header);
    for (string line; std::getline(lines, line);
         longest_line = std::max(longest_line, line.size())) {
      const size_t start = line.find("?B?");
      if (start == string::npos) continue;
      const string code = line.substr(start + 3, line.rfind("?=") - start - 3);
      unsigned char bytes[4096];
      const int length =
          EVP_DecodeBlock(bytes, reinterpret_cast<const unsigned char *>(code.data()),
                          static_cast<int>(code.size()));
      const auto padding = std::count(code.begin(), code.end(), '=');
      text += words.emplace_back(bytes, bytes + length - padding);
    }
  }
};

TEST(MailHeader, LaysOutTextsAndAddresses) {
  const string a70(70, 'a'), a71(71, 'a'), a99(99, 'a'), n60(60, 'N'), n61(61, 'N');
  const struct {
    string name, text;
    const char *address;
    string expected;
  } rows[] = {{"N", "hi", "a@b", "N: =?UTF-8?B?aGk=?=\n  <a@b>\n"},
              {"N", "", "a@b", "N:  <a@b>\n"},
              {"N", "", "", "N:  <>\n"},
              {"N", "", nullptr, ""},
              {"N", "", a70.c_str(), "N:  <" + a70 + ">\n"},
              {"N", "hi", a99.c_str(), "N: =?UTF-8?B?aGk=?=\n  <" + a99 + ">\n"},
              {"N", "", a71.c_str(), "N:   <" + a71 + ">\n"},
              // A name that leaves 3 columns leaves no room for a group of bytes.
              {n60, "hi", nullptr, n60 + ": =?UTF-8?B?aGk=?=\n"},
              {n61, "hi", nullptr, n61 + ": =?UTF-8?B?\?=\n =?UTF-8?B?aGk=?=\n"}};
  for (const auto &row : rows) {
    EXPECT_EQ(row.expected, encode(row.name, "UTF-8", row.text, row.address));
  }
}

TEST(MailHeader, BudgetsEachWordByTheRoomLeftOnItsLine) {
  const reading header(encode("Subject", "UTF-8", string(200, 't'), nullptr));
  std::vector<size_t> sizes;
  for (const string &word : header.words) sizes.push_back(word.size());
  EXPECT_EQ((std::vector<size_t>{42, 48, 48, 48, 14}), sizes);
  EXPECT_EQ(77U, header.longest_line);
  EXPECT_EQ(nullptr, zarn_base64_encode_email_header("N", "C", nullptr, nullptr));
}

void expect_complete(const string &name, const string &charset, const string &text,
                     const string &address) {
  const string header = encode(name, charset, text, address.c_str());
  const reading read(header);
  EXPECT_EQ(text, read.text) << header;
  for (const string &word : read.words) {
    const bool within_character = !word.empty() && (word[0] & 0xc0) == 0x80;
    EXPECT_FALSE(within_character && text[0] != '\x80') << header;
  }
  EXPECT_TRUE(header.starts_with(name + ": =?" + charset + "?B?")) << header;
  EXPECT_TRUE(header.ends_with("?=\n  <" + address + ">\n")) << header;
  const bool fits = name.size() + charset.size() <= 60 && address.size() <= 72;
  EXPECT_LE(read.longest_line, fits ? 78U : header.size()) << header;
}

string repeated(const char *character) {
  string text;
  for (int i = 0; i < 60; ++i) text += character;
  return text;
}

TEST(MailHeader, LosesNothingAndSplitsNoCharacterWhateverItIsGiven) {
  const string texts[] = {repeated("\xc3\xa4"), repeated("\xf0\x9f\x93\x9e"), "cut short \xf0\x9f",
                          "\x80\xbf\xff", repeated("\xe2y")};
  for (const size_t name : {0U, 1U, 2U, 3U, 59U, 60U, 76U, 500U}) {
    for (const size_t charset : {1U, 60U, 66U, 67U, 75U, 400U}) {
      for (const string &text : texts) {
        for (const size_t address : {1U, 72U, 73U, 400U}) {
          expect_complete(string(name, 'N'), string(charset, 'C'), text, string(address, '@'));
        }
      }
    }
  }
}

}  // namespace
