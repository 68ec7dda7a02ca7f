// Error names: the fixed identifiers ("CANNOT_MALLOC_ERR", ...) by which
// operations report failure. A null ErrorName means success. Callers compare
// error names by text, never by pointer.
#pragma once

#include <cstring>

using ErrorName = const char*;

inline bool same_error(ErrorName a, ErrorName b) {
  if (!a || !b) return a == b;
  return std::strcmp(a, b) == 0;
}
