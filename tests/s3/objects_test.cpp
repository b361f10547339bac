// Objects of a real store: what goes there comes back.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/faulty_proxy.h"
#include "tests/support/object_store.h"

namespace {

using std::string;
using support::stored_bytes;
using enum s3_outcome;
using strings = std::vector<string>;

constexpr std::int64_t part_size = 5 << 20;  // the least that a store takes

// Bytes that differ from place to place.
string bytes(std::int64_t length) {
  string content(static_cast<size_t>(length), '\0');
  unsigned state = 1;
  for (char &byte : content) byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
  return content;
}

class Store : public testing::Test {
 protected:
  strings listed(const string &prefix, int most = 1000) {
    strings keys;
    string token;
    do {
      s3_listing page = client.list(prefix, token, most);
      EXPECT_TRUE(page.answer) << page.answer.text;
      EXPECT_LE(page.objects.size(), static_cast<size_t>(most));
      for (s3_listed &one : page.objects) keys.push_back(std::move(one.key));
      token = page.next;
    } while (!token.empty());
    return keys;
  }
  string content(const string &key) {
    const stored_bytes target("");
    const s3_answer answer = client.get(key, target.body().fd);
    EXPECT_TRUE(answer) << answer.text;
    string got = support::content_of(target.body().fd);
    EXPECT_EQ(answer.length, std::ssize(got));
    return got;
  }

  s3_control control;
  s3_place place = support::new_bucket(support::shared_object_store());
  s3_client client{place, control};
};

TEST_F(Store, GivesBackObjectsOfEachSizeWithTheirMetadata) {
  for (const std::int64_t size : {0L, 1L, part_size - 1, part_size, part_size + 1}) {
    const stored_bytes sent(bytes(size));
    const s3_answer put = client.put("key", sent.body(), {{"queued", "17.5"}, {"node", ""}});
    ASSERT_TRUE(put) << size << ": " << put.text;
    const s3_answer head = client.head("key");
    EXPECT_EQ(head.length, size);
    EXPECT_EQ(head.etag, s3_hex(sent.body().md5));
    EXPECT_EQ(head.metadata, (std::map<string, string>{{"queued", "17.5"}, {"node", ""}}));
    EXPECT_EQ(content("key"), bytes(size));
  }
}

TEST_F(Store, GivesBackTheRestOfTheSameObjectOnly) {
  const stored_bytes sent("hello"), begun("hel");
  ASSERT_TRUE(client.put("key", sent.body()));
  const string etag = s3_hex(sent.body().md5);
  const s3_answer rest = client.get("key", begun.body().fd, 3, etag);
  EXPECT_TRUE(rest) << rest.text;
  EXPECT_EQ(rest.length, 5);
  EXPECT_EQ(support::content_of(begun.body().fd), "hello");
  EXPECT_EQ(client.get("key", begun.body().fd, 3, string(32, '0')).outcome, changed);
  EXPECT_EQ(client.get("key", begun.body().fd, 5, etag).outcome, changed);
}

TEST_F(Store, TakesEachByteThatANameMayHave) {
  strings keys = {"a//b", "a/../b", "./a", "a/.", "%2F%2f", "\u00e4\u20ac\U0001f600", "a+b c", "~"};
  for (int byte = ' '; byte < 0x7f; ++byte) {
    if (byte != ':') keys.push_back(string("vm/") + static_cast<char>(byte) + "/x");
  }
  for (const string &key : keys) {
    const s3_answer answer = client.put(key, stored_bytes(key).body());
    ASSERT_TRUE(answer) << key << ": " << answer.text;
    EXPECT_EQ(content(key), key);
  }
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(listed("", 10), keys);
  EXPECT_EQ(listed("vm/&"), strings{"vm/&/x"});
  const s3_removal removal = client.remove(keys);
  EXPECT_TRUE(removal.answer) << removal.answer.text;
  EXPECT_TRUE(removal.failed.empty());
  EXPECT_EQ(listed(""), strings{});
}

TEST_F(Store, RemovesOneObjectOrAThousandThereOrNot) {
  strings keys;
  for (int i = 0; i < 1000; ++i) keys.push_back("vm/1/" + std::to_string(i));
  const stored_bytes sent("x");
  for (int i = 0; i < 1000; i += 100) ASSERT_TRUE(client.put(keys[size_t(i)], sent.body()));
  EXPECT_TRUE(client.remove(keys[0]));
  EXPECT_TRUE(client.remove(keys[0]));
  EXPECT_EQ(client.head(keys[0]).outcome, not_found);
  EXPECT_EQ(listed("vm/").size(), 9);
  const s3_removal removal = client.remove(keys);
  EXPECT_TRUE(removal.answer) << removal.answer.text;
  EXPECT_TRUE(removal.failed.empty());
  EXPECT_EQ(listed("vm/"), strings{});
}

TEST_F(Store, KeepsThePrefixOfAPlaceToItself) {
  ASSERT_TRUE(client.put("ab", stored_bytes("x").body()));
  place.prefix = "a/";
  s3_client below(place, control);
  ASSERT_TRUE(below.put("b", stored_bytes("y").body()));
  EXPECT_EQ(below.list("").objects.at(0).key, "b");
  EXPECT_EQ(content("a/b"), "y");
}

TEST_F(Store, SendsAnObjectInPartsAndGoesOnWithThoseThatAreThere) {
  const string whole = bytes(part_size + 1);
  const stored_bytes file(whole);
  const s3_body first = file.part(0, part_size), last = file.part(part_size, 1);
  string id;
  ASSERT_TRUE(client.begin_parts("key", {{"node", "n"}}, id));
  ASSERT_TRUE(client.put_part("key", id, 1, first));

  s3_client later(place, control);
  const s3_upload_listing uploads = later.uploads("k");
  ASSERT_EQ(uploads.uploads.size(), 1) << uploads.answer.text;
  EXPECT_EQ(uploads.uploads[0].key, "key");
  EXPECT_EQ(uploads.uploads[0].id, id);
  s3_part_listing known = later.parts("key", id);
  ASSERT_EQ(known.parts.size(), 1) << known.answer.text;
  EXPECT_EQ(known.parts[0].etag, s3_hex(first.md5));
  EXPECT_EQ(known.parts[0].length, part_size);
  const s3_answer second = later.put_part("key", id, 2, last);
  ASSERT_TRUE(second) << second.text;
  known.parts.push_back({.number = 2, .etag = second.etag, .length = 1});
  const s3_answer complete = later.complete("key", id, known.parts);
  EXPECT_TRUE(complete) << complete.text;
  EXPECT_EQ(later.head("key").etag, complete.etag);
  EXPECT_EQ(later.head("key").metadata.at("node"), "n");
  EXPECT_EQ(content("key"), whole);
  // A second try, when the answer to the first was lost.
  EXPECT_TRUE(later.complete("key", id, known.parts));
}

TEST_F(Store, ForgetsPartsThatAreGivenUp) {
  string id;
  ASSERT_TRUE(client.begin_parts("key", {}, id));
  EXPECT_FALSE(client.complete("key", id, {{1, string(32, 'a'), 1}}));
  EXPECT_TRUE(client.abort("key", id));
  EXPECT_EQ(client.abort("key", id).outcome, not_found);
  EXPECT_EQ(client.parts("key", id).answer.outcome, not_found);
  EXPECT_TRUE(client.uploads("").uploads.empty());
  for (int i = 0; i < 1001; ++i) {
    ASSERT_TRUE(client.begin_parts("key" + std::to_string(i / 2), {}, id));
  }
  EXPECT_EQ(client.uploads("").uploads.size(), 1001U) << "on several pages";
}

TEST_F(Store, NamesWhatIsWrongWithAPlace) {
  const struct {
    string bucket, key, secret, code, text;
    s3_outcome outcome;
  } cases[] = {
      {"no-such-bucket", place.credentials.access_key, place.credentials.secret_key, "NoSuchBucket",
       "there is no bucket \"no-such-bucket\"", not_found},
      {place.bucket, "nobody", "x", "InvalidAccessKeyId", "correct aws_access_key_id", refused},
      {place.bucket, place.credentials.access_key, "x", "SignatureDoesNotMatch",
       "correct aws_secret_access_key", refused},
  };
  for (const auto &one : cases) {
    place.bucket = one.bucket;
    place.credentials = {.access_key = one.key, .secret_key = one.secret, .session_token = {}};
    s3_client stranger(place, control);
    const s3_answer answer = stranger.put("key", stored_bytes("x").body());
    EXPECT_EQ(answer.outcome, one.outcome) << answer.text;
    EXPECT_EQ(answer.code, one.code);
    EXPECT_NE(answer.text.find(one.text), string::npos) << answer.text;
  }
}

TEST_F(Store, FindsABucketInTheNameOfTheHost) {
  place.endpoint.replace(place.endpoint.find("127.0.0.1"), 9, "s3.localhost");
  place.virtual_host = true;
  s3_client by_name(place, control);
  const s3_answer put = by_name.put("a b", stored_bytes("x").body());
  ASSERT_TRUE(put) << put.text;
  EXPECT_EQ(content("a b"), "x");
}

// What a caller does: it goes on until the store has the file.
TEST_F(Store, HasEachObjectAfterEnoughTriesThroughAFaultyProxy) {
  const support::faulty_proxy proxy(place.endpoint);
  control.stall_timeout = std::chrono::seconds(1);
  s3_place behind = place;
  behind.endpoint = proxy.endpoint();
  s3_client retrying(behind, control);
  int refused_ones = 0;
  for (int i = 0; i < 50; ++i) {
    const stored_bytes sent(bytes(i * 1000));
    s3_answer answer;
    while (!(answer = retrying.put(std::to_string(i), sent.body()))) {
      EXPECT_TRUE(answer.outcome == busy || answer.outcome == unclear) << answer.text;
      ASSERT_LT(++refused_ones, 200) << answer.text;
    }
  }
  EXPECT_GT(refused_ones, 0);
  control.stall_timeout = std::chrono::seconds(30);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(content(std::to_string(i)), bytes(i * 1000));
}

}  // namespace
