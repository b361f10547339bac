// The connection of a client: one request after the other, each signed, sent and judged.
#ifndef PLATFORM_S3_CONNECTION_H
#define PLATFORM_S3_CONNECTION_H

#include "platform/base/owner.h"
#include "platform/s3/exchange.h"

// The answer with the document that came with it, for calls that read one.
struct s3_reply {
  s3_answer answer;
  std::string body;  // of an answer that did not go to a file
};

// As they are sent with an object.
s3_pairs s3_metadata_headers(const s3_metadata &metadata);

// Lines as libcurl takes them, which borrows them.
class s3_header_lines {
 public:
  void add(std::string line) { lines_.push_back(std::move(line)); }
  bool empty() const { return lines_.empty(); }
  // Borrowed; holds until the next `add`. Not to be called when empty.
  curl_slist *list();

 private:
  std::vector<std::string> lines_;
  std::vector<curl_slist> nodes_;
};

// Belongs to the thread of its client. libcurl keeps the socket open between requests.
class s3_connection {
 public:
  s3_connection(s3_place place, s3_control &control);

  // Runs the request to its end. A request that cannot be signed is `refused` and not sent.
  s3_reply exchange(const s3_request &request);
  const s3_place &place() const { return place_; }

 private:
  // Fills origin_, host_ and base_; false when the place is none.
  bool read_endpoint();
  // All header lines of the request, the signature among them; none when a text cannot be one.
  s3_header_lines signed_headers(const s3_request &request, const std::string &path,
                                 const std::string &query);
  void prepare();
  void set_options(s3_exchange &running, const s3_request &request, const std::string &url,
                   curl_slist *headers);
  // `stopped` tells whether the stop flag ended it, whatever libcurl says of that.
  CURLcode run(s3_exchange &running, bool &stopped);
  // Fills in the answer from status, headers and body.
  void judge(const s3_exchange &running, CURLcode code, s3_answer &answer) const;
  // Adds the headers of the answer that are metadata of the object.
  void read_metadata(std::map<std::string, std::string> &metadata) const;
  // The same when no whole answer came. `unreachable` only if no byte was sent.
  void judge_broken(const s3_exchange &running, CURLcode code, s3_answer &answer) const;

  s3_place place_;
  s3_control &control_;
  s3_signer signer_;
  std::string origin_, host_, base_;    // "https://host:port", "host:port", path of all requests
  char message_[CURL_ERROR_SIZE] = "";  // of libcurl, which may write it until its handle ends
  std::unique_ptr<CURLM, call_to_release<curl_multi_cleanup>> multi_;
  std::unique_ptr<CURL, call_to_release<curl_easy_cleanup>> easy_;
};

#endif
