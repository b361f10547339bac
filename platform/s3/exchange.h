// One request while it runs: what libcurl takes from here and hands back.
#ifndef PLATFORM_S3_EXCHANGE_H
#define PLATFORM_S3_EXCHANGE_H

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/s3/digest.h"
#include "platform/s3/signature.h"
#include "platform/s3/types.h"

// A request. Borrows the file; all else is its own.
struct s3_request {
  const char *method = "GET";
  std::string key = {};    // without the place's prefix
  bool of_bucket = false;  // asks the bucket, not an object
  s3_pairs query = {};
  s3_pairs headers = {};  // besides those that each request has; names in lower case
  const s3_body *file = nullptr;
  std::string text = {};  // the body, unless it is a file
  int to = -1;            // where the body of a successful answer goes, by pwrite
  std::int64_t from = 0;  // the byte of the object that goes there first

  // PUT and POST have one even when it is empty, which libcurl must know.
  bool has_body() const {
    return file != nullptr || std::string_view(method) == "PUT" ||
           std::string_view(method) == "POST";
  }
  // Bytes of the body, known before it is sent.
  std::int64_t length() const {
    return file != nullptr ? file->length : static_cast<std::int64_t>(text.size());
  }
};

// Lives on the stack of the call that runs it, on the client's thread. Counts into the control,
// which other threads read.
class s3_exchange {
 public:
  s3_exchange(const s3_request &request, s3_control &control, CURL *handle)
      : request_(request), control_(control), handle_(handle) {}
  s3_exchange(const s3_exchange &) = delete;
  s3_exchange &operator=(const s3_exchange &) = delete;

  // For CURLOPT_READFUNCTION and CURLOPT_WRITEFUNCTION, with the exchange as their data.
  static std::size_t give(char *to, std::size_t size, std::size_t count, void *self);
  static std::size_t take(const char *from, std::size_t size, std::size_t count, void *self);

  // Whether no byte has moved for the control's stall timeout, neither here nor in the socket; for
  // four of them while the store may be busy with what it got.
  bool stalled();
  // Whether bytes have moved too slowly for the control's window, or for ten of them while the
  // store makes an answer; waiting for the rate does not count.
  bool trickles();

  // The HTTP status so far; 0 before there is one.
  long status() const;
  // The header of the final answer; empty without it.
  std::string_view header(const char *name) const;
  // Without the blanks and the line's end that libcurl leaves; borrowed.
  static std::string_view value_of(const curl_header &header);
  // Length of the whole object by the answer to a GET; -1 when it does not tell.
  std::int64_t object_length() const;
  // MD5 of a body that went to a file, in hexadecimal, when it began with the object's first byte.
  std::string md5_of_body();

  std::string body;             // of an answer that does not go to a file
  int error = 0;                // errno of the file here, when it ended the transfer
  const char *fault = nullptr;  // what is wrong with the answer, when that did

 private:
  using clock = std::chrono::steady_clock;

  // The two callbacks without libcurl's types. 0 from `take_bytes` ends the transfer.
  std::size_t give_bytes(char *to, std::size_t room);
  std::size_t take_bytes(std::string_view bytes);
  // Writes at the place in the file that comes next; `error` is set when that fails.
  bool write_all(std::string_view bytes);
  // Where the object's first byte goes; false when the store sent another range than was asked for.
  bool find_start();
  // Waits until the rate lets these bytes through; false when the stop flag went up meanwhile.
  bool pace(std::size_t bytes);
  bool may_be_silent() const;
  std::int64_t moved() const;  // bytes both ways, without those that the kernel still has
  int unsent() const;          // bytes that the kernel still has

  const s3_request &request_;
  s3_control &control_;
  CURL *handle_;
  // Bytes of the body that libcurl has taken so far.
  std::int64_t given_ = 0;
  std::int64_t at_ = -1;  // where the next byte goes in the file; -1 before the first came
  // Of what went to the file: taken on the way, as reading it again takes time.
  std::optional<s3_running_md5> digest_;
  // For `stalled`: bytes moved at the last look, and when that number last changed.
  std::int64_t seen_ = -1;
  clock::time_point moved_ = clock::now();
  // For `trickles`: when the present window began.
  clock::time_point window_begin_ = clock::now();
  std::int64_t window_bytes_ = 0;  // that had moved at its begin
};

#endif
