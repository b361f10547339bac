// The owner of a command line that popt takes apart. For programs, which link popt themselves.
#ifndef COMMON_POPT_CONTEXT_H
#define COMMON_POPT_CONTEXT_H

#include <popt.h>

#include <memory>

#include "platform/base/owner.h"

using popt_context = std::unique_ptr<poptContext_s, call_to_release<poptFreeContext>>;

#endif
