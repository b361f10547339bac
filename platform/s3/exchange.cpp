// One signed request and its answer.
// Called back by libcurl while connection.cpp runs it; reads or writes one file.
#include "platform/s3/exchange.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <thread>

#include "platform/base/owner.h"

namespace {

// A page of 1,000 objects whose keys are as long as they may be, three letters a byte, is below it.
constexpr std::size_t longest_document = std::size_t{8} << 20;
// Stall timeouts for which a store may be silent while it makes an answer that is much work.
constexpr int silences_of_answer = 4;

// All of the text must be a number: half a length would be worse than none.
std::int64_t number(std::string_view text) {
  std::int64_t value = -1;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
  return failure == std::errc{} && end == text.data() + text.size() && value >= 0 ? value : -1;
}

// "bytes 5-9/10"; the first byte is -1 where the range is "*".
struct content_range {
  explicit content_range(std::string_view text) {
    if (!text.starts_with("bytes ")) return;
    const size_t slash = text.find('/');
    if (slash == text.npos) return;
    const std::string_view range = text.substr(6, slash - 6);
    first = number(range.substr(0, range.find('-')));
    total = number(text.substr(slash + 1));
  }
  std::int64_t first = -1, total = -1;
};

}  // namespace

// libcurl calls both on the thread that runs the request. No exception may pass through it.
std::size_t s3_exchange::give(char *to, std::size_t size, std::size_t count, void *self) {
  return static_cast<s3_exchange *>(self)->give_bytes(to, size * count);
}

std::size_t s3_exchange::take(const char *from, std::size_t size, std::size_t count, void *self) {
  return no_throw(std::size_t{0}, [&] {
    return static_cast<s3_exchange *>(self)->take_bytes({from, size * count});
  });
}

std::size_t s3_exchange::give_bytes(char *to, std::size_t room) {
  const std::int64_t left = request_.length() - given_;
  room = std::min(room, static_cast<std::size_t>(left));
  // Small steps where the rate is low, so that transfers take turns.
  if (const std::int64_t rate = control_.bytes_per_second; rate > 0) {
    room = std::min(room, static_cast<std::size_t>(std::max<std::int64_t>(rate / 10, 1024)));
  }
  if (room == 0) return 0;
  if (!pace(room)) return CURL_READFUNC_ABORT;
  if (request_.file == nullptr) {
    std::memcpy(to, request_.text.data() + given_, room);
  } else {
    const ssize_t read = ::pread(request_.file->fd, to, room, request_.file->offset + given_);
    if (read <= 0) {
      // The file ended early; the length was announced, so the request cannot be finished.
      error = read < 0 ? errno : EIO;
      return CURL_READFUNC_ABORT;
    }
    room = static_cast<std::size_t>(read);
  }
  given_ += static_cast<std::int64_t>(room);
  control_.sent += room;
  return room;
}

std::size_t s3_exchange::take_bytes(std::string_view bytes) {
  if (!pace(bytes.size())) return 0;
  // Error documents go to memory even when a file was wanted: the file takes the object only.
  control_.received += bytes.size();
  const bool to_file = request_.to >= 0 && status() / 100 == 2;
  if (to_file) return find_start() && write_all(bytes) ? bytes.size() : 0;
  if (body.size() + bytes.size() > longest_document) {
    fault = "the answer is too long";
    return 0;
  }
  body.append(bytes);
  return bytes.size();
}

// A store may answer a range with the whole object.
bool s3_exchange::find_start() {
  if (at_ >= 0) return true;
  at_ = status() == 206 ? content_range(header("Content-Range")).first : 0;
  if (at_ == 0) digest_.emplace();
  if (at_ == request_.from || status() != 206) return true;
  fault = "the answer is another range of the object";
  return false;
}

bool s3_exchange::write_all(std::string_view bytes) {
  if (digest_) digest_->add(bytes);
  while (!bytes.empty()) {
    const ssize_t written = ::pwrite(request_.to, bytes.data(), bytes.size(), at_);
    if (written <= 0) {
      error = written < 0 ? errno : ENOSPC;
      return false;
    }
    at_ += written;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// Each transfer books its bytes behind those of all others and waits for its turn.
bool s3_exchange::pace(std::size_t bytes) {
  const std::int64_t rate = control_.bytes_per_second;
  if (rate <= 0) return true;
  constexpr auto slice = std::chrono::milliseconds(100);
  const std::int64_t cost = static_cast<std::int64_t>(bytes) * 1'000'000'000 / rate;
  const clock::time_point begin = clock::now();
  const std::int64_t now = begin.time_since_epoch() / std::chrono::nanoseconds(1);
  std::int64_t booked = control_.booked_until, turn = 0;
  do {
    turn = std::max(booked, now);
  } while (!control_.booked_until.compare_exchange_weak(booked, turn + cost));
  const clock::time_point until{std::chrono::nanoseconds(turn)};
  while (clock::now() < until) {
    if (control_.stop) return false;
    std::this_thread::sleep_for(std::min<clock::duration>(until - clock::now(), slice));
  }
  moved_ = clock::now();
  window_begin_ += moved_ - begin;
  return true;
}

bool s3_exchange::trickles() {
  constexpr std::int64_t least_down = 4096, least_up = 512;  // bytes a second
  constexpr int windows_of_answer = 10;
  // A store may say a byte now and then while it makes an answer.
  const bool sends = given_ < request_.length(), waits = !sends && request_.to < 0;
  const auto now = clock::now();
  if (now - window_begin_ < control_.trickle_window * (waits ? windows_of_answer : 1)) return false;
  const std::int64_t bytes = moved(), least = request_.to < 0 ? least_up : least_down;
  const bool slow = bytes - window_bytes_ < least * control_.trickle_window.count();
  window_begin_ = now;
  window_bytes_ = bytes;
  return slow;
}

bool s3_exchange::stalled() {
  const auto now = clock::now();
  if (const std::int64_t bytes = moved(); bytes != seen_) {
    seen_ = bytes;
    moved_ = now;
  }
  return now - moved_ >= control_.stall_timeout * (may_be_silent() ? silences_of_answer : 1);
}

// Once it has all of a large body, or what names many objects or parts, a store has work to do
// before it can answer.
bool s3_exchange::may_be_silent() const {
  constexpr std::int64_t large = 8 << 20;
  const bool is_work = request_.file != nullptr ? given_ >= large : given_ > 0;
  return is_work && given_ == request_.length() && unsent() == 0;
}

std::int64_t s3_exchange::moved() const {
  curl_off_t up = 0, down = 0;
  curl_easy_getinfo(handle_, CURLINFO_SIZE_UPLOAD_T, &up);
  curl_easy_getinfo(handle_, CURLINFO_SIZE_DOWNLOAD_T, &down);
  return up + down - unsent();
}

// On a slow line the kernel still sends long after it took the last byte from here.
int s3_exchange::unsent() const {
  curl_socket_t socket = CURL_SOCKET_BAD;
  curl_easy_getinfo(handle_, CURLINFO_ACTIVESOCKET, &socket);
  int waiting = 0;
  const bool is_told = socket != CURL_SOCKET_BAD && ::ioctl(socket, SIOCOUTQ, &waiting) == 0;
  return is_told ? waiting : 0;
}

long s3_exchange::status() const {
  long status = 0;
  curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status);
  return status;
}

std::string_view s3_exchange::header(const char *name) const {
  curl_header *found = nullptr;
  const CURLHcode code = curl_easy_header(handle_, name, 0, CURLH_HEADER, -1, &found);
  return code == CURLHE_OK ? value_of(*found) : "";
}

// libcurl leaves the line's end in an empty value.
std::string_view s3_exchange::value_of(const curl_header &header) {
  const std::string_view value = header.value;
  return value.substr(0, value.find_last_not_of("\r\n ") + 1);
}

std::int64_t s3_exchange::object_length() const {
  if (status() == 200) return number(header("Content-Length"));
  return content_range(header("Content-Range")).total;
}

std::string s3_exchange::md5_of_body() {
  return digest_ ? s3_hex(digest_->end()) : "";
}
