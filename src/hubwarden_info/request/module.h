// The module class through which the daemon enters hubwarden_info: one
// method for requests, one for idle passes. Both forward their arguments
// unchanged to the free functions that do the work.
#pragma once

#include <optional>

#include "plist/value.h"

namespace hubwarden {

// The dispatcher: the reply dictionary, or nullopt for no reply.
std::optional<plist::Dict> doProcessInput(const plist::Dict& request, plist::Dict* context, int lock_file_fd);
// The idle driver: the pass's result code.
int doProcessArgs(int argc, const char* const argv[], plist::Dict* context, int lock_file_fd);

}  // namespace hubwarden

class hubwarden_info {
 public:
  std::optional<plist::Dict> doProcessInputWithRequest(const plist::Dict& request, plist::Dict* context,
                                                       int lock_file_fd) {
    return hubwarden::doProcessInput(request, context, lock_file_fd);
  }
  int doProcessArgsWithArgc(int argc, const char* const argv[], plist::Dict* context, int lock_file_fd) {
    return hubwarden::doProcessArgs(argc, argv, context, lock_file_fd);
  }
};
