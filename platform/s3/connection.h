// The connection of a client: one request after the other, each signed, sent and judged.
#ifndef PLATFORM_S3_CONNECTION_H
#define PLATFORM_S3_CONNECTION_H

#include "platform/base/owner.h"
#include "platform/s3/exchange.h"

struct s3_reply {
  s3_answer answer;
  std::string body;  // of an answer that did not go to a file
};

// As they are sent with an object.
s3_pairs s3_metadata_headers(const s3_metadata &metadata);

class s3_client::connection {
 public:
  connection(s3_place place, s3_control &control);

  s3_reply exchange(const s3_request &request);
  const s3_place &place() const { return place_; }

 private:
  using header_list = std::unique_ptr<curl_slist, call_to_release<curl_slist_free_all>>;

  bool read_endpoint();
  header_list signed_headers(const s3_request &request, const std::string &path,
                             const std::string &query);
  void set_options(s3_exchange &running, const s3_request &request, const std::string &url,
                   const curl_slist *headers);
  CURLcode run(s3_exchange &running, bool &stopped);
  void judge(const s3_exchange &running, CURLcode code, s3_answer &answer) const;
  void judge_broken(const s3_exchange &running, CURLcode code, s3_answer &answer) const;

  s3_place place_;
  s3_control &control_;
  s3_signer signer_;
  std::string origin_, host_, base_;  // "https://host:port", "host:port", path of all requests
  std::unique_ptr<CURLM, call_to_release<curl_multi_cleanup>> multi_;
  std::unique_ptr<CURL, call_to_release<curl_easy_cleanup>> easy_;
};

#endif
