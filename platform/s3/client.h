// Client of an object store that speaks the S3 protocol: one connection, kept open between calls.
//
// A client belongs to one thread. Every request is signed (AWS Signature Version 4); every body
// that is sent carries its Content-MD5 and its SHA-256, and every answer is compared with what was
// sent. Nothing is retried here: the caller decides, by the outcome.
#ifndef PLATFORM_S3_CLIENT_H
#define PLATFORM_S3_CLIENT_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/s3/digest.h"
#include "platform/s3/types.h"

class s3_connection;

// A place that is none (a bad URL, no bucket) makes every call `refused`, with the reason.
class s3_client {
 public:
  // `control` must live longer than the client.
  s3_client(s3_place place, s3_control &control);
  s3_client(const s3_client &) = delete;
  s3_client &operator=(const s3_client &) = delete;
  ~s3_client();

  // Objects. `put` is done only when the ETag of the answer is the MD5 of the body.
  s3_answer put(std::string_view key, const s3_body &body, const s3_metadata &metadata = {});
  // Length, ETag and metadata without the object; `damaged` when the store reports no length.
  s3_answer head(std::string_view key);
  // Appends the object from byte `from` on to `fd`, which is positioned there by pwrite; `length`
  // of the answer is that of the whole object. With `if_match`, only the object with this ETag. The
  // caller compares digests. An answer that breaks off is `unclear`: go on from what is there, with
  // the ETag of that answer. A store that answers with the whole object has it written from byte 0
  // on. When nothing is left behind `from`, the outcome is done or `changed`, as the store tells
  // the length or not.
  s3_answer get(std::string_view key, int fd, std::int64_t from = 0,
                const std::string &if_match = "");
  s3_answer remove(std::string_view key);                   // an absent object is done
  s3_removal remove(const std::vector<std::string> &keys);  // at most 1,000
  // One page of keys below `prefix`, from `token` on, which is the `next` of the page before.
  s3_listing list(std::string_view prefix, const std::string &token = "", int most = 1000);

  // Objects in parts, numbered from 1; all but the last have at least 5 MiB. In a whole object of N
  // parts the ETag is "<md5 of the parts' md5s>-N".
  // `upload_id` is set when the answer is done. Parts that are never completed cost the bucket's
  // owner money until they are aborted.
  s3_answer begin_parts(std::string_view key, const s3_metadata &metadata, std::string &upload_id);
  s3_answer put_part(std::string_view key, const std::string &upload_id, int number,
                     const s3_body &body);
  // All parts that the store has of an upload, however many requests that takes.
  s3_part_listing parts(std::string_view key, const std::string &upload_id);
  // Parts in rising order of their numbers. Done only when the ETag is that of these parts.
  s3_answer complete(std::string_view key, const std::string &upload_id,
                     const std::vector<s3_part> &parts);
  // Removes the parts that arrived; `not_found` when the upload has ended already.
  s3_answer abort(std::string_view key, const std::string &upload_id);
  // Of all objects below the prefix; at most 20 requests.
  s3_upload_listing uploads(std::string_view prefix);

 private:
  std::unique_ptr<s3_connection> connection_;
};

#endif
