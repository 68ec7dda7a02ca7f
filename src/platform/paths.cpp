// Root prefixing and the prefix table for absolute paths.
#include "platform/paths.h"

#include <algorithm>
#include <optional>

#include "platform/registry.h"

namespace platform {

namespace {

// The canonical spelling of an absolute path: components joined by single
// slashes, no trailing slash ("/" for the root). nullopt when the path is
// relative or has a "." or ".." component, since a table entry spelled so
// could step out of the folder it names.
std::optional<std::string> canonical(std::string_view path, std::string* why) {
  if (path.empty() || path.front() != '/') {
    *why = "\"" + std::string(path) + "\" is not an absolute path";
    return std::nullopt;
  }
  std::string out;
  size_t i = 0;
  while (i < path.size()) {
    size_t end = path.find('/', i);
    if (end == std::string_view::npos) end = path.size();
    std::string_view component = path.substr(i, end - i);
    if (component == "." || component == "..") {
      *why = "\"" + std::string(path) + "\" has a \"" + std::string(component) + "\" component";
      return std::nullopt;
    }
    if (!component.empty()) {
      out += '/';
      out += component;
    }
    i = end + 1;
  }
  if (out.empty()) out = "/";
  return out;
}

// True when path is prefix itself or lies below it. Both canonical.
bool is_under(std::string_view path, std::string_view prefix) {
  if (prefix == "/") return true;
  if (path.size() < prefix.size() || path.substr(0, prefix.size()) != prefix) return false;
  return path.size() == prefix.size() || path[prefix.size()] == '/';
}

}  // namespace

bool PathMap::set(std::string_view prefix, std::string_view target, std::string* why) {
  std::optional<std::string> from = canonical(prefix, why);
  if (!from) return false;
  std::optional<std::string> to = canonical(target, why);
  if (!to) return false;
  if (*from == "/") {
    *why = "the root folder cannot be mapped";
    return false;
  }
  if (is_under(*to, *from)) {
    *why = "\"" + *from + "\" maps into itself (\"" + *to + "\")";
    return false;
  }
  erase(*from);
  // Longest first, so that map() can stop at the first match.
  auto at = std::find_if(entries_.begin(), entries_.end(),
                         [&](const auto& entry) { return entry.first.size() < from->size(); });
  entries_.emplace(at, std::move(*from), std::move(*to));
  return true;
}

void PathMap::erase(std::string_view prefix) {
  std::string why;
  std::optional<std::string> key = canonical(prefix, &why);
  if (!key) return;
  std::erase_if(entries_, [&](const auto& entry) { return entry.first == *key; });
}

std::string PathMap::map(std::string_view absolute_path) const {
  for (const auto& [prefix, target] : entries_) {
    if (!is_under(absolute_path, prefix)) continue;
    std::string out = target == "/" ? std::string() : target;
    out.append(absolute_path.substr(prefix.size()));
    if (out.empty()) out = "/";
    return out;
  }
  return std::string(absolute_path);
}

Paths::Paths(std::string root) : Paths(std::move(root), PathMap()) {}

Paths::Paths(std::string root, PathMap prefixes)
    : root_(std::move(root)), prefixes_(std::make_shared<const PathMap>(std::move(prefixes))) {
  while (!root_.empty() && root_.back() == '/') root_.pop_back();
}

std::shared_ptr<const PathMap> Paths::current_prefixes() const {
  std::lock_guard<std::mutex> lock(mu_);
  return prefixes_;
}

void Paths::replace_prefixes(PathMap prefixes) {
  auto replacement = std::make_shared<const PathMap>(std::move(prefixes));
  std::lock_guard<std::mutex> lock(mu_);
  prefixes_.swap(replacement);
}

std::string Paths::resolve(std::string_view absolute_path) const {
  std::shared_ptr<const PathMap> prefixes = current_prefixes();
  std::string out = root_;
  if (prefixes->empty())
    out.append(absolute_path);
  else
    out.append(prefixes->map(absolute_path));
  return out;
}

std::string resolve(std::string_view absolute_path) { return get<Paths>().resolve(absolute_path); }

}  // namespace platform
