// The diagnostics that all modules share, one line at the call site.
//
// The build gives each module its name, QX_LOG_SOURCE ("../main/zarn_user"); the texts below carry
// that name, and the line and function of the place they stand in.
#ifndef PLATFORM_BASE_DIAGNOSTICS_H
#define PLATFORM_BASE_DIAGNOSTICS_H

#include <spoolcap/log.h>

// A place in the code, handed to shared routines that log in their caller's name.
struct call_site {
  const char *source;
  const char *function;
  int line;
};

// Where it stands: a macro, because a function would tell of itself.
#define QX_HERE (call_site{QX_LOG_SOURCE, __func__, __LINE__})

// Logs at a priority of FR_LOG_*, in the name of `site`.
#define QX_LOG_AT(site, priority, ...) \
  fr_log_impl((site).source, (site).line, (site).function, FR_LOG_MESSAGE, (priority), __VA_ARGS__)

// The same in the name of the place where it stands. Format and arguments are those of printf.
#define QX_LOG(priority, ...) QX_LOG_AT(QX_HERE, priority, __VA_ARGS__)

// A failed precondition: something that must be there is not.
inline void log_condition_failed(const call_site &site) noexcept {
  QX_LOG_AT(site, FR_LOG_DEBUG, "%s:%d:condition failed\n", site.source, site.line);
}

// An early return that is no fault of this code, traced on the channel of its own.
inline void log_conditional_return(const call_site &site) noexcept {
  fr_log_impl(site.source, site.line, site.function, FR_LOG_TRACE, FR_LOG_DEBUG,
              "%s:%d:conditional return", site.source, site.line);
}

#endif
