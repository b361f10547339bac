// The command line.
#ifndef TOOL_OPTIONS_H
#define TOOL_OPTIONS_H

#include <cstdio>

// Fills the run's settings, or ends the process: with 0 after --help, with 1 after telling what is
// wrong with the command line on standard output.
void parse_args(int argc, const char **argv);

void usage(FILE *stream);

#endif
