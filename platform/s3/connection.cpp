// One kept-alive connection over libcurl, and the limits of time and rate.
// The only place that sends: signs, runs, and hands the answer to answer.cpp.
#include "platform/s3/connection.h"

#include <algorithm>
#include <cstring>
#include <ctime>

#include "platform/base/str.h"
#include "platform/s3/answer.h"
#include "platform/s3/digest.h"

namespace {

using url_owner = std::unique_ptr<CURLU, call_to_release<curl_url_cleanup>>;
using curl_text = std::unique_ptr<char, call_to_release<curl_free>>;

// Bytes. Above it the request asks with "Expect: 100-continue" before it sends its body.
constexpr std::int64_t send_unasked = 1 << 20;

std::string part_of(CURLU *url, CURLUPart part) {
  char *text = nullptr;
  if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return "";
  return curl_text(text).get();
}

// Of the empty body that most requests have.
const std::string &digest_of_nothing() {
  static const std::string digest = s3_hex(s3_sha256(""));
  return digest;
}

// A line break in a header's value would begin another header.
bool can_be_headers(const s3_pairs &headers) {
  return std::all_of(headers.begin(), headers.end(), [](const auto &header) {
    const auto &[name, value] = header;
    const auto control = [](char byte) { return static_cast<unsigned char>(byte) < ' '; };
    return !name.empty() && std::none_of(name.begin(), name.end(), control) &&
           name.find(':') == name.npos && std::none_of(value.begin(), value.end(), control);
  });
}

}  // namespace

s3_pairs s3_metadata_headers(const s3_metadata &metadata) {
  s3_pairs headers;
  for (const auto &[name, value] : metadata) headers.emplace_back("x-amz-meta-" + name, value);
  return headers;
}

// libcurl's list is built over the lines themselves, so that nothing has to be freed. It holds
// until the next change of the lines.
curl_slist *s3_header_lines::list() {
  nodes_.resize(lines_.size());
  for (size_t i = 0; i < lines_.size(); ++i) {
    nodes_[i] = {lines_[i].data(), i + 1 < lines_.size() ? &nodes_[i + 1] : nullptr};
  }
  return nodes_.data();
}

s3_connection::s3_connection(s3_place place, s3_control &control)
    : place_(std::move(place)), control_(control), signer_(place_.credentials, place_.region) {
  // A place that cannot be used leaves both handles empty; `exchange` then says so.
  static const CURLcode ready = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (ready != CURLE_OK || !read_endpoint()) return;
  multi_.reset(curl_multi_init());
  easy_.reset(curl_easy_init());
  if (!multi_ || !easy_) return;
  curl_multi_setopt(multi_.get(), CURLMOPT_MAXCONNECTS, 1L);
  prepare();
}

bool s3_connection::read_endpoint() {
  const url_owner url(curl_url());
  if (!url || curl_url_set(url.get(), CURLUPART_URL, place_.endpoint.c_str(), 0) != CURLUE_OK) {
    return false;
  }
  const std::string scheme = part_of(url.get(), CURLUPART_SCHEME);
  const std::string port = part_of(url.get(), CURLUPART_PORT);
  host_ = part_of(url.get(), CURLUPART_HOST);
  base_ = part_of(url.get(), CURLUPART_PATH);
  while (base_.ends_with('/')) base_.pop_back();
  // A user or a query in the endpoint would be signed wrongly or dropped in silence.
  const bool plain = part_of(url.get(), CURLUPART_USER).empty() &&
                     part_of(url.get(), CURLUPART_QUERY).empty() && !host_.empty();
  if (!plain || (scheme != "http" && scheme != "https") || place_.bucket.empty()) return false;
  if (place_.virtual_host) {
    host_ = place_.bucket + "." + host_;
  } else {
    base_ += "/" + s3_path_text(place_.bucket);
  }
  // libcurl leaves a default port out of the header Host, and the signature covers that header.
  if (!port.empty() && port != (scheme == "https" ? "443" : "80")) host_ += ":" + port;
  origin_.append(scheme).append("://").append(host_);
  return true;
}

s3_header_lines s3_connection::signed_headers(const s3_request &request, const std::string &path,
                                              const std::string &query) {
  const std::string timestamp = s3_timestamp(std::time(nullptr));
  s3_unsigned to_sign{request.method, path, query, request.headers, digest_of_nothing()};
  std::string digest;
  if (request.file != nullptr) {
    digest = s3_hex(request.file->sha256);
    to_sign.headers.emplace_back("content-md5", base64(request.file->md5));
  } else if (!request.text.empty()) {
    digest = s3_hex(s3_sha256(request.text));
    to_sign.headers.emplace_back("content-md5", base64(s3_md5(request.text)));
  }
  if (!digest.empty()) to_sign.payload = digest;
  // The store demands that these are signed. Here each header is, but Expect.
  to_sign.headers.emplace_back("host", host_);
  to_sign.headers.emplace_back("x-amz-content-sha256", to_sign.payload);
  to_sign.headers.emplace_back("x-amz-date", timestamp);
  if (const std::string &token = place_.credentials.session_token; !token.empty()) {
    to_sign.headers.emplace_back("x-amz-security-token", token);
  }
  if (!can_be_headers(to_sign.headers)) return {};

  s3_header_lines lines;
  // libcurl takes a header without a value for one to leave out, but for the form with ";".
  for (const auto &[name, value] : to_sign.headers) {
    std::string line = name;
    line.append(value.empty() ? ";" : ": ").append(value);
    lines.add(std::move(line));
  }
  // Asking first costs a turn. It is worth that only for a large body: a refusal
  // in the middle of it loses the connection, and the refusal with it.
  if (request.has_body() && request.length() <= send_unasked) lines.add("expect:");
  lines.add("authorization: " + signer_.authorization(to_sign, timestamp));
  return lines;
}

// What all requests have in common.
void s3_connection::prepare() {
  CURL *handle = easy_.get();
  curl_easy_setopt(handle, CURLOPT_PATH_AS_IS, 1L);  // "." and ".." may be parts of a key
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(handle, CURLOPT_USERAGENT, "spoolcap");
  // No proxy that the environment names: a check by hand and the service would differ.
  curl_easy_setopt(handle, CURLOPT_PROXY, "");
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);  // does not wait for a resolver that hangs
  curl_easy_setopt(handle, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, 64L << 10);
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, message_);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &s3_exchange::take);
  // Without a function to rewind, libcurl cannot send a body a second time by itself.
  curl_easy_setopt(handle, CURLOPT_READFUNCTION, &s3_exchange::give);
  if (!place_.ca_file.empty()) {
    curl_easy_setopt(handle, CURLOPT_CAINFO, place_.ca_file.c_str());
  }
}

void s3_connection::set_options(s3_exchange &running, const s3_request &request,
                                const std::string &url, curl_slist *headers) {
  CURL *handle = easy_.get();
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS,
                   static_cast<long>(control_.connect_timeout.count()));
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &running);
  curl_easy_setopt(handle, CURLOPT_READDATA, &running);
  curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.length()));
  // In this order: the first sets the method back to GET, which the second keeps unless it is HEAD.
  const bool head = std::string_view(request.method) == "HEAD";
  curl_easy_setopt(handle, CURLOPT_UPLOAD, request.has_body() ? 1L : 0L);
  curl_easy_setopt(handle, CURLOPT_NOBODY, head ? 1L : 0L);
  curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, head ? nullptr : request.method);
  message_[0] = '\0';
}

// The multi interface runs a single request here. It returns control every 200 ms, which the plain
// call does not, so that the stop flag and the limits are looked at.
CURLcode s3_connection::run(s3_exchange &running, bool &stopped) {
  CURLM *multi = multi_.get();
  if (curl_multi_add_handle(multi, easy_.get()) != CURLM_OK) return CURLE_FAILED_INIT;
  CURLcode result = CURLE_ABORTED_BY_CALLBACK;
  for (int active = 1;;) {
    if (curl_multi_perform(multi, &active) != CURLM_OK) break;
    if (active == 0) {
      int left = 0;
      if (const CURLMsg *message = curl_multi_info_read(multi, &left)) {
        result = message->data.result;
      }
      break;
    }
    stopped = control_.stop;
    if (stopped) break;
    int ready = 0;
    curl_multi_poll(multi, nullptr, 0, 200, &ready);  // ms: for the stop flag and a stall
    const bool stalls = ready == 0 && running.stalled();
    if (stalls || running.trickles()) {
      result = CURLE_OPERATION_TIMEDOUT;
      running.fault =
          stalls ? "no byte moved for too long" : "the object or the answer comes too slowly";
      break;
    }
  }
  stopped = stopped || (result != CURLE_OK && control_.stop);
  curl_multi_remove_handle(multi, easy_.get());
  return result;
}

s3_reply s3_connection::exchange(const s3_request &request) {
  s3_reply reply;
  s3_answer &answer = reply.answer;
  if (!easy_ || !multi_) {
    answer.outcome = s3_outcome::refused;
    answer.text = "\"" + s3_one_line(place_.endpoint) + "\" and bucket \"" +
                  s3_one_line(place_.bucket) + "\" are no place in an object store";
    return reply;
  }
  std::string path = base_;
  if (!request.of_bucket) path += s3_path_text("/" + place_.prefix + request.key);
  if (path.empty()) path = "/";
  const std::string query = s3_query(request.query);
  s3_header_lines headers = signed_headers(request, path, query);
  if (headers.empty()) {
    answer.outcome = s3_outcome::refused;
    answer.text = "a control character in a key of the store, a token or metadata";
    return reply;
  }
  s3_exchange running(request, control_, easy_.get());
  set_options(running, request, origin_ + path + (query.empty() ? "" : "?" + query),
              headers.list());
  bool stopped = false;
  const CURLcode code = run(running, stopped);
  if (stopped) {
    answer.outcome = s3_outcome::stopped;
    answer.text = "stopped";
  } else {
    judge(running, code, answer);
    if (answer) answer.md5 = running.md5_of_body();
  }
  reply.body = std::move(running.body);
  return reply;
}

void s3_connection::judge(const s3_exchange &running, CURLcode code, s3_answer &answer) const {
  // Also of an object that broke off: it tells of which one the beginning came.
  if (running.status() / 100 == 2) answer.etag = s3_unquoted(running.header("ETag"));
  if (code != CURLE_OK) return judge_broken(running, code, answer);
  answer.status = running.status();
  answer.length = running.object_length();
  if (!running.header("Retry-After").empty()) {
    curl_off_t seconds = 0;
    curl_easy_getinfo(easy_.get(), CURLINFO_RETRY_AFTER, &seconds);
    answer.retry_after = std::chrono::seconds(std::clamp<curl_off_t>(seconds, 0, 3600));
  }
  read_metadata(answer.metadata);
  // Success with a body goes to the judge too: the body may be a document of an error.
  if (answer.status / 100 == 2 && running.body.empty()) {
    answer.outcome = s3_outcome::done;
    return;
  }
  const std::string date(running.header("Date"));
  s3_judge(answer, running.body,
           {.bucket = place_.bucket,
            .region = place_.region,
            .region_of_bucket = running.header("x-amz-bucket-region"),
            .now = std::time(nullptr),
            .store_time = date.empty() ? -1 : curl_getdate(date.c_str(), nullptr)});
}

void s3_connection::read_metadata(std::map<std::string, std::string> &metadata) const {
  constexpr std::string_view marker = "x-amz-meta-";
  for (curl_header *header = nullptr;
       (header = curl_easy_nextheader(easy_.get(), CURLH_HEADER, -1, header)) != nullptr;) {
    if (curl_strnequal(header->name, marker.data(), marker.size()) == 0) continue;
    std::string name = header->name + marker.size();
    for (char &letter : name) {
      if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
    }
    metadata[name] = s3_exchange::value_of(*header);
  }
}

// The transfer ended before its answer did.
void s3_connection::judge_broken(const s3_exchange &running, CURLcode code,
                                 s3_answer &answer) const {
  answer.error = running.error;
  if (answer.error != 0) {
    answer.outcome = s3_outcome::local_error;
    answer.text = std::string("the file here: ") + ::strerrordesc_np(answer.error);
    return;
  }
  long sent = 0;
  curl_easy_getinfo(easy_.get(), CURLINFO_REQUEST_SIZE, &sent);
  answer.outcome = sent == 0 ? s3_outcome::unreachable : s3_outcome::unclear;
  if (code == CURLE_WRITE_ERROR && running.fault != nullptr) {
    answer.outcome = s3_outcome::damaged;
    answer.status = running.status();
  }
  answer.text = running.fault != nullptr ? running.fault
                : message_[0] != '\0'    ? s3_one_line(message_)
                                         : curl_easy_strerror(code);
}
