#include "filerd/server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/filer_wire.h"
#include "platform/socket_path.h"

namespace filerd {
namespace {

bool peer_allowed(int fd) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return false;
  return credentials.uid == 0 || credentials.uid == ::geteuid();
}

const char* wire_status_text(platform::FilerWireStatus status) {
  switch (status) {
    case platform::FilerWireStatus::kOk:
      return "ok";
    case platform::FilerWireStatus::kTimedOut:
      return "timed out";
    case platform::FilerWireStatus::kClosed:
      return "closed";
    case platform::FilerWireStatus::kMalformed:
      return "malformed frame";
    case platform::FilerWireStatus::kTooLarge:
      return "frame too large";
    case platform::FilerWireStatus::kIoError:
      return "socket error";
  }
  return "?";
}

}  // namespace

Server::Server(Controller& controller, LogFn log) : controller_(controller), log_(std::move(log)) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
    stop_read_.reset(fds[0]);
    stop_write_.reset(fds[1]);
  }
}

Server::~Server() {
  if (listener_.valid() && !path_.empty()) ::unlink(path_.c_str());
}

bool Server::listen(const std::string& path, std::string* error) {
  if (!stop_read_.valid()) {
    *error = "cannot make the stop pipe";
    return false;
  }
  std::string folder = path.substr(0, path.find_last_of('/'));
  if (!folder.empty() && ::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
    *error = "cannot make " + folder + ": " + std::strerror(errno);
    return false;
  }
  sockaddr_un address;
  switch (platform::claim_socket_path(path, SOCK_STREAM, &address)) {
    case platform::SocketPathClaim::kFree:
      break;
    case platform::SocketPathClaim::kTooLong:
      *error = "socket path too long: " + path;
      return false;
    case platform::SocketPathClaim::kNotASocket:
      *error = path + " is in the way and is not a socket";
      return false;
    case platform::SocketPathClaim::kInUse:
      *error = "another daemon answers on " + path;
      return false;
  }
  platform::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) {
    *error = std::string("socket: ") + std::strerror(errno);
    return false;
  }
  // Made 0600 from the start: no moment at which others could connect.
  mode_t old_mask = ::umask(0177);
  int bound = ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  int bind_errno = errno;
  ::umask(old_mask);
  if (bound != 0 || ::listen(fd.get(), 16) != 0) {
    *error = "cannot listen on " + path + ": " + std::strerror(bound != 0 ? bind_errno : errno);
    return false;
  }
  ::chmod(path.c_str(), 0600);
  listener_ = std::move(fd);
  path_ = path;
  return true;
}

void Server::stop() {
  char byte = 1;
  // The pipe is never drained: once written it stays readable for every
  // poll that watches it.
  ssize_t ignored = ::write(stop_write_.get(), &byte, 1);
  (void)ignored;
}

void Server::run() {
  pollfd fds[2] = {{listener_.get(), POLLIN, 0}, {stop_read_.get(), POLLIN, 0}};
  while (true) {
    int ready = ::poll(fds, 2, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || (fds[1].revents & POLLIN)) break;
    if (!(fds[0].revents & POLLIN)) continue;
    platform::UniqueFd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.valid()) continue;
    if (!peer_allowed(connection.get())) {
      log_("refused a connection from a user other than root");
      continue;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (connections_ >= kMaxConnections) {
      log_("refused a connection: too many at once");
      continue;
    }
    ++connections_;
    std::thread([this, fd = std::move(connection)]() mutable { serve_connection(std::move(fd)); }).detach();
  }
  std::unique_lock<std::mutex> lock(mutex_);
  idle_.wait(lock, [this] { return connections_ == 0; });
}

void Server::serve_connection(platform::UniqueFd fd) {
  {
    IteratorTable iterators;
    pollfd fds[2] = {{fd.get(), POLLIN, 0}, {stop_read_.get(), POLLIN, 0}};
    while (true) {
      // Idle between requests without a limit; the limit holds from the
      // first byte of a frame.
      int ready = ::poll(fds, 2, -1);
      if (ready < 0 && errno == EINTR) continue;
      if (ready < 0 || (fds[1].revents & POLLIN)) break;
      platform::FilerMessage request;
      platform::FilerWireStatus status = platform::receive_filer_message(fd.get(), &request);
      if (status != platform::FilerWireStatus::kOk) {
        if (status != platform::FilerWireStatus::kClosed)
          log_(std::string("dropped a connection: ") + wire_status_text(status));
        break;
      }
      platform::FilerMessage reply = controller_.handle(request, iterators);
      status = platform::send_filer_message(fd.get(), reply);
      if (status != platform::FilerWireStatus::kOk) {
        log_(std::string("reply not sent: ") + wire_status_text(status));
        break;
      }
    }
    fd.reset();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  --connections_;
  idle_.notify_all();
}

}  // namespace filerd
