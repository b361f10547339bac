// The object-store client: what signing and framing add to a transfer of the HTTP library.
#include <curl/curl.h>

#include <cstring>
#include <stdexcept>

#include "bench/ratio.h"
#include "platform/s3/digest.h"
#include "tests/support/object_store.h"
#include "tests/support/scripted_server.h"

namespace {

using curl_owner = std::unique_ptr<CURL, call_to_release<curl_easy_cleanup>>;
using list_owner = std::unique_ptr<curl_slist, call_to_release<curl_slist_free_all>>;

struct file_position {
  int fd = -1;
  std::int64_t at = 0;
};

size_t read_file(char *to, size_t size, size_t count, void *data) {
  auto *position = static_cast<file_position *>(data);
  const ssize_t read = ::pread(position->fd, to, size * count, position->at);
  position->at += std::max<ssize_t>(read, 0);
  return read < 0 ? CURL_READFUNC_ABORT : static_cast<size_t>(read);
}

// The same file to the same server with a prepared handle: headers of the same kind, never signed.
class bare_transfer {
 public:
  bare_transfer(const std::string &url, const s3_body &body)
      : handle_(curl_easy_init()), file_{body.fd, 0} {
    const std::string digest(64, 'a');
    for (const std::string &line :
         {std::string("content-md5: kAFQmDzST7DWlj99KOF/cg=="), std::string("expect:"),
          "x-amz-content-sha256: " + digest, std::string("x-amz-date: 20130524T000000Z"),
          "authorization: AWS4-HMAC-SHA256 Credential=spoolcap/20130524/eu-1/s3/aws4_request, "
          "SignedHeaders=content-md5;host;x-amz-content-sha256;x-amz-date, Signature=" +
              digest}) {
      curl_slist *longer = curl_slist_append(headers_.get(), line.c_str());
      static_cast<void>(headers_.release());
      headers_.reset(longer);
    }
    curl_easy_setopt(handle_.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle_.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle_.get(), CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(handle_.get(), CURLOPT_HTTPHEADER, headers_.get());
    curl_easy_setopt(handle_.get(), CURLOPT_READFUNCTION, read_file);
    curl_easy_setopt(handle_.get(), CURLOPT_READDATA, &file_);
    curl_easy_setopt(handle_.get(), CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body.length));
  }

  void run() {
    file_.at = 0;
    if (curl_easy_perform(handle_.get()) != CURLE_OK) throw std::runtime_error("no transfer");
  }

 private:
  curl_owner handle_;
  list_owner headers_;
  file_position file_;
};

}  // namespace

int main(int argc, char **argv) {
  const support::stored_bytes file(std::string(64 << 10, 'x'));
  // A server for each, as it serves one connection. Like any store it looks at what came.
  const auto store = [](std::string_view request) {
    const std::string_view body = request.substr(request.find("\r\n\r\n") + 4);
    return support::http_answer("200 OK", "ETag: \"" + s3_hex(s3_md5(body)) + "\"\r\n");
  };
  const support::scripted_server ours(store), theirs(store);
  s3_control control;
  s3_client client({.endpoint = ours.endpoint(),
                    .region = "eu-1",
                    .bucket = "bucket",
                    .credentials = support::store_credentials()},
                   control);
  bare_transfer bare(theirs.endpoint() + "/bucket/vm/1/2/greeting.wav", file.body());
  ratio::at_most(
      1.10, "signing and framing a PUT of 64 KiB", "the bare transfer of the HTTP library",
      [&](benchmark::State &state) {
        for (auto _ : state) {
          if (!client.put("vm/1/2/greeting.wav", file.body())) throw std::runtime_error("no put");
        }
      },
      [&](benchmark::State &state) {
        for (auto _ : state) bare.run();
      },
      ratio::length::calls_by_processor_time);
  return ratio::run(argc, argv);
}
