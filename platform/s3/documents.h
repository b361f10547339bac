// The small documents of the protocol. Readers take any bytes: what is no such document gives
// false, or nothing found, and never more than the bytes hold.
#ifndef PLATFORM_S3_DOCUMENTS_H
#define PLATFORM_S3_DOCUMENTS_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/s3/types.h"

struct s3_error_document {
  std::string code, message, region, endpoint;
};
// False when it is no document of an error.
bool s3_read_error(std::string_view document, s3_error_document &error);

// The text of one element below the root, if the root has this name.
bool s3_read_field(std::string_view document, const char *root, const char *name,
                   std::string &value);

// All keys of a listing must begin with both, one after the other; the place's is taken off.
struct s3_prefixes {
  std::string_view of_place, of_keys;
};
// One page of objects, appended. `next` is its token, empty at the end. False also for a page that
// goes on without a token.
bool s3_read_objects(std::string_view document, const s3_prefixes &prefix,
                     std::vector<s3_listed> &objects, std::string &next);
// One page of uploads, appended; `more` tells whether others follow.
bool s3_read_uploads(std::string_view document, const s3_prefixes &prefix,
                     std::vector<s3_upload> &uploads, bool &more);
// `next` is the number to go on behind; 0 at the end.
bool s3_read_parts(std::string_view document, std::vector<s3_part> &parts, int &next);
// Keys that were absent are not among them.
bool s3_read_failed(std::string_view document, std::string_view prefix,
                    std::vector<s3_failed_key> &failed);

// The list that joins parts to an object; ETags get their quotes back.
std::string s3_complete_document(const std::vector<s3_part> &parts);
// The answer to it names the keys that failed, and no others.
std::string s3_remove_document(std::string_view prefix, const std::vector<std::string> &keys);

#endif
