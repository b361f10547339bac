// Folded mail headers of encoded words.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <string>
#include <vector>

#include "base/owner.h"
#include "zarn_str.h"

namespace {

using std::string;

string encode(const string &name, const string &charset, const string &text, const char *address) {
  const c_string header(
      zarn_base64_encode_email_header(name.c_str(), charset.c_str(), text.c_str(), address));
  return header ? header.get() : "(null)";
}

// The bytes in each encoded word of a header.
std::vector<string> words_of(const string &header) {
  std::vector<string> words;
  for (size_t at = header.find("?B?"); at != string::npos; at = header.find("?B?", at)) {
    at += 3;
    const string code = header.substr(at, header.find("?=\n", at) - at);
    string bytes(code.size() / 4 * 3, '\0');
    EVP_DecodeBlock(reinterpret_cast<unsigned char *>(bytes.data()),
                    reinterpret_cast<const unsigned char *>(code.data()),
                    static_cast<int>(code.size()));
    const size_t padding = code.size() - std::min(code.size(), code.find('='));
    words.push_back(bytes.substr(0, bytes.size() - padding));
  }
  return words;
}

string joined(const std::vector<string> &words) {
  string all;
  for (const string &word : words) all += word;
  return all;
}

size_t longest_line(const string &header) {
  size_t longest = 0;
  for (size_t start = 0; start < header.size();) {
    const size_t end = std::min(header.find('\n', start), header.size());
    longest = std::max(longest, end - start);
    start = end + 1;
  }
  return longest;
}

TEST(MailHeader, LaysOutShortTextsAndAddresses) {
  const string a70(70, 'a');
  const string a71(71, 'a');
  const string a73(73, 'a');
  const struct {
    string text;
    const char *address;
    string expected;
  } rows[] = {
      {"hi", nullptr, "N: =?UTF-8?B?aGk=?=\n"},
      {"hi", "a@b", "N: =?UTF-8?B?aGk=?=\n <a@b>\n"},
      {"", "a@b", "N:  <a@b>\n"},
      {"", "", "N:  <>\n"},
      {"", nullptr, "N: "},
      {"", a70.c_str(), "N:  <" + a70 + ">\n"},
      {"", a71.c_str(), "N:   <" + a71 + ">\n"},
      {"", a73.c_str(), "N:   <" + a73 + ">\n"},
      {"hi", a70.c_str(), "N: =?UTF-8?B?aGk=?=\n  <" + a70 + ">\n"},
      {"hi", a73.c_str(), "N: =?UTF-8?B?aGk=?=\n  <" + a73 + ">\n"},
  };
  for (const auto &row : rows) EXPECT_EQ(row.expected, encode("N", "UTF-8", row.text, row.address));
}

TEST(MailHeader, BudgetsEachWordByTheRoomLeftOnItsLine) {
  const string text(200, 't');
  const string header = encode("Subject", "UTF-8", text, nullptr);
  std::vector<size_t> sizes;
  for (const string &word : words_of(header)) sizes.push_back(word.size());
  EXPECT_EQ((std::vector<size_t>{42, 48, 48, 48, 14}), sizes);
  EXPECT_EQ(text, joined(words_of(header)));
  EXPECT_EQ(0U, header.find("Subject: =?UTF-8?B?"));
  EXPECT_EQ(77U, longest_line(header));
  for (size_t end = header.find('\n'); end + 1 < header.size(); end = header.find('\n', end + 1)) {
    EXPECT_EQ("?=\n =?UTF-8?B?", header.substr(end - 2, 14));
  }
}

TEST(MailHeader, TextWithoutRoomBesideALongNameBeginsOnTheNextLine) {
  const string name(61, 'N');  // leaves 3 columns
  EXPECT_EQ(name + ": =?UTF-8?B?\?=\n =?UTF-8?B?aGk=?=\n", encode(name, "UTF-8", "hi", nullptr));
  const string shorter(60, 'N');
  EXPECT_EQ(shorter + ": =?UTF-8?B?aGk=?=\n", encode(shorter, "UTF-8", "hi", nullptr));
}

TEST(MailHeader, NeverSplitsACharacterBetweenWords) {
  for (const string character : {"\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x93\x9e"}) {
    for (size_t shift = 0; shift < 4; ++shift) {
      string text(shift, 'x');
      for (int i = 0; i < 60; ++i) text += character;
      const std::vector<string> words = words_of(encode("Subject", "UTF-8", text, nullptr));
      EXPECT_EQ(text, joined(words));
      size_t length = shift;
      for (const string &word : words) {
        EXPECT_EQ(0U, (word.size() - length) % character.size()) << character << shift;
        length = 0;
      }
    }
  }
}

void expect_complete(const string &name, const string &charset, const string &text,
                     const string &address) {
  const string header = encode(name, charset, text, address.c_str());
  EXPECT_EQ(text, joined(words_of(header))) << header;
  EXPECT_TRUE(header.starts_with(name + ": =?" + charset + "?B?")) << header;
  const string close = " <" + address + ">\n";
  EXPECT_TRUE(header.ends_with("?=\n" + close) || header.ends_with("?=\n " + close)) << header;
  if (name.size() + charset.size() <= 60 && address.size() <= 72) {
    EXPECT_LE(longest_line(header), 78U) << header;
  }
}

TEST(MailHeader, EndsAndLosesNothingWhateverItIsGiven) {
  const string texts[] = {"a",
                          "\xf0\x9f\x93\x9e",
                          string(300, 'x'),
                          "cut short \xf0\x9f",
                          "\x80\xbf\xff continuation",
                          string(100, '\xf0'),
                          "\xe2" + string(90, 'y')};
  for (const size_t name : {0U, 1U, 40U, 59U, 60U, 65U, 76U, 80U, 500U}) {
    for (const size_t charset : {1U, 5U, 60U, 66U, 67U, 70U, 75U, 90U, 400U}) {
      for (const size_t address : {1U, 60U, 72U, 73U, 400U}) {
        for (const string &text : texts) {
          expect_complete(string(name, 'N'), string(charset, 'C'), text, string(address, '@'));
        }
      }
    }
  }
}

TEST(MailHeader, NeedsNameCharsetAndText) {
  EXPECT_EQ(nullptr, zarn_base64_encode_email_header(nullptr, "C", "t", nullptr));
  EXPECT_EQ(nullptr, zarn_base64_encode_email_header("N", nullptr, "t", nullptr));
  EXPECT_EQ(nullptr, zarn_base64_encode_email_header("N", "C", nullptr, nullptr));
}

}  // namespace
