#include "hubwarden_client/terminal.h"

#include <fcntl.h>
#include <pwd.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <thread>

namespace hubwarden_client {

std::optional<std::string> read_password_from_terminal(const std::string& prompt) {
  int fd = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return std::nullopt;
  termios saved{};
  if (tcgetattr(fd, &saved) != 0) {
    close(fd);
    return std::nullopt;
  }
  termios quiet = saved;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  quiet.c_lflag |= ECHONL;
  if (write(fd, prompt.data(), prompt.size()) < 0 || tcsetattr(fd, TCSAFLUSH, &quiet) != 0) {
    close(fd);
    return std::nullopt;
  }
  std::string password;
  bool ended = false;
  char c;
  while (true) {
    ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (c == '\n' || c == '\r') {
      ended = true;
      break;
    }
    password.push_back(c);
  }
  tcsetattr(fd, TCSAFLUSH, &saved);
  close(fd);
  if (!ended && password.empty()) return std::nullopt;
  return password;
}

ClientIo system_io() {
  ClientIo io;
  io.env = [](const std::string& name) -> std::optional<std::string> {
    const char* value = std::getenv(name.c_str());
    if (!value) return std::nullopt;
    return std::string(value);
  };
  io.read_stdin = []() -> std::optional<std::string> {
    std::string text(std::istreambuf_iterator<char>(std::cin), {});
    if (std::cin.bad()) return std::nullopt;
    return text;
  };
  io.read_password = read_password_from_terminal;
  io.connect = [](const Endpoint& endpoint) { return make_curl_transport(endpoint); };
  io.pause = [](int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    return true;
  };
  io.local_user = []() -> std::string {
    struct passwd entry {};
    struct passwd* found = nullptr;
    char buffer[4096];
    if (getpwuid_r(geteuid(), &entry, buffer, sizeof buffer, &found) == 0 && found) return found->pw_name;
    return std::to_string(geteuid());
  };
  io.out = &std::cout;
  io.err = &std::cerr;
  return io;
}

}  // namespace hubwarden_client
