/* What stands around the declarations of every public header: C linkage, and exported from the
 * library, which hides all else. */
#ifndef SPOOLCAP_DECLARATIONS_H
#define SPOOLCAP_DECLARATIONS_H

#ifdef __cplusplus
#define SPOOLCAP_BEGIN_DECLARATIONS \
  extern "C" {                      \
  _Pragma("GCC visibility push(default)")
#define SPOOLCAP_END_DECLARATIONS \
  _Pragma("GCC visibility pop")   \
  }
#else
#define SPOOLCAP_BEGIN_DECLARATIONS _Pragma("GCC visibility push(default)")
#define SPOOLCAP_END_DECLARATIONS _Pragma("GCC visibility pop")
#endif

#endif
