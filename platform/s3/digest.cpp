// Digests of parts of files.
// Reads files by position, so that several threads may share a descriptor.
#include "platform/s3/digest.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <vector>

namespace {

unsigned char *bytes_of(std::string &text) {
  return reinterpret_cast<unsigned char *>(text.data());
}

// Looked up once: a call of EVP_sha256 is looked up anew by each digest.
const EVP_MD *algorithm(const char *name) {
  const EVP_MD *found = EVP_MD_fetch(nullptr, name, nullptr);
  if (found == nullptr) throw std::runtime_error(std::string("no digest ") + name);
  return found;
}
const EVP_MD *md5() {
  static const EVP_MD *const kind = algorithm("MD5");
  return kind;
}
const EVP_MD *sha256() {
  static const EVP_MD *const kind = algorithm("SHA256");
  return kind;
}

// Short memory throws, as everywhere inside; errno is kept for trouble with the file.
digest_owner new_digest() {
  digest_owner digest(EVP_MD_CTX_new());
  if (!digest) throw std::bad_alloc();
  return digest;
}

void begin_digest(const digest_owner &digest, const EVP_MD *kind) {
  if (EVP_DigestInit_ex2(digest.get(), kind, nullptr) != 1) throw std::bad_alloc();
}

std::string end_digest(const digest_owner &digest) {
  std::string result(EVP_MAX_MD_SIZE, '\0');
  unsigned length = 0;
  EVP_DigestFinal_ex(digest.get(), bytes_of(result), &length);
  result.resize(length);
  return result;
}

std::string digest_of(std::string_view bytes, const EVP_MD *kind) {
  // A signature takes several digests; one context for each thread spares making them anew.
  thread_local const digest_owner digest = new_digest();
  begin_digest(digest, kind);
  EVP_DigestUpdate(digest.get(), bytes.data(), bytes.size());
  return end_digest(digest);
}

}  // namespace

bool s3_digest(s3_body &body, const std::atomic<bool> *stop, s3_digests wanted) {
  // 128 KiB: large enough to make few calls, small enough to stay in the processor's cache.
  constexpr std::int64_t at_once = 128 << 10;
  const bool with_md5 = wanted != s3_digests::sha256, with_sha256 = wanted != s3_digests::md5;
  const digest_owner md5_of = new_digest(), sha256_of = new_digest();
  begin_digest(md5_of, md5());
  begin_digest(sha256_of, sha256());
  std::vector<char> buffer(static_cast<size_t>(std::min(body.length, at_once)));
  for (std::int64_t done = 0; done < body.length;) {
    if (stop != nullptr && *stop) {
      // The caller tells a stop from a bad disk by this.
      errno = ECANCELED;
      return false;
    }
    const auto most = static_cast<size_t>(std::min(body.length - done, std::ssize(buffer)));
    const ssize_t read = ::pread(body.fd, buffer.data(), most, body.offset + done);
    if (read < 0) return false;
    if (read == 0) {
      // The file is shorter than it was when its length was taken.
      errno = EIO;
      return false;
    }
    const auto length = static_cast<size_t>(read);
    if (with_md5) EVP_DigestUpdate(md5_of.get(), buffer.data(), length);
    if (with_sha256) EVP_DigestUpdate(sha256_of.get(), buffer.data(), length);
    done += read;
  }
  if (with_md5) body.md5 = end_digest(md5_of);
  if (with_sha256) body.sha256 = end_digest(sha256_of);
  return true;
}

s3_running_md5::s3_running_md5() : context_(new_digest()) {
  begin_digest(context_, md5());
}

void s3_running_md5::add(std::string_view bytes) {
  EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
}

std::string s3_running_md5::end() {
  return end_digest(context_);
}

std::string s3_md5(std::string_view bytes) {
  return digest_of(bytes, md5());
}

std::string s3_sha256(std::string_view bytes) {
  return digest_of(bytes, sha256());
}

std::string s3_hex(std::string_view bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string text(2 * bytes.size(), '\0');
  for (size_t i = 0; i < bytes.size(); ++i) {
    const auto value = static_cast<unsigned char>(bytes[i]);
    text[2 * i] = digits[value >> 4];
    text[2 * i + 1] = digits[value & 15];
  }
  return text;
}

int s3_hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

std::string s3_unhex(std::string_view text) {
  std::string bytes;
  if (text.size() % 2 != 0) return bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    const int high = s3_hex_value(text[i]), low = s3_hex_value(text[i + 1]);
    if (high < 0 || low < 0) return "";
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

std::string s3_unquoted(std::string_view text) {
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
    text = text.substr(1, text.size() - 2);
  }
  return std::string(text);
}
