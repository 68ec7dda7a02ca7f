// The process-wide slot through which the module reaches each platform
// service. The host installs one implementation of every family at start
// (Linux implementations in production, fakes in tests) before any request
// or idle pass; afterwards the slots are only read, so lookups are safe from
// any thread. Installing is not thread-safe and must happen before use.
#pragma once

#include <cassert>

namespace platform {

template <typename Service>
Service*& slot() {
  static Service* installed = nullptr;
  return installed;
}

// REQUIRES: an implementation of Service was installed.
template <typename Service>
Service& get() {
  Service* s = slot<Service>();
  assert(s != nullptr && "platform service used before it was installed");
  return *s;
}

template <typename Service>
bool has() {
  return slot<Service>() != nullptr;
}

// Installs impl (not owned; it must outlive every use). Passing nullptr
// uninstalls.
template <typename Service>
void install(Service* impl) {
  slot<Service>() = impl;
}

}  // namespace platform
