// The file that keeps the module context between runs of the host: an XML
// property list with a dictionary at its root. A missing file is an empty
// context (the file is made when the context is stored). A file that does
// not hold a dictionary is moved aside, never overwritten, so whatever it
// held can still be looked at; the context then starts empty.
// Functions are safe from several threads as long as they name different
// files.
#pragma once

#include <string>

#include "plist/value.h"

namespace hubwardend {

struct LoadedContext {
  enum class Status {
    kLoaded,      // the file held a dictionary
    kAbsent,      // no file: empty context
    kCorrupt,     // moved aside to moved_to: empty context
    kUnreadable,  // exists but cannot be read (or moved aside): unusable
  };
  Status status = Status::kAbsent;
  plist::Dict context;
  std::string moved_to;  // kCorrupt: where the old file went
  std::string message;   // kCorrupt, kUnreadable: what was wrong
};

// Reads the context file at path (a real file-system path).
LoadedContext load_context(const std::string& path);

// Replaces the file at path with context, atomically and readable only by
// its owner. False (old file intact) when it cannot be written.
bool store_context(const std::string& path, const plist::Dict& context);

}  // namespace hubwardend
