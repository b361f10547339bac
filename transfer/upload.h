// One try of one member of the upload queue.
#ifndef TRANSFER_UPLOAD_H
#define TRANSFER_UPLOAD_H

#include "transfer/job.h"

// On a worker of uploads, for one member. Takes and gives back the claim itself. The references are
// borrowed.
job_result run_upload(const job_context &context, const worker_settings &settings,
                      const queue_entry &entry);

#endif
