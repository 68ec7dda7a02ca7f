// Whether the server's Kerberos key table covers some but not all of its
// service types. Listing the table means running a tool, so the listing is
// kept in the module context for as long as the table's modification date
// stays the same.
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string>

#include "platform/paths.h"
#include "platform/registry.h"
#include "platform/tasks.h"
#include "request/operations.h"

namespace hubwarden {

namespace {

constexpr const char* kKlistPath = "/usr/bin/klist";
constexpr const char* kKeytabPath = "/etc/krb5.keytab";

constexpr std::array<const char*, 11> kKerberizedServiceTypes = {
    "host", "smtp", "http", "pop", "imap", "ftp", "filerserver", "vpn", "XMPP", "gridfarm", "ipp"};

// The modification date of path when it is there and not a folder. Whole
// seconds: the context is stored as a property list, whose dates keep no
// fractions, and a date that changed on the way would defeat the cache.
std::optional<double> file_date(const char* path) {
  auto* paths = platform::find<platform::Paths>();
  struct stat st;
  if (!paths || ::stat(paths->resolve(path).c_str(), &st) != 0 || S_ISDIR(st.st_mode)) return std::nullopt;
  return static_cast<double>(st.st_mtim.tv_sec);
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

std::string list_principals() {
  auto* tasks = platform::find<platform::Tasks>();
  if (!tasks) return "";
  platform::TaskResult result = tasks->run(kKlistPath, {"klist", "-k"});
  return result.launched ? result.out : "";
}

}  // namespace

bool has_missing_kerberized_services(Dict* context) {
  if (!file_date(kKlistPath)) return false;
  std::optional<double> keytab_date = file_date(kKeytabPath);
  if (!keytab_date) return false;

  std::optional<std::string> listing;
  const Value* stored_date = context ? context->find("keytab_mod_date") : nullptr;
  const plist::Date* cached_date = stored_date ? stored_date->as_date() : nullptr;
  if (cached_date && cached_date->seconds == *keytab_date) {
    if (const std::string* cached = context->find_string("princsListString")) listing = *cached;
  } else if (context) {
    context->set("keytab_mod_date", plist::Date{*keytab_date});
    context->set("contextDirty", true);
  }
  if (!listing) {
    listing = list_principals();
    if (context) {
      context->set("princsListString", *listing);
      context->set("contextDirty", true);
    }
  }

  // A plain substring test, on purpose: "host" is found inside longer
  // words of the listing too.
  std::string haystack = lower(*listing);
  int found = 0;
  for (const char* type : kKerberizedServiceTypes)
    if (haystack.find(lower(type)) != std::string::npos) ++found;
  return found > 0 && found < static_cast<int>(kKerberizedServiceTypes.size());
}

}  // namespace hubwarden
