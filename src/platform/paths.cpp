// Root prefixing for absolute paths.
#include "platform/paths.h"

#include "platform/registry.h"

namespace platform {

Paths::Paths(std::string root) : root_(std::move(root)) {
  while (!root_.empty() && root_.back() == '/') root_.pop_back();
}

std::string Paths::resolve(std::string_view absolute_path) const {
  std::string out = root_;
  out.append(absolute_path);
  return out;
}

std::string resolve(std::string_view absolute_path) { return get<Paths>().resolve(absolute_path); }

}  // namespace platform
