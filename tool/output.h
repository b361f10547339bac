// Standard output: how a login is printed, and whether all output was written.
#ifndef TOOL_OUTPUT_H
#define TOOL_OUTPUT_H

// Call first of all. Opens standard descriptors that are closed. Otherwise the first file or
// connection would get their number, and the report with it. At the end of the
// process, output that was not written whole is reported on standard error, with the reason; the
// exit status stays.
void watch_output();

// Whether something could not be written by now; ask right after writing, as the reason is in
// errno. If so, the rest of a report is then of no use.
bool has_lost_output();

// Prints a login as the database has it. On a terminal, which is taken to speak UTF-8, each byte of
// a control character is written as "\xNN": U+0000 to U+001F, U+007F, and U+0080 to U+009F.
void print_login(const char *login);

#endif
