// One try of one member of the delete queue.
#ifndef TRANSFER_REMOVE_H
#define TRANSFER_REMOVE_H

#include "transfer/job.h"

// On a worker of deletions. Takes and gives back the claim itself. The references are borrowed.
job_result run_delete(const job_context &context, const worker_settings &settings,
                      const queue_entry &entry);

#endif
