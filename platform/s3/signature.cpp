// Signs requests with AWS Signature Version 4.
// In memory only; the time comes from the caller.
#include "platform/s3/signature.h"

#include <algorithm>

#include "platform/s3/digest.h"

namespace {

constexpr std::string_view algorithm = "AWS4-HMAC-SHA256";

// By its definition: the library's own call looks its algorithms up anew each time.
std::string hmac(std::string_view key, std::string_view text) {
  constexpr size_t block = 64;
  std::string inner = key.size() > block ? s3_sha256(key) : std::string(key);
  inner.resize(block, '\0');
  std::string outer = inner;
  for (char &byte : inner) byte ^= 0x36;
  for (char &byte : outer) byte ^= 0x5c;
  return s3_sha256(outer.append(s3_sha256(inner.append(text))));
}

// Not by isalnum: a locale of the process must not change what is signed.
bool stays(char byte) {
  return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
         (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' || byte == '_' || byte == '~';
}

// Digits in upper case, and "%20" for a blank: the store encodes by the same rules.
std::string encoded(std::string_view text, bool slash_stays) {
  constexpr char digits[] = "0123456789ABCDEF";
  std::string result;
  result.reserve(text.size() + 16);
  for (const char byte : text) {
    if (stays(byte) || (slash_stays && byte == '/')) {
      result += byte;
      continue;
    }
    const auto value = static_cast<unsigned char>(byte);
    result += '%';
    result += digits[value >> 4];
    result += digits[value & 15];
  }
  return result;
}

// A header's value without the blanks around it, and with one blank where several stood.
void append_folded(std::string &to, std::string_view value) {
  if (value.find_first_of(" \t") == value.npos) {
    to += value;
    return;
  }
  const size_t start = to.size();
  bool gap = false;
  for (const char byte : value) {
    if (byte == ' ' || byte == '\t') {
      gap = to.size() > start;
      continue;
    }
    if (gap) to += ' ';
    gap = false;
    to += byte;
  }
}

}  // namespace

std::string s3_path_text(std::string_view path) {
  return encoded(path, true);
}

std::string s3_query_text(std::string_view text) {
  return encoded(text, false);
}

std::string s3_query(s3_pairs parameters) {
  for (auto &[name, value] : parameters) {
    name = s3_query_text(name);
    value = s3_query_text(value);
  }
  // Sorted after encoding: the order is that of the encoded bytes.
  std::sort(parameters.begin(), parameters.end());
  std::string query;
  for (const auto &[name, value] : parameters) {
    if (!query.empty()) query += '&';
    query.append(name).append("=").append(value);
  }
  return query;
}

std::string s3_timestamp(std::time_t when) {
  std::tm parts{};
  ::gmtime_r(&when, &parts);
  char text[sizeof "20130524T000000Z"];
  return {text, std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts)};
}

s3_signer::s3_signer(s3_credentials credentials, std::string region, std::string service)
    : credentials_(std::move(credentials)),
      region_(std::move(region)),
      service_(std::move(service)) {}

// Four HMACs make the key of a day; it is kept, since each request needs it.
const std::string &s3_signer::key_of(std::string_view day) {
  if (day_ != day) {
    day_ = day;
    key_ = hmac(hmac(hmac(hmac("AWS4" + credentials_.secret_key, day), region_), service_),
                "aws4_request");
  }
  return key_;
}

std::string s3_signer::authorization(s3_unsigned &request, std::string_view timestamp) {
  std::sort(request.headers.begin(), request.headers.end());
  std::string names;
  // The canonical request: method, path, query, headers, their names, digest of the body. One line
  // each, with an empty line behind the headers.
  std::string canonical(request.method);
  canonical.reserve(1024);
  canonical.append("\n").append(request.path).append("\n").append(request.query).append("\n");
  for (const auto &[name, value] : request.headers) {
    if (!names.empty()) names += ';';
    names += name;
    canonical.append(name).append(":");
    append_folded(canonical, value);
    canonical += '\n';
  }
  canonical.append("\n").append(names).append("\n").append(request.payload);

  const std::string_view day = timestamp.substr(0, 8);
  // The scope ties the signature to day, region and service, so it holds nowhere else.
  std::string scope(day);
  scope.append("/").append(region_).append("/").append(service_).append("/aws4_request");
  std::string to_sign(algorithm);
  to_sign.append("\n").append(timestamp).append("\n").append(scope).append("\n");
  to_sign += s3_hex(s3_sha256(canonical));

  std::string result(algorithm);
  result.append(" Credential=").append(credentials_.access_key).append("/").append(scope);
  result.append(", SignedHeaders=").append(names);
  return result.append(", Signature=").append(s3_hex(hmac(key_of(day), to_sign)));
}
