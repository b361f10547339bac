// Digests, and how they are written.
#ifndef PLATFORM_S3_DIGEST_H
#define PLATFORM_S3_DIGEST_H

#include <openssl/evp.h>

#include <string>
#include <string_view>

#include "platform/base/owner.h"
#include "platform/s3/client.h"

std::string s3_md5(std::string_view bytes);     // 16 bytes
std::string s3_sha256(std::string_view bytes);  // 32 bytes

// An MD5 of bytes that come piece by piece.
class s3_running_md5 {
 public:
  s3_running_md5();  // throws bad_alloc, as `add` does not
  void add(std::string_view bytes);
  std::string end();  // 16 bytes; nothing may be added afterwards

 private:
  std::unique_ptr<EVP_MD_CTX, call_to_release<EVP_MD_CTX_free>> context_;
};

// Standard alphabet, with padding, without line ends.
std::string s3_base64(std::string_view bytes);

// The value of a hexadecimal digit, -1 for anything else.
int s3_hex_value(char digit);
// The bytes of hexadecimal text; empty when it is none.
std::string s3_unhex(std::string_view text);

#endif
