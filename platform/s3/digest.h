// Digests, and how they are written.
#ifndef PLATFORM_S3_DIGEST_H
#define PLATFORM_S3_DIGEST_H

#include <openssl/evp.h>

#include <atomic>
#include <string>
#include <string_view>

#include "platform/base/owner.h"
#include "platform/s3/types.h"

// Reads the part and fills in its digests, both unless one is enough. False, with errno, when it
// cannot be read in full (EIO when it ends early).
enum class s3_digests { both, md5, sha256 };
bool s3_digest(s3_body &body, const std::atomic<bool> *stop = nullptr,
               s3_digests wanted = s3_digests::both);

// Lower-case hexadecimal text of bytes.
std::string s3_hex(std::string_view bytes);

std::string s3_md5(std::string_view bytes);     // 16 bytes
std::string s3_sha256(std::string_view bytes);  // 32 bytes

using digest_owner = std::unique_ptr<EVP_MD_CTX, call_to_release<EVP_MD_CTX_free>>;

// An MD5 of bytes that come piece by piece.
class s3_running_md5 {
 public:
  s3_running_md5();  // throws bad_alloc, as `add` does not
  void add(std::string_view bytes);
  std::string end();  // 16 bytes; nothing may be added afterwards

 private:
  digest_owner context_;
};

// The value of a hexadecimal digit, -1 for anything else.
int s3_hex_value(char digit);
// The bytes of hexadecimal text; empty when it is none.
std::string s3_unhex(std::string_view text);

// Without the quotes around it.
std::string s3_unquoted(std::string_view text);

#endif
