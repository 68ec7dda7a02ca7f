// The web console's files: the HTML, style sheets and scripts installed
// with the package, served read-only to GET and HEAD.
//
// Requests never reach outside the folder: a path is decoded strictly,
// names beginning with "." (so "." and ".." too) are refused, and files are
// opened relative to the folder with the kernel refusing any step beneath
// it, so a symbolic link that leads out gives 404 like a missing file. Only
// regular files are served. Each file is read once and kept in memory
// until its inode, size or modification time changes; the strong ETag is
// made of those three, so a browser revalidates cheaply (the names are not
// fingerprinted, hence "Cache-Control: no-cache").
//
// Thread-safety: serve() may be called from any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "hubwardend/serve/http_types.h"

namespace hubwardend::serve {

// Where the package installs the console.
inline constexpr char kInstalledWebFolder[] = "/usr/share/hubwardend/web";

// The console's folder: $HUBWARDEN_WEB_DIR when set, else the one installed
// with the running program (../share/hubwardend/web from its folder), else
// kInstalledWebFolder, else web beside the program (a build tree). Shipped
// data, so it is looked for on the machine, never below a sandbox root.
// Returns the first that is a directory, or "" when none is.
std::string find_web_folder();

class StaticFiles {
 public:
  // The largest file served; bigger ones answer 404 (the console's files
  // are a few hundred kilobytes in all).
  static constexpr size_t kMaxFileBytes = 8u << 20;

  // Serves the files under folder. An empty or unusable folder serves
  // nothing: every path answers 404.
  explicit StaticFiles(const std::string& folder);
  ~StaticFiles();
  StaticFiles(const StaticFiles&) = delete;
  StaticFiles& operator=(const StaticFiles&) = delete;

  // True when the folder could be opened.
  bool usable() const { return folder_fd_ >= 0; }

  // The reply for request: 200 with the file ("/" is index.html; the query
  // string is ignored), 304 when If-None-Match names the current ETag, 404
  // for anything not there or not allowed (a path that does not decode
  // included), 405 (with Allow) for a method other than GET and HEAD. A HEAD
  // reply has the headers of the GET reply and no body. Every reply
  // carries the console's security headers.
  HttpResponse serve(const HttpRequest& request);

 private:
  struct Entry {
    ino_t inode = 0;
    off_t size = 0;
    long long mtime_ns = 0;
    std::shared_ptr<const std::string> body;
    std::string etag;
  };

  // The file at relative path, read or taken from memory; nullopt when it
  // is not there or may not be served.
  std::optional<Entry> load(const std::string& relative);

  int folder_fd_ = -1;
  std::mutex mu_;
  std::map<std::string, Entry, std::less<>> cache_;  // guarded by mu_
};

// The relative file a request target names: "index.html" for "/", the
// decoded path without its leading "/" otherwise. Returns nullopt for a
// target that may not name a file: not starting with "/", a bad or
// forbidden escape (%00, %2f, control characters), an empty segment, or a
// segment beginning with ".". The query string and fragment are dropped.
std::optional<std::string> static_path_for_target(std::string_view target);

// The Content-Type for a file name, by its extension.
std::string_view content_type_for(std::string_view name);

}  // namespace hubwardend::serve
