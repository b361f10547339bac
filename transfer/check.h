// `--check`: tries all that the service needs.
#ifndef TRANSFER_CHECK_H
#define TRANSFER_CHECK_H

#include "transfer/settings.h"

// Prints one line for each thing: ok, or what is wrong and what to do. 0, or 1 when something is.
int run_check(const service_settings &settings);

#endif
