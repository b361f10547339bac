// Digests, and how they are written.
#ifndef PLATFORM_S3_DIGEST_H
#define PLATFORM_S3_DIGEST_H

#include <string>
#include <string_view>

#include "platform/s3/client.h"

std::string s3_md5(std::string_view bytes);     // 16 bytes
std::string s3_sha256(std::string_view bytes);  // 32 bytes

// Standard alphabet, with padding, without line ends.
std::string s3_base64(std::string_view bytes);

// The value of a hexadecimal digit, -1 for anything else.
int s3_hex_value(char digit);
// The bytes of hexadecimal text; empty when it is none.
std::string s3_unhex(std::string_view text);

#endif
