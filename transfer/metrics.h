// The figures of the service as Prometheus text, for the textfile collector of node_exporter.
#ifndef TRANSFER_METRICS_H
#define TRANSFER_METRICS_H

#include <string>

#include "transfer/status.h"

// What is not known now, as queues while the DisDB is away, is left out.
std::string metrics_text(const service_report &report);

// Puts the text at the path in one step, readable by all. 0, or the error number.
int write_metrics(const std::string &path, const std::string &text);

#endif
