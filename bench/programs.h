// Whole programs as work to be measured.
#ifndef BENCH_PROGRAMS_H
#define BENCH_PROGRAMS_H

#include <string>
#include <vector>

#include "bench/ratio.h"
#include "tests/support/sandbox.h"

using command = std::vector<std::string>;

// Runs a program to its end, in a sandbox and with its output thrown away; its peak memory in KiB.
// Ends this process when it fails.
long run_silently(const support::sandbox &box, const command &arguments);

// A round of it.
ratio::body running(const support::sandbox &box, const command &arguments);

// A bare program, which takes the arguments that bare_platform names.
command bare(const char *program, const support::sandbox &box);

#endif
