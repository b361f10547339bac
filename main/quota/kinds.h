// Sets of kinds of media, and walks over them. Internal to the engine.
#ifndef MAIN_QUOTA_KINDS_H
#define MAIN_QUOTA_KINDS_H

#include <spoolcap/kinds.h>
#include "main/account/levels.h"
#include "main/account/media.h"

// A set of kinds, one bit each.
using kind_set = unsigned;

// `kind` is one of the kinds, or QUOTA_ALL_KINDS for all of them.
constexpr kind_set set_of(unsigned kind) {
  return kind == QUOTA_ALL_KINDS ? (1U << QUOTA_ALL_KINDS) - 1 : 1U << kind;
}

// Visits one kind, or all in their order, until a visit gives false; then false.
template <class Visit>
bool for_each_kind(unsigned kind, Visit visit) {
  const bool all = kind == QUOTA_ALL_KINDS;
  for (unsigned one = all ? 0 : kind; one < (all ? kind : kind + 1); ++one) {
    if (!visit(one)) return false;
  }
  return true;
}

#endif
