// Ends uploads in parts that were begun long ago and are remembered nowhere: a store keeps, and
// charges for, their parts without end.
#ifndef TRANSFER_SWEEP_H
#define TRANSFER_SWEEP_H

#include "transfer/job.h"

// Looks at all locations once. Only uploads of keys as hosts make them are ended.
void sweep_forgotten_parts(const job_context &context, const worker_settings &settings);

#endif
