/* The platform's logger.
 *
 * Every diagnostic of the modules goes through fr_log_impl, formatted and without trailing
 * newlines. It goes to syslog(3), with the program name as ident, LOG_PID and LOG_USER, or to a
 * sink of the host's own. Without a syslog socket a message is not even formatted. All functions
 * may be called from any thread. */
#ifndef SPOOLCAP_LOG_H
#define SPOOLCAP_LOG_H

#include <spoolcap/declarations.h>

SPOOLCAP_BEGIN_DECLARATIONS

/* Channels. */
enum { FR_LOG_TRACE = 2, FR_LOG_MESSAGE = 3 };

/* Priorities are the syslog severities. */
enum { FR_LOG_ERROR = 3, FR_LOG_WARNING = 4, FR_LOG_NOTICE = 5, FR_LOG_DEBUG = 7 };

/* Logs one message. `file`, `line` and `function` name its place; the sink gets them beside the
 * text. errno is unchanged. */
void fr_log_impl(const char *file, int line, const char *function, int channel, int priority,
                 const char *format, ...) __attribute__((format(printf, 6, 7)));

/* What a sink receives; all pointers are borrowed for the call. */
struct fr_log_record {
  const char *file;
  int line;
  const char *function;
  int channel;
  int priority;
  const char *text; /* formatted, without trailing newlines */
};

typedef void (*fr_log_sink)(const struct fr_log_record *record, void *context);

/* Sends everything to `sink` from now on; NULL goes back to syslog. */
void fr_log_set_sink(fr_log_sink sink, void *context);

SPOOLCAP_END_DECLARATIONS

#endif
