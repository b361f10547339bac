// Answers of a store that no real one can be made to give.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <thread>

#include "tests/support/object_store.h"
#include "tests/support/scripted_server.h"

namespace {

using std::string;
using support::http_answer;
using support::scripted_server;
using enum s3_outcome;
using namespace std::chrono_literals;

const string md5_of_hello = "5d41402abc4b2a76b9719d911017c592";

s3_place place_at(const string &endpoint) {
  return {.endpoint = endpoint,
          .region = "eu-1",
          .bucket = "bucket",
          .prefix = "p/",
          .credentials = support::store_credentials()};
}

using operation = std::function<s3_answer(s3_client &)>;

s3_answer put(s3_client &client) {
  return client.put("key", support::stored_bytes("hello").body());
}
s3_answer get(s3_client &client) {
  return client.get("key", support::stored_bytes("").body().fd);
}
s3_answer get_rest(s3_client &client) {
  return client.get("key", support::stored_bytes("hel").body().fd, 3, md5_of_hello);
}
s3_answer list(s3_client &client) {
  return client.list("vm/", "token").answer;
}
s3_answer complete(s3_client &client) {
  return client.complete("key", "id", {{1, md5_of_hello, 5}});
}

string error(const string &code, const string &more = "") {
  return "<?xml version=\"1.0\"?><Error><Code>" + code + "</Code>" + more + "</Error>";
}
string page(const string &content) {
  return http_answer("200 OK", "", "<ListBucketResult>" + content + "</ListBucketResult>");
}
string object(const string &key) {
  return "<Contents><Key>" + key + "</Key><Size>5</Size></Contents>";
}

struct answer_row {
  string answer;
  operation call;
  s3_outcome outcome;
  const char *text;
};

void expect_outcomes(const std::vector<answer_row> &rows) {
  for (const answer_row &one : rows) {
    const scripted_server server(one.answer, scripted_server::then::closes);
    s3_control control;
    s3_client client(place_at(server.endpoint()), control);
    const s3_answer answer = one.call(client);
    SCOPED_TRACE(one.answer.substr(0, 200));
    EXPECT_EQ(answer.outcome, one.outcome) << answer.text;
    EXPECT_NE(answer.text.find(one.text), string::npos) << answer.text;
  }
}

TEST(S3Answers, HaveAnOutcomeAndATextThatSaysWhatToDo) {
  expect_outcomes({
      {http_answer("200 OK", "ETag: \"" + md5_of_hello + "\"\r\n"), put, done, ""},
      {http_answer("200 OK", "ETag: \"0" + md5_of_hello + "\"\r\n"), put, damaged, "checksum"},
      {http_answer("200 OK"), put, damaged, "checksum"},
      {http_answer("503 Slow", "", error("SlowDown")), put, busy, "503 SlowDown"},
      {http_answer("502 Bad", "", "<html>no XML"), put, busy, "502"},
      {http_answer("429 Many"), put, busy, "429"},
      {http_answer("400 Bad", "", error("BadDigest")), put, damaged, "BadDigest"},
      {http_answer("400 Bad", "", error("RequestTimeout")), put, busy, "RequestTimeout"},
      {http_answer("412 Failed", "", error("PreconditionFailed")), put, changed, "412"},
      {http_answer("403 No", "Date: Fri, 24 May 2013 00:00:00 GMT\r\n",
                   error("RequestTimeTooSkewed")),
       put, refused, "ahead of the store's: set the time here"},
      {http_answer("400 Bad", "", error("AuthorizationHeaderMalformed", "<Region>eu-2</Region>")),
       put, refused, "the bucket is in region \"eu-2\", not \"eu-1\""},
      {http_answer("301 Moved", "x-amz-bucket-region: eu-3\r\n", error("PermanentRedirect")), put,
       refused, "region \"eu-3\""},
      {http_answer("403 No", "", error("Odd\n\x01 code", "<Message>a\nb</Message>")), put, refused,
       "a b (403 Odd   code)"},
      {"nonsense\r\n\r\n", put, unclear, ""},
      {"", put, unclear, ""},
      {http_answer("200 OK", "", "hello"), get, done, ""},
      {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhello", get, unclear, ""},
      {"HTTP/1.1 200 OK\r\n\r\nhello", get, damaged, "length"},
      {http_answer("404 No", "", "<html>"), get, not_found, "404"},
      {http_answer("206 Partial", "Content-Range: bytes 3-4/5\r\n", "lo"), get_rest, done, ""},
      {http_answer("206 Partial", "Content-Range: bytes 0-1/5\r\n", "he"), get_rest, damaged,
       "another range"},
      {http_answer("200 OK", "", "hello"), get_rest, done, ""},
      {http_answer("416 Range", "Content-Range: bytes */3\r\n"), get_rest, done, ""},
      {http_answer("416 Range", "Content-Range: bytes */2\r\n"), get_rest, changed, "416"},
      {http_answer("404 No", "", "<html>"), [](s3_client &client) { return client.remove("key"); },
       not_found, "404"},
      {http_answer("404 No", "", error("NoSuchKey")),
       [](s3_client &client) { return client.remove("key"); }, done, ""},
  });
}

TEST(S3Answers, ToListingsAndCompletionsAreReadStrictly) {
  expect_outcomes({
      {page(object("p/vm/1")), list, done, ""},
      {page(object("q/vm/1")), list, damaged, "listing"},
      {page(object("p/fax/1")), list, damaged, "listing"},
      {page("<IsTruncated>true</IsTruncated>"), list, damaged, "listing"},
      {page("<IsTruncated>true</IsTruncated><NextContinuationToken>token"
            "</NextContinuationToken>"),
       list, damaged, "listing"},
      {http_answer("200 OK", "", "<ListBucketResult><Contents>"), list, damaged, "listing"},
      {http_answer("200 OK", "", string(9 << 20, ' ')), list, damaged, "too long"},
      {http_answer("200 OK", "", " \n" + error("InternalError")), complete, busy, "InternalError"},
      {http_answer("200 OK", "", error("Unheard")), complete, busy, "Unheard"},
      {http_answer("200 OK", "",
                   "<CompleteMultipartUploadResult><ETag>\"x-1\"</ETag>"
                   "</CompleteMultipartUploadResult>"),
       complete, damaged, "checksum"},
  });
}

TEST(S3Answers, TellHowLongToWaitAndWhenAnObjectWasWrittenOnlyIfTheyKnow) {
  s3_control control;
  const scripted_server busy_store(http_answer("503 Slow", "Retry-After: 7\r\n"));
  s3_client waiting(place_at(busy_store.endpoint()), control);
  EXPECT_EQ(waiting.head("key").retry_after, 7s);
  const scripted_server listing(page(object("p/vm/1") +
                                     "<Contents><Key>p/vm/2</Key><LastModified>"
                                     "1970-01-01T00:01:00.5Z</LastModified></Contents>"));
  s3_client client(place_at(listing.endpoint()), control);
  const auto objects = client.list("vm/").objects;
  ASSERT_EQ(objects.size(), 2);
  EXPECT_TRUE(std::isinf(objects[0].modified));
  EXPECT_EQ(objects[1].modified, 60.5);
}

TEST(S3Connection, IsKeptBetweenCalls) {
  const scripted_server server(http_answer("200 OK", "ETag: \"" + md5_of_hello + "\"\r\n"));
  s3_control control;
  s3_client client(place_at(server.endpoint()), control);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(put(client));
  EXPECT_EQ(server.connections(), 1);
}

TEST(S3Connection, EndsACallThatStallsOrIsStopped) {
  const scripted_server server("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhello");
  s3_control control;
  s3_client client(place_at(server.endpoint()), control);
  control.stall_timeout = 1s;
  EXPECT_EQ(get(client).outcome, unclear);
  control.stall_timeout = 60s;
  control.trickle_window = 1s;
  EXPECT_EQ(get(client).outcome, unclear);
  control.trickle_window = 60s;
  std::thread stopper([&control] {
    std::this_thread::sleep_for(100ms);
    control.stop = true;
  });
  s3_answer answer;
  const double seconds = support::seconds_of([&] { answer = get(client); });
  stopper.join();
  EXPECT_EQ(answer.outcome, stopped);
  EXPECT_LT(seconds, 30);
  const scripted_server late([](std::string_view) {
    std::this_thread::sleep_for(1500ms);
    return http_answer("503 Slow");
  });
  s3_control patient{.stall_timeout = 1s};
  s3_client waiting(place_at(late.endpoint()), patient);
  EXPECT_EQ(complete(waiting).outcome, busy) << "what is much work takes its time";
}

TEST(S3Connection, KeepsToTheRateThatAllClientsShare) {
  const scripted_server server(http_answer("200 OK"));
  s3_control control;
  control.bytes_per_second = 1 << 20;
  s3_client client(place_at(server.endpoint()), control);
  const support::stored_bytes body(string(512 << 10, 'x'));
  EXPECT_GT(support::seconds_of([&] { client.put("key", body.body()); }), 0.3);
  EXPECT_EQ(control.sent, 512 << 10);
}

TEST(S3Connection, KnowsWhatNeverReachedAStore) {
  s3_control control;
  int port = 0;
  const unique_fd silent = support::bound_to_loopback(port);
  s3_client nobody(place_at("http://127.0.0.1:" + std::to_string(port)), control);
  EXPECT_EQ(put(nobody).outcome, unreachable);
  for (const char *endpoint : {"", "ftp://host", "http://", "http://user@host", "http://h?q"}) {
    s3_client client(place_at(endpoint), control);
    EXPECT_EQ(put(client).outcome, refused) << endpoint;
  }
  const scripted_server server(http_answer("200 OK"));
  s3_client client(place_at(server.endpoint()), control);
  const support::stored_bytes body("hello");
  EXPECT_EQ(client.put("key", body.body(), {{"a", "b\r\nx: y"}}).outcome, refused);
  s3_body short_file = body.body();
  short_file.length = 6;
  const s3_answer answer = client.put("key", short_file);
  EXPECT_EQ(answer.outcome, local_error);
  EXPECT_EQ(answer.error, EIO);
}

}  // namespace
