// Uploading a large file in parts, several at a time. The id of the upload is kept beside the file.
// So one that was broken off goes on with the parts that the store lacks.
#ifndef TRANSFER_MULTIPART_H
#define TRANSFER_MULTIPART_H

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "transfer/job.h"

// What stands in front of the name of a file that keeps the id of its upload. No key has such a
// name.
inline constexpr const char *parts_prefix = ".parts-";

// "<folder>/.parts-<name>"
std::string parts_record_path(const std::string &path);

// Borrowed for the length of the upload. `score` is that of the member as it was read.
struct multipart_file {
  const upload_member &member;
  const std::string &score;
  const std::string &path;
  int fd;
  std::int64_t length;
};

// Ends an upload in parts that an earlier try began, when there is one.
void forget_parts(transfer_locations::lease &client, const upload_member &member,
                  const std::string &path);

// One try. Made on the worker's stack; up to three more threads help while parts are sent.
class multipart_upload {
 public:
  multipart_upload(const job_context &context, const worker_settings &settings,
                   multipart_file file);

  // Sends the whole file; the answer is that of the last call, or of the first that failed.
  s3_answer send(transfer_locations::lease &client, s3_metadata metadata);
  // Whether the object may appear after a failure.
  bool is_uncertain() const { return uncertain_; }

 private:
  // False when nothing was begun that can go on. True leaves the decision to `answer`.
  bool resume(transfer_locations::lease &client, s3_answer &answer);
  static bool is_over(const s3_answer &answer);
  bool is_stored(transfer_locations::lease &client, s3_answer &answer);
  s3_answer begin(transfer_locations::lease &client, const s3_metadata &metadata);
  // All parts that the store lacks. The answer is done, or the first failure.
  s3_answer send_parts();
  // What each helper does: takes parts until none is left or one failed.
  void send_some();
  // One part, unless the store has it by number, digest and length.
  s3_answer send_part(transfer_locations::lease &client, int number, s3_part &part);
  // The next number; false when all are taken, or one has failed.
  bool take_part(int &number);
  // Keeps the first failure, and ends the handing out of parts.
  void fail(const s3_answer &answer);
  // The lines that say what is uploaded. An old record that differs is of another try.
  std::string record() const;

  const job_context &context_;
  multipart_file file_;
  std::int64_t part_size_;
  // Parts of `part_size_` bytes; the last one may be shorter.
  int count_;
  std::string sha256_;  // of the whole file, hexadecimal
  std::string id_;
  std::vector<s3_part> stored_;  // that the store had before
  std::vector<s3_part> parts_;
  bool uncertain_ = false;

  std::mutex lock_;  // guards all that follows, while parts are sent
  int next_ = 1;
  s3_answer failure_;
  bool has_failed_ = false;
};

#endif
