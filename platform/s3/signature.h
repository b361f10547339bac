// AWS Signature Version 4 for requests with a known body.
//
// Everything that is signed is given in the form in which it is sent: the path and the query are
// encoded here once, and the server finds the same text.
#ifndef PLATFORM_S3_SIGNATURE_H
#define PLATFORM_S3_SIGNATURE_H

#include <ctime>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/s3/types.h"

using s3_pairs = std::vector<std::pair<std::string, std::string>>;

// Percent-encoded: all bytes but letters, digits, "-", ".", "_", "~" and, in a path, "/".
std::string s3_path_text(std::string_view path);
std::string s3_query_text(std::string_view text);

// Names and values, encoded, in the order in which they are signed and sent.
std::string s3_query(s3_pairs parameters);

// "20130524T000000Z".
std::string s3_timestamp(std::time_t when);

// The parts of a request that the signature covers. Views must outlive the call.
struct s3_unsigned {
  std::string_view method;
  std::string_view path;     // encoded, from "/" on
  std::string_view query;    // as s3_query gives it
  s3_pairs headers;          // all that are signed; names in lower case, in any order
  std::string_view payload;  // SHA-256 of the body in hexadecimal
};

// Signs for one pair of keys, region and service. Belongs to one thread: it keeps the key of the
// day.
class s3_signer {
 public:
  // Another service than "s3" is for the test vectors of the signature.
  s3_signer(s3_credentials credentials, std::string region, std::string service = "s3");

  // The value of the header Authorization. Sorts the headers.
  std::string authorization(s3_unsigned &request, std::string_view timestamp);

 private:
  // The signing key of a day ("20130524"), made anew when the day changes.
  const std::string &key_of(std::string_view day);

  s3_credentials credentials_;
  std::string region_, service_;
  std::string day_, key_;
};

#endif
