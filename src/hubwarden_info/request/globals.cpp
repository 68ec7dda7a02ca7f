// Module-wide objects: the running-under-daemon flag and the per-load
// authentication string.
#include "request/globals.h"

#include <uuid/uuid.h>

#include <mutex>

namespace hubwarden {

std::atomic<bool> gRunningUnderHubwardend{false};

namespace {
std::mutex auth_mutex;
std::optional<std::string> gGetSACLSAuthString;
}  // namespace

std::optional<std::string> auth_string() {
  std::lock_guard<std::mutex> l(auth_mutex);
  return gGetSACLSAuthString;
}

void create_auth_string() {
  std::lock_guard<std::mutex> l(auth_mutex);
  if (gGetSACLSAuthString) return;
  uuid_t id;
  uuid_generate_random(id);
  char text[37];
  uuid_unparse_upper(id, text);
  gGetSACLSAuthString = std::string(text);
}

void reset_auth_string_for_testing() {
  std::lock_guard<std::mutex> l(auth_mutex);
  gGetSACLSAuthString.reset();
}

}  // namespace hubwarden
