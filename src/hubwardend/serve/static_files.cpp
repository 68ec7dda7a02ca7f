#include "hubwardend/serve/static_files.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <utility>

#include "hubwardend/serve/console_headers.h"

namespace hubwardend::serve {
namespace {

bool is_directory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string program_directory() {
  char buf[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "";
  std::string exe(buf, static_cast<size_t>(n));
  size_t slash = exe.rfind('/');
  return slash == std::string::npos ? "" : exe.substr(0, slash);
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Opens relative beneath the folder. The kernel refuses ".." and symbolic
// links that leave the folder, and magic links of /proc, with EXDEV or
// ELOOP; an older kernel without openat2 gets a check of the real path.
int open_beneath(int folder_fd, const std::string& relative) {
  struct open_how how = {};
  how.flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  int fd = static_cast<int>(::syscall(SYS_openat2, folder_fd, relative.c_str(), &how, sizeof how));
  if (fd >= 0 || errno != ENOSYS) return fd;

  char folder_link[64], folder_real[PATH_MAX], file_real[PATH_MAX];
  std::snprintf(folder_link, sizeof folder_link, "/proc/self/fd/%d", folder_fd);
  if (!::realpath(folder_link, folder_real)) return -1;
  std::string path = std::string(folder_real) + "/" + relative;
  if (!::realpath(path.c_str(), file_real)) return -1;
  std::string prefix = std::string(folder_real) + "/";
  if (std::string_view(file_real).substr(0, prefix.size()) != prefix) {
    errno = EXDEV;
    return -1;
  }
  return ::open(file_real, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW);
}

bool read_all(int fd, size_t size, std::string* out) {
  out->resize(size);
  size_t done = 0;
  while (done < size) {
    ssize_t n = ::pread(fd, out->data() + done, size - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;  // shrank while read: the caller answers 404 and the next request retries
    done += static_cast<size_t>(n);
  }
  return true;
}

// Whether an If-None-Match value names etag. The weak comparison applies
// (a "W/" prefix is ignored), as revalidation allows.
bool none_match_hits(std::string_view header, std::string_view etag) {
  size_t pos = 0;
  while (pos < header.size()) {
    size_t comma = header.find(',', pos);
    std::string_view item = header.substr(pos, comma == std::string_view::npos ? std::string_view::npos : comma - pos);
    while (!item.empty() && (item.front() == ' ' || item.front() == '\t')) item.remove_prefix(1);
    while (!item.empty() && (item.back() == ' ' || item.back() == '\t')) item.remove_suffix(1);
    if (item == "*") return true;
    if (item.substr(0, 2) == "W/") item.remove_prefix(2);
    if (item == etag) return true;
    if (comma == std::string_view::npos) break;
    pos = comma + 1;
  }
  return false;
}

HttpResponse plain(int status, const char* text) {
  HttpResponse r;
  r.status = status;
  r.content_type = "text/plain; charset=utf-8";
  r.body = std::string(text) + "\n";
  add_console_headers(&r);
  return r;
}

}  // namespace

std::string find_web_folder() {
  if (const char* env = ::getenv("HUBWARDEN_WEB_DIR"); env && *env) return is_directory(env) ? env : "";
  std::string dir = program_directory();
  if (!dir.empty() && is_directory(dir + "/../share/hubwardend/web")) return dir + "/../share/hubwardend/web";
  if (is_directory(kInstalledWebFolder)) return kInstalledWebFolder;
  if (!dir.empty() && is_directory(dir + "/web")) return dir + "/web";
  return "";
}

std::optional<std::string> static_path_for_target(std::string_view target) {
  target = target.substr(0, target.find_first_of("?#"));
  if (target.empty() || target.front() != '/') return std::nullopt;
  if (target == "/") return "index.html";
  std::string path;
  path.reserve(target.size());
  for (size_t i = 1; i < target.size(); ++i) {
    char c = target[i];
    if (c == '%') {
      int high = i + 2 < target.size() ? hex_value(target[i + 1]) : -1;
      int low = high >= 0 ? hex_value(target[i + 2]) : -1;
      if (low < 0) return std::nullopt;
      c = static_cast<char>(high * 16 + low);
      // An escaped separator would let a name smuggle a path step past the
      // segment checks below.
      if (c == '/' || c == '\\') return std::nullopt;
      i += 2;
    }
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return std::nullopt;
    path.push_back(c);
  }
  size_t start = 0;
  while (start <= path.size()) {
    size_t slash = path.find('/', start);
    std::string_view segment(path.data() + start, (slash == std::string::npos ? path.size() : slash) - start);
    if (segment.empty() || segment.front() == '.') return std::nullopt;
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
  return path;
}

std::string_view content_type_for(std::string_view name) {
  size_t slash = name.rfind('/');
  std::string_view base = slash == std::string_view::npos ? name : name.substr(slash + 1);
  size_t dot = base.rfind('.');
  std::string_view ext = dot == std::string_view::npos ? "" : base.substr(dot + 1);
  if (ext == "html") return "text/html; charset=utf-8";
  if (ext == "js" || ext == "mjs") return "text/javascript; charset=utf-8";
  if (ext == "css") return "text/css; charset=utf-8";
  if (ext == "svg") return "image/svg+xml";
  if (ext == "png") return "image/png";
  if (ext == "ico") return "image/vnd.microsoft.icon";
  if (ext == "json") return "application/json";
  if (ext == "txt") return "text/plain; charset=utf-8";
  return "application/octet-stream";
}

StaticFiles::StaticFiles(const std::string& folder) {
  if (!folder.empty()) folder_fd_ = ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

StaticFiles::~StaticFiles() {
  if (folder_fd_ >= 0) ::close(folder_fd_);
}

std::optional<StaticFiles::Entry> StaticFiles::load(const std::string& relative) {
  if (folder_fd_ < 0) return std::nullopt;
  int fd = open_beneath(folder_fd_, relative);
  if (fd < 0) return std::nullopt;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) > kMaxFileBytes) {
    ::close(fd);
    return std::nullopt;
  }
  long long mtime_ns = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = cache_.find(relative);
    if (it != cache_.end() && it->second.inode == st.st_ino && it->second.size == st.st_size &&
        it->second.mtime_ns == mtime_ns) {
      ::close(fd);
      return it->second;
    }
  }
  auto body = std::make_shared<std::string>();
  bool ok = read_all(fd, static_cast<size_t>(st.st_size), body.get());
  ::close(fd);
  if (!ok) return std::nullopt;
  Entry entry;
  entry.inode = st.st_ino;
  entry.size = st.st_size;
  entry.mtime_ns = mtime_ns;
  entry.body = std::move(body);
  char etag[80];
  std::snprintf(etag, sizeof etag, "\"%llx-%llx-%llx\"", static_cast<unsigned long long>(st.st_ino),
                static_cast<unsigned long long>(st.st_size), static_cast<unsigned long long>(mtime_ns));
  entry.etag = etag;
  std::lock_guard<std::mutex> lock(mu_);
  cache_[relative] = entry;
  return entry;
}

HttpResponse StaticFiles::serve(const HttpRequest& request) {
  const bool head = request.method == "HEAD";
  if (request.method != "GET" && !head) {
    HttpResponse r = plain(405, "use GET");
    r.headers.emplace_back("Allow", "GET, HEAD");
    return r;
  }
  std::optional<std::string> relative = static_path_for_target(request.target);
  std::optional<Entry> entry = relative ? load(*relative) : std::nullopt;
  if (!entry) return plain(404, "no such file");

  HttpResponse r;
  r.headers.emplace_back("ETag", entry->etag);
  r.headers.emplace_back("Cache-Control", "no-cache");
  add_console_headers(&r);
  if (!request.if_none_match.empty() && none_match_hits(request.if_none_match, entry->etag)) {
    r.status = 304;
    return r;
  }
  r.status = 200;
  r.content_type = std::string(content_type_for(*relative));
  if (!head) r.body = *entry->body;
  return r;
}

}  // namespace hubwardend::serve
